#include "portcontrol.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSerialPortInfo>

namespace pyro {

void InitPortBoxes(View &v)
{
    auto &port = v.ComboSet[0];
    port.list.clear();
    for (int n = 1; n <= 30; ++n)
        port.list << QStringLiteral("COM%1").arg(n);
    port.text = port.list[3];
    v.ComboSet[1] = {{"57600", "9600", "1200"}, "57600"};
    v.ComboSet[2] = {{"None", "Odd", "Even"}, "None"};
    v.ComboSet[3] = {{"4", "5", "6", "7", "8"}, "8"};
    v.ComboSet[4] = {{"1", "2"}, "1"};
    v.ComboSet[5] = {{"512", "256", "128", "64", "32", "16"}, "512"};
}

QString MBSettings(const View &v)
{
    // Odd and Even give "o," and "e," so that those choices open a port too.
    QString parity;
    const QString p = v.ComboSet[2].text;
    if (p == QLatin1String("None"))
        parity = QStringLiteral("n,");
    else if (p == QLatin1String("Odd"))
        parity = QStringLiteral("o,");
    else if (p == QLatin1String("Even"))
        parity = QStringLiteral("e,");
    return v.ComboSet[1].text + QLatin1Char(',') + parity + v.ComboSet[3].text + QLatin1Char(',')
        + v.ComboSet[4].text;
}

bool ParseSettings(const QString &settings, PortSettings *out)
{
    const QStringList f = settings.split(QLatin1Char(','));
    if (f.size() != 4)
        return false;
    bool ok1 = false, ok2 = false, ok3 = false;
    const qint64 baud = f[0].trimmed().toLongLong(&ok1);
    const QString par = f[1].trimmed().toLower();
    const int data = f[2].trimmed().toInt(&ok2);
    const int stop = f[3].trimmed().toInt(&ok3);
    if (!ok1 || !ok2 || !ok3 || baud <= 0 || baud > 4000000)
        return false;
    if (par != QLatin1String("n") && par != QLatin1String("o") && par != QLatin1String("e"))
        return false;
    if (data < 5 || data > 8 || (stop != 1 && stop != 2))
        return false;
    out->baud = qint32(baud);
    out->parity = par[0].toLatin1();
    out->dataBits = data;
    out->stopBits = stop;
    return true;
}

static int portNumber(const QString &text)
{
    // The number behind the first three characters: COM12 gives 12.
    static const QRegularExpression digits(QStringLiteral("^\\s*(\\d+)"));
    const auto m = digits.match(text.mid(3));
    if (!m.hasMatch())
        return 0;
    bool ok = false;
    const int n = m.captured(1).toInt(&ok);
    return ok && n > 0 && n <= 32767 ? n : 0;
}

QString ResolvePortName(const QString &text, const QString &appDir)
{
    const QString t = text.trimmed();
    if (t.isEmpty())
        return {};
#ifdef Q_OS_WIN
    const int n = portNumber(t);
    return n > 0 ? QStringLiteral("COM%1").arg(n) : QString();
#else
    if (t.startsWith(QLatin1Char('/')))
        return t;
    const int n = portNumber(t);
    if (n <= 0)
        return {};
    const QString link = QDir(appDir).filePath(QStringLiteral("COM%1").arg(n));
    if (!appDir.isEmpty() && QFileInfo::exists(link))
        return link;
    return QStringLiteral("/dev/ttyS%1").arg(n - 1);
#endif
}

void CancelBurnControls(Link &l, const QString &burnResult)
{
    if (l.onBurnCut)
        l.onBurnCut(burnResult);
    l.view.Command4Caption = QStringLiteral("Program");
    l.ModeRequest = 0;
    l.BurnArmed = 0;
    l.BurnBegun = 0;
}

void Command2Click(Link &l)
{
    if (l.view.Command2Caption != QLatin1String("OpenUart")) {
        ClosePort(l);
        return;
    }
    PortSettings ps;
    const QString name = ResolvePortName(l.view.ComboSet[0].text, l.appDir);
    if (name.isEmpty() || !ParseSettings(MBSettings(l.view), &ps) || !l.MBMC || !l.MBMC->open(name, ps)) {
        if (l.prompter)
            l.prompter->message(QStringLiteral("Serial port error！"), QStringLiteral("Hint"));
        return;
    }
    l.MBMC->clearOutput();
    l.MBMC->clearInput();
    l.lineSettings = ps;
    l.view.Command2Caption = QStringLiteral("CloseUart");
    l.view.Shape1 = qRgb(0, 255, 0);
    l.view.SB[1] = QStringLiteral("Serial uart has ben Opened");
}

namespace {

void closePort(Link &l, const QString &burnResult)
{
    if (l.MBMC && l.MBMC->isOpen()) {
        l.MBMC->close();
        l.view.SB[1] = QStringLiteral("Serial uart has ben closed");
    }
    l.view.Command2Caption = QStringLiteral("OpenUart");
    l.view.Shape1 = qRgb(255, 0, 0);
    ShowProgress(l.view, l.BinPath, 0);
    if (l.view.Command4Caption == QLatin1String("Stop"))
        AddLog(l, QStringLiteral(" Cancel program"));
    CancelBurnControls(l, burnResult);
}

} // namespace

void ClosePort(Link &l)
{
    closePort(l, QStringLiteral("port closed"));
}

void PortLost(Link &l)
{
    closePort(l, QStringLiteral("port lost"));
}

void ComboSetChange(Link &l, int)
{
    if (l.view.Command2Caption == QLatin1String("CloseUart"))
        ClosePort(l);
}

void AutoDetect(Link &l, const QStringList &candidates)
{
    if (l.MBMC)
        l.MBMC->close();
    l.view.Command2Caption = QStringLiteral("OpenUart");
    l.view.Shape1 = qRgb(255, 0, 0);
    l.view.ComboSet[0].list.clear();
    PortSettings ps;
    ParseSettings(MBSettings(l.view), &ps);   // a failed parse keeps the defaults
    for (const QString &c : candidates) {
        const QString name = ResolvePortName(c, l.appDir);
        if (name.isEmpty() || !l.MBMC)
            continue;
        if (l.MBMC->open(name, ps)) {
            l.view.ComboSet[0].list << c;
            l.MBMC->close();
        }
    }
    l.view.ComboSet[0].text = l.view.ComboSet[0].list.value(0);
    if (l.view.Command4Caption == QLatin1String("Stop"))
        AddLog(l, QStringLiteral(" Cancel burning"));
    ShowProgress(l.view, l.BinPath, 0);
    CancelBurnControls(l);
}

QStringList CandidatePorts(const QString &appDir)
{
    QStringList names;
#ifdef Q_OS_WIN
    Q_UNUSED(appDir);
    for (int n = 1; n <= 20; ++n)
        names << QStringLiteral("COM%1").arg(n);
#else
    // Links the bench installer or the simulator made beside the program first.
    for (int n = 1; n <= 20; ++n)
        if (!appDir.isEmpty() && QFileInfo::exists(QDir(appDir).filePath(QStringLiteral("COM%1").arg(n))))
            names << QStringLiteral("COM%1").arg(n);
    for (const QSerialPortInfo &info : QSerialPortInfo::availablePorts())
        names << info.systemLocation();
#endif
    return names;
}

} // namespace pyro
