#include "link.h"
#include "portcontrol.h"
#include "frame.h"
#include "crc16.h"

#include <QLocale>
#include <chrono>
#include <cmath>

namespace pyro {

void MBBuildFrame(Link &l, uint8_t function, const QByteArray &body)
{
    l.MBTxBuf = pyro::MBBuildFrame(function, body);
}

static void judgeBlock(Link &l);

namespace {

// The input side of the port holds 1024 bytes: no reply the fast line looks
// at is longer.
constexpr int kFastMaxReply = 1024;

qint64 nowUs(const Link &l)
{
    if (l.clockUs)
        return l.clockUs();
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

// The exchange observer (the command line's -v, a line monitor) sees each
// frame as it goes and each outcome with the block it was judged on.
void reportSent(Link &l)
{
    if (l.onExchange)
        l.onExchange({ExchangeRecord::Sent, l.ticks, uint8_t(l.MBTxBuf.size() > 1 ? l.MBTxBuf[1] : 0), l.MBTxBuf, 0});
}

void reportReceived(Link &l)
{
    if (l.onExchange)
        l.onExchange({ExchangeRecord::Received, l.ticks, uint8_t(l.MBTxBuf.size() > 1 ? l.MBTxBuf[1] : 0),
                      l.MBResult >= 3 || l.MBResult == 0 ? l.MBRxBuf : QByteArray(), l.MBResult});
}

void output(Link &l)
{
    reportSent(l);
    if (!l.MBMC)
        return;
    // Bytes that came before the frame went out can't be its reply.
    if (l.fastLine && !l.MBMC->peek(1).isEmpty())
        l.fastGiveUp = true;
    l.MBMC->output(l.MBTxBuf);   // a refused frame ends as outcome 1
}

void releaseHeld(Link &l)
{
    l.fastHeld = false;
    // A port closed meanwhile gets nothing: the send limit ends the exchange.
    if (l.MBMC && l.MBMC->isOpen())
        output(l);
}

} // namespace

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
    l.fastGiveUp = false;
    l.fastHeld = false;
    if (l.fastLine) {
        const qint64 left = l.fastGapUntil - nowUs(l);
        if (left > 0) {
            // The frame goes when the peer has had its silence: by the port's
            // timer, else on the next tick. MBSendLimit counts from here.
            l.fastHeld = true;
            if (l.MBMC)
                l.MBMC->wakeAfter(int((left + 999) / 1000), [&l] { FastWake(l); });
            return;
        }
    }
    output(l);
}

int FastReplyLength(const QByteArray &request, const QByteArray &head)
{
    if (request.size() < 2)
        return -1;
    if (head.size() < 2)
        return 0;
    // Another function's reply has no length we know: silence judges it.
    if (head[1] != request[1])
        return -1;
    switch (uint8_t(request[1])) {
    case kFnLinkPoll:
    case kFnEnterDownload:
    case kFnErasePage:
    case kFnWritePage:
    case kFnClosePage:
    case kFnWriteParams:
    case kFnEraseParams:
        return 5;                        // status
    case kFnIdentify:
        return 17;                       // status and the 12-byte identity
    case kFnDisplayAddress:
        return 8;                        // a 4-byte address
    case kFnReadMemory: {
        // Status, the address and count echoed, the data from offset 8. A
        // count other than the one asked for is a length that can't be trusted.
        if (head.size() < 8)
            return 0;
        const uint16_t asked = getLe16(request, 6);
        if (request.size() < 8 || getLe16(head, 6) != asked || 10 + asked > kFastMaxReply)
            return -1;
        return 10 + asked;
    }
    default:
        return -1;
    }
}

qint64 FastGapUs(const PortSettings &s)
{
    const int bits = 1 + s.dataBits + (s.parity == 'n' ? 0 : 1) + s.stopBits;
    const qint64 baud = s.baud > 0 ? s.baud : 57600;
    return (qint64(bits) * 3500000 + baud - 1) / baud;
}

// A whole, good reply in the port ends the exchange now (true). Anything else (too
// few bytes yet, a frame that does not check, more bytes than the frame, a
// length beyond the bound) leaves the bytes where they are; those that can no
// longer become a good frame hand the reply to the quiet ticks for good.
static bool fastTake(Link &l)
{
    if (!l.fastLine || l.fastGiveUp || l.fastSuspect || l.MBStep != 2 || !l.MBMC)
        return false;
    const QByteArray head = l.MBMC->peek(kFastMaxReply + 1);
    const int need = FastReplyLength(l.MBTxBuf, head);
    if (need == 0 || (need > 0 && head.size() < need))
        return false;
    if (need < 0 || head.size() > need || !FrameCrcOk(head)) {
        l.fastGiveUp = true;
        return false;
    }
    const QByteArray taken = l.MBMC->read(need);
    l.MBRxBuf = taken;
    if (taken != head) {
        // The port did not give what it showed: judge all it holds, as the
        // quiet read would, rather than lose a byte.
        l.MBRxBuf += l.MBMC->input();
        l.MBMC->clearInput();
        judgeBlock(l);
        return true;
    }
    l.MBResult = 0;
    l.fastGapUntil = nowUs(l) + FastGapUs(l.lineSettings);
    ++l.fastReplies;
    return true;
}

// The tick's hand-over and steps, run again and again while the owner of the
// line moves on without sending, so that the next frame needs no tick. A step
// that only waits (same mode, same state) is left to the ticks, which count it.
static void fastRound(Link &l)
{
    for (int round = 0; round < 8 && l.MBStep == 0; ++round) {
        const uint8_t mode = l.LinkMode;
        const int16_t state = l.StateWord;
        bool handed = false;
        if (l.LinkMode != l.ModeRequest || l.ModeRearmed) {
            l.LinkMode = l.ModeRequest;
            l.StateWord = 0;
            l.ModeRearmed = false;
            handed = true;
        }
        if (l.LinkMode == 0)
            LinkMonitorStep(l);
        else if (l.LinkMode < l.modeStep.size() && l.modeStep[l.LinkMode])
            l.modeStep[l.LinkMode]();
        if (!handed && l.LinkMode == mode && l.StateWord == state)
            break;
    }
}

static void fastArrival(Link &l)
{
    // Inside a tick (a modal box's own loop) the tick looks for itself.
    if (l.inTick || !l.MBMC || !l.MBMC->isOpen() || !fastTake(l))
        return;
    reportReceived(l);
    l.fastSuspect = l.MBResult != 0;
    l.MBWait = 0;
    l.MBQuiet = 0;
    l.MBStep = 0;
    l.inTick = true;
    fastRound(l);
    l.inTick = false;
}

void FastWake(Link &l)
{
    if (!l.fastHeld || l.inTick)
        return;
    const qint64 left = l.fastGapUntil - nowUs(l);
    if (left > 0) {
        if (l.MBMC)
            l.MBMC->wakeAfter(int((left + 999) / 1000), [&l] { FastWake(l); });
        return;
    }
    releaseHeld(l);
}

void OnComm(Link &l, CommEvent ev)
{
    switch (ev) {
    case comEvReceive:
        l.MBQuiet = 0;
        if (l.fastLine)
            fastArrival(l);
        break;
    case comEvSend:
        if (l.MBStep == 1 && !l.fastHeld) {
            l.MBStep = 2;
            l.MBWait = 0;
            if (l.MBMC)
                l.MBMC->clearOutput();
            if (l.fastLine)
                fastArrival(l);          // the reply may be in already
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
        if (l.fastHeld && nowUs(l) >= l.fastGapUntil)
            releaseHeld(l);
        if (++l.MBWait >= l.MBSendLimit) {
            l.MBResult = 1;
            l.MBStep = 3;
        }
        break;
    case 2: {
        if (fastTake(l)) {               // a notice the fast line did not act on
            l.MBStep = 3;
            break;
        }
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
        reportReceived(l);
        l.fastSuspect = l.MBResult != 0;
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
            PortLost(l);
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
