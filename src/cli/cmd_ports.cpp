// pyrolink-cli ports: every port the system or the bench knows, what it is,
// and whether it can be had.
#include "clisession.h"
#include "commands.h"
#include "portcontrol.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QSerialPort>
#include <QSerialPortInfo>
#include <unistd.h>

using namespace pyro;

namespace {

QString stateOf(const QString &device)
{
    const QByteArray path = QFile::encodeName(device);
    if (::access(path.constData(), F_OK) != 0)
        return QStringLiteral("not found");
    if (const PortAccess a = CheckPortAccess(device); a.denied)
        return QStringLiteral("no permission (group %1)").arg(a.group);
    QSerialPort port;
    port.setPortName(device);
    if (port.open(QIODevice::ReadWrite)) {
        port.close();
        return QStringLiteral("free");
    }
    // Readable and writable, and still refused: a lock or an exclusive open.
    return port.error() == QSerialPort::PermissionError ? QStringLiteral("in use")
                                                        : QStringLiteral("cannot open (%1)").arg(port.errorString());
}

} // namespace

int cliPorts(const QStringList &args)
{
    if (args.contains(QLatin1String("--probe")))
        return cliPortsProbe(args);
    CliCommand cmd("ports", "Lists each serial port with its description, maker, serial number and USB ids "
                            "where the system knows them, and whether it is in use.");
    cmd.add("probe", "Poll each port for a board instead; 'ports --probe --help' tells more.");
    bool done = false;
    const int code = cmd.parse(args, &done);
    if (done)
        return code;
    if (!cmd.positional(0, 0))
        return kExitUsage;
    const QString appDir = CliAppDir();
    const QList<QSerialPortInfo> infos = QSerialPortInfo::availablePorts();
    cmd.out << "port\tdevice\tstate\tdescription\tmaker\tserial number\tUSB id\n";
    for (const QString &name : CandidatePorts(appDir)) {
        const QString device = ResolvePortName(name, appDir);
        const QString real = QFileInfo(device).canonicalFilePath();
        QSerialPortInfo info;
        for (const QSerialPortInfo &i : infos)
            if (i.systemLocation() == device || (!real.isEmpty() && QFileInfo(i.systemLocation()).canonicalFilePath() == real))
                info = i;
        const QString usb = info.hasVendorIdentifier() && info.hasProductIdentifier()
            ? QStringLiteral("%1:%2").arg(info.vendorIdentifier(), 4, 16, QLatin1Char('0')).arg(info.productIdentifier(), 4, 16, QLatin1Char('0'))
            : QString();
        auto orDash = [](const QString &s) { return s.trimmed().isEmpty() ? QStringLiteral("-") : s.trimmed(); };
        cmd.out << name << '\t' << device << '\t' << stateOf(device) << '\t' << orDash(info.description()) << '\t'
                << orDash(info.manufacturer()) << '\t' << orDash(info.serialNumber()) << '\t' << orDash(usb) << '\n';
    }
    cmd.out.flush();
    return kExitOk;
}
