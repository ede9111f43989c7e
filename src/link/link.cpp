#include "link.h"
#include "portcontrol.h"
#include "frame.h"
#include "crc16.h"

#include <QLocale>
#include <cmath>

namespace pyro {

void MBBuildFrame(Link &l, uint8_t function, const QByteArray &body)
{
    l.MBTxBuf = pyro::MBBuildFrame(function, body);
}

void MBSend(Link &l, int16_t quietLimit, int16_t replyLimit, int16_t sendLimit)
{
    l.MBQuietLimit = quietLimit;
    l.MBReplyLimit = replyLimit;
    l.MBSendLimit = sendLimit;
    l.MBWait = 0;
    l.MBResult = 0;
    // Step 1 before the bytes leave: a transmit-empty notice that comes at
    // once must find it. The input is not flushed: a late reply stays in
    // front of the next one and fails its CRC, and the retry clears the line.
    l.MBStep = 1;
    if (l.onExchange)
        l.onExchange({ExchangeRecord::Sent, l.ticks, uint8_t(l.MBTxBuf.size() > 1 ? l.MBTxBuf[1] : 0), l.MBTxBuf, 0});
    if (l.MBMC)
        l.MBMC->output(l.MBTxBuf);   // a refused frame ends as outcome 1
}

void OnComm(Link &l, CommEvent ev)
{
    switch (ev) {
    case comEvReceive:
        l.MBQuiet = 0;
        break;
    case comEvSend:
        if (l.MBStep == 1) {
            l.MBStep = 2;
            l.MBWait = 0;
            if (l.MBMC)
                l.MBMC->clearOutput();
        }
        break;
    }
}

static void judgeBlock(Link &l)
{
    const QByteArray &rx = l.MBRxBuf;
    const QByteArray &tx = l.MBTxBuf;
    if (rx.size() < 4) {
        l.MBResult = 3;
        return;
    }
    if (!FrameCrcOk(rx)) {
        l.MBResult = 4;
        return;
    }
    if (tx.size() < 2 || rx[1] != tx[1])
        l.MBResult = 5;
}

void MBExchangeTick(Link &l)
{
    switch (l.MBStep) {
    case 0:
        l.MBWait = 0;
        l.MBQuiet = 0;
        break;
    case 1:
        if (++l.MBWait >= l.MBSendLimit) {
            l.MBResult = 1;
            l.MBStep = 3;
        }
        break;
    case 2: {
        bool judged = false;
        if (++l.MBQuiet >= l.MBQuietLimit) {
            l.MBQuiet = 0;
            QByteArray block = l.MBMC ? l.MBMC->input() : QByteArray();
            if (l.MBMC)
                l.MBMC->clearInput();
            l.MBRxBuf = block;
            // An empty read only restarts the silence count.
            if (!block.isEmpty()) {
                judgeBlock(l);
                l.MBStep = 3;
                judged = true;
            }
        }
        if (!judged && ++l.MBWait >= l.MBReplyLimit) {
            l.MBResult = 2;
            l.MBStep = 3;
        }
        break;
    }
    default:
        break;
    }
    if (l.MBStep == 3) {
        if (l.onExchange)
            l.onExchange({ExchangeRecord::Received, l.ticks, uint8_t(l.MBTxBuf.size() > 1 ? l.MBTxBuf[1] : 0),
                          l.MBResult >= 3 || l.MBResult == 0 ? l.MBRxBuf : QByteArray(), l.MBResult});
        l.MBWait = 0;
        l.MBQuiet = 0;
        l.MBStep = 0;
    }
}

void AttachPort(Link &l, SerialControl *port)
{
    l.MBMC = port;
    if (port)
        port->onComm = [&l](CommEvent ev) { OnComm(l, ev); };
}

void LinkMonitorStep(Link &l)
{
    switch (l.StateWord) {
    case 0: // poll the board
        MBBuildFrame(l, kFnLinkPoll, QByteArray(1, '\0'));
        MBSend(l, 3, 20, 20);
        l.StateWord = 1;
        break;
    case 1: // judge the answer
        if (l.MBStep != 0)
            break;
        if (l.MBResult == 0) {
            switch (uint8_t(l.MBRxBuf.size() > 2 ? l.MBRxBuf[2] : 0)) {
            case 1: l.view.SB[1] = QStringLiteral("Link normal-download mode"); break;
            case 2: l.view.SB[1] = QStringLiteral("Link normal-run mode"); break;
            case 3: l.view.SB[1] = QStringLiteral("Link normal-stop mode"); break;
            default: break;
            }
            l.TryCount = 0;
        }
        l.StateWord = 0;
        if (++l.TryCount >= 6) {
            l.TryCount = 0;
            l.view.SB[1] = QStringLiteral("Link failure！");
        }
        break;
    default:
        l.StateWord = 0;
        break;
    }
}

void MBTimTimer(Link &l)
{
    // A message box or modal window opened from inside a step runs its own
    // event loop; a tick that arrives there must not step anything again.
    if (l.inTick)
        return;
    l.inTick = true;
    ++l.ticks;

    if (!l.MBMC || !l.MBMC->isOpen()) {
        // A port that went away by itself (adapter pulled, far end closed)
        // takes the steps of a click on CloseUart, so that the lamp, the
        // caption and a running burn agree with the closed port.
        if (l.view.Command2Caption == QLatin1String("CloseUart"))
            ClosePort(l);
        l.StateWord = 0;
        l.MBResult = -1;
        l.BurnArmed = 0;
        l.view.Command3Enabled = false;
        l.view.Command4Enabled = false;
        l.view.SB[1] = QStringLiteral("Open port first！");
        l.inTick = false;
        return;
    }
    l.view.Command3Enabled = true;
    MBExchangeTick(l);
    if ((l.LinkMode != l.ModeRequest || l.ModeRearmed) && l.MBStep == 0) {
        // The outcome of the exchange that just ended is dropped unread.
        l.LinkMode = l.ModeRequest;
        l.StateWord = 0;
        l.ModeRearmed = false;
    }
    if (l.LinkMode == 0)
        LinkMonitorStep(l);
    else if (l.LinkMode < l.modeStep.size() && l.modeStep[l.LinkMode])
        l.modeStep[l.LinkMode]();
    l.inTick = false;
}

void ShowProgress(View &v, const QString &text, float fraction)
{
    v.InfLab = text;
    if (!(fraction > 0.0f)) {
        v.PersLabVisible = false;
        return;
    }
    if (fraction > 1.0f)
        fraction = 1.0f;
    v.PersLabWidth = int(RoundHalfEven((v.InfLabWidth - 20) * double(fraction)));
    v.PersLabVisible = true;
}

QString LogLine(const QDateTime &when, const QString &message)
{
    return when.toString(QStringLiteral("yyyy-MM-dd")) + QLatin1Char(' ')
        + when.toString(QStringLiteral("HH:mm:ss")) + message + QStringLiteral("\r\n");
}

void AddLog(Link &l, const QString &message)
{
    l.view.RTB += LogLine(l.now(), message);
}

qint64 RoundHalfEven(double x)
{
    if (!std::isfinite(x))
        return 0;
    if (x >= 9.0e18)
        return qint64(9.0e18);
    if (x <= -9.0e18)
        return -qint64(9.0e18);
    return qint64(std::nearbyint(x));   // the default rounding mode is to nearest, ties to even
}

void MouseHint(View &v, const QString &toolTip)
{
    // An empty tool tip empties the panel too.
    v.SB[3] = toolTip;
}

} // namespace pyro
