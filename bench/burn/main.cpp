// bench-burn: burns a 32,767-byte image (the most a burn can carry) through a
// pseudo-terminal into pyrolink-sim, which paces the bytes of both directions
// at the line rate, once in normal mode and once on the fast line, and prints
// the two side by side with the tick period seen meanwhile.
// Usage: bench-burn [--baud N] [--frame-len N] [--sim PATH]
// (no --baud: 57600, then 9600; frame length 512 unless told)
#include "burn.h"
#include "portcontrol.h"
#include "qtserialcontrol.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTextStream>
#include <QTimer>

using namespace pyro;

namespace {

constexpr int kTickMs = 15;

struct Run {
    bool ok = false;
    double wallMs = 0;
    qint64 ticks = 0;
    double worstTickMs = 0;   // the longest time between two ticks
    qint64 fastReplies = 0;
    int binLen = 0;
    QString log;
};

Run burnOnce(const QString &simPath, const QString &image, int baud, const QString &frameLen, bool fast)
{
    Run r;
    QProcess sim;
    sim.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    sim.start(simPath, {"--baud", QString::number(baud)});
    QByteArray line;
    while (!line.contains('\n') && sim.waitForReadyRead(10000))
        line += sim.readAllStandardOutput();
    if (!line.startsWith("ready ")) {
        r.log = simPath + " gave no ready line";
        return r;
    }
    const QString pty = QString::fromLocal8Bit(line.mid(6, line.indexOf('\n') - 6)).trimmed();

    Link l;
    QtSerialControl port;
    Burn b;
    AttachPort(l, &port);
    AttachBurn(l, b);
    InitPortBoxes(l.view);
    l.fastLine = fast;
    l.view.ComboSet[0].text = pty;
    l.view.ComboSet[1].text = QString::number(baud);
    l.view.ComboSet[5].text = frameLen;
    Command2Click(l);
    if (!port.isOpen()) {
        r.log = "cannot open " + pty + ": " + port.errorText();
        return r;
    }
    ChooseFile(l, b, image);
    Command4Click(l, b);
    if (l.view.Command4Caption != QLatin1String("Stop")) {
        r.log = "the image was refused\n" + l.view.RTB;
        return r;
    }

    QElapsedTimer wall, sinceTick;
    bool timedOut = false;
    QEventLoop loop;
    QTimer tick, deadline;
    tick.setTimerType(Qt::PreciseTimer);
    tick.setInterval(kTickMs);
    QObject::connect(&tick, &QTimer::timeout, &loop, [&] {
        if (sinceTick.isValid())
            r.worstTickMs = std::max(r.worstTickMs, sinceTick.nsecsElapsed() / 1e6);
        sinceTick.start();
        MBTimTimer(l);
        if (l.view.Command4Caption != QLatin1String("Stop") || !port.isOpen())
            loop.quit();
    });
    QObject::connect(&deadline, &QTimer::timeout, &loop, [&] {
        timedOut = true;
        loop.quit();
    });
    const qint64 startTick = l.ticks;
    wall.start();
    tick.start();
    deadline.setSingleShot(true);
    deadline.start(600000);
    loop.exec();
    r.wallMs = wall.nsecsElapsed() / 1e6;
    r.ticks = l.ticks - startTick;
    r.fastReplies = l.fastReplies;
    r.binLen = b.BinLen;
    ClosePort(l);
    sim.write("quit\n");
    if (!sim.waitForFinished(3000))
        sim.kill();
    r.ok = !timedOut && b.ChipsDone == 1;
    if (!r.ok)
        r.log = "the burn did not finish\n" + l.view.RTB;
    return r;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTextStream out(stdout), err(stderr);
    QStringList args = app.arguments().mid(1);
    QList<int> bauds{57600, 9600};
    QString simPath = QCoreApplication::applicationDirPath() + "/pyrolink-sim";
    QString frameLen = "512";
    for (int i = 0; i + 1 < args.size(); i += 2) {
        if (args[i] == "--baud")
            bauds = {args[i + 1].toInt()};
        else if (args[i] == "--frame-len")
            frameLen = args[i + 1];
        else if (args[i] == "--sim")
            simPath = args[i + 1];
    }
    for (int baud : bauds) {
        if (baud != 57600 && baud != 9600 && baud != 1200) {
            err << "bench-burn: --baud takes 57600, 9600 or 1200\n";
            return 2;
        }
    }

    QTemporaryDir dir;
    QByteArray img(kMaxImageLen, '\0');
    for (int i = 0; i < img.size(); ++i)
        img[i] = char((i * 131 + (i >> 9)) & 0xFF);
    img.replace(1024, 50, QByteArray(50, char(0xFF)));
    const QString path = dir.filePath("largest.BIN");
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly) || f.write(img) != img.size()) {
        err << "bench-burn: cannot write " << path << "\n";
        return 2;
    }
    f.close();

    int status = 0;
    for (int baud : bauds) {
        const double raw = baud / 10.0;   // bytes a second, 8N1
        out << QString("%1 baud, image %2 bytes, frame length %3, the line's raw rate %4 byte/s\n")
                   .arg(baud).arg(img.size()).arg(frameLen).arg(raw, 0, 'f', 0);
        // A write frame longer on the wire than the reply limit (20 ticks from
        // the transmit-empty notice, which a driver's buffer gives at once)
        // times out and goes again, in either mode.
        if ((frameLen.toInt() + 9 + 5) * 10.0 * 1000 / baud > 20 * kTickMs)
            out << "  (a write frame outlasts the reply limit at this rate: expect repeats)\n";
        out << QString("  %1 %2 %3 %4 %5 %6\n")
                   .arg("mode", -7).arg("wall s", 8).arg("byte/s", 7).arg("% raw", 6)
                   .arg("tick ms avg/worst", 18).arg("fast replies", 12);
        for (bool fast : {false, true}) {
            const Run r = burnOnce(simPath, path, baud, frameLen, fast);
            if (!r.ok) {
                err << "bench-burn: " << (fast ? "fast" : "normal") << " at " << baud << ": " << r.log << "\n";
                status = 1;
                continue;
            }
            const double rate = r.binLen / (r.wallMs / 1000);
            out << QString("  %1 %2 %3 %4 %5 %6\n")
                       .arg(fast ? "fast" : "normal", -7)
                       .arg(r.wallMs / 1000, 8, 'f', 3)
                       .arg(rate, 7, 'f', 0)
                       .arg(100.0 * rate / raw, 6, 'f', 1)
                       .arg(QString("%1 / %2").arg(r.ticks ? r.wallMs / r.ticks : 0, 0, 'f', 2)
                                .arg(r.worstTickMs, 0, 'f', 1), 18)
                       .arg(r.fastReplies, 12);
            out.flush();
        }
    }
    return status;
}
