// bench-burn: burns a 32,767-byte image (the most a burn can carry) at 57600
// baud through a pseudo-terminal into pyrolink-sim, which paces its bytes at
// the line rate, and prints the wall time against the best the tick model
// allows for the same frames. Usage: bench-burn [--baud N] [--sim PATH]
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

constexpr double kTickMs = 15.0;
constexpr int kQuietTicks = 3;   // every reply waits out the quiet limit

struct Exchange {
    int request = 0, reply = 0;
    qint64 sentAtTick = 0, doneAtTick = 0;
};

bool isAnswerState(int s) { return s == 2 || s == 4 || s == 6 || s == 8 || s == 10; }

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTextStream out(stdout), err(stderr);
    QStringList args = app.arguments().mid(1);
    int baud = 57600;
    QString simPath = QCoreApplication::applicationDirPath() + "/pyrolink-sim";
    for (int i = 0; i + 1 < args.size(); i += 2) {
        if (args[i] == "--baud")
            baud = args[i + 1].toInt();
        else if (args[i] == "--sim")
            simPath = args[i + 1];
    }
    if (baud != 57600 && baud != 9600 && baud != 1200) {
        err << "bench-burn: --baud takes 57600, 9600 or 1200\n";
        return 2;
    }

    QProcess sim;
    sim.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    sim.start(simPath, {"--baud", QString::number(baud)});
    QByteArray line;
    while (!line.contains('\n') && sim.waitForReadyRead(10000))
        line += sim.readAllStandardOutput();
    if (!line.startsWith("ready ")) {
        err << "bench-burn: " << simPath << " gave no ready line\n";
        return 2;
    }
    const QString pty = QString::fromLocal8Bit(line.mid(6, line.indexOf('\n') - 6)).trimmed();

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

    Link l;
    QtSerialControl port;
    Burn b;
    AttachPort(l, &port);
    AttachBurn(l, b);
    InitPortBoxes(l.view);
    l.view.ComboSet[0].text = pty;
    l.view.ComboSet[1].text = QString::number(baud);
    Command2Click(l);
    if (!port.isOpen()) {
        err << "bench-burn: cannot open " << pty << ": " << port.errorText() << "\n";
        return 2;
    }
    ChooseFile(l, b, path);
    Command4Click(l, b);
    if (l.view.Command4Caption != QLatin1String("Stop")) {
        err << "bench-burn: the image was refused\n" << l.view.RTB;
        return 2;
    }

    QList<Exchange> ex;
    int lastState = -1;
    QElapsedTimer wall;
    qint64 startTick = 0;
    bool timedOut = false;
    QEventLoop loop;
    QTimer tick, deadline;
    tick.setTimerType(Qt::PreciseTimer);
    tick.setInterval(int(kTickMs));
    QObject::connect(&tick, &QTimer::timeout, &loop, [&] {
        MBTimTimer(l);
        const int s = l.LinkMode == 1 ? l.StateWord : -1;
        // A send state has just handed its frame to the engine.
        if (isAnswerState(s) && s != lastState) {
            if (ex.isEmpty()) {
                wall.start();
                startTick = l.ticks;
            }
            ex << Exchange{int(l.MBTxBuf.size()), 0, l.ticks, 0};
        }
        if (isAnswerState(lastState) && s != lastState && !ex.isEmpty()) {
            ex.last().reply = int(l.MBRxBuf.size());
            ex.last().doneAtTick = l.ticks;
        }
        lastState = s;
        if (l.view.Command4Caption != QLatin1String("Stop") || !port.isOpen())
            loop.quit();
    });
    QObject::connect(&deadline, &QTimer::timeout, &loop, [&] {
        timedOut = true;
        loop.quit();
    });
    tick.start();
    deadline.setSingleShot(true);
    deadline.start(600000);
    loop.exec();
    const double wallMs = wall.isValid() ? double(wall.elapsed()) : 0;
    const qint64 ticks = l.ticks - startTick;
    ClosePort(l);
    sim.write("quit\n");
    if (!sim.waitForFinished(3000))
        sim.kill();

    if (timedOut || b.ChipsDone != 1) {
        err << "bench-burn: the burn did not finish\n" << l.view.RTB;
        return 1;
    }

    // The best the tick model allows: each exchange's frames on the wire,
    // then the quiet limit after the reply's last byte, then the tick on
    // which the next state sends.
    const double msPerByte = 10.0 * 1000.0 / baud;
    double wireMs = 0, replyWireMs = 0;
    for (const Exchange &e : ex) {
        wireMs += (e.request + e.reply) * msPerByte;
        replyWireMs += e.reply * msPerByte;
    }
    const double tickMs = kTickMs * kQuietTicks * ex.size();
    const double model = wireMs + tickMs;
    // A pseudo-terminal takes the master's frame at once: only the replies are paced.
    const double modelPty = replyWireMs + tickMs;
    int writes = 0;
    qint64 writeTicks = 0;
    for (int i = 0; i + 1 < ex.size(); ++i) {
        if (ex[i].request > 10) {
            ++writes;
            writeTicks += ex[i + 1].sentAtTick - ex[i].sentAtTick;
        }
    }
    const double payloadBits = 10.0 * b.BinLen;

    out << "image " << b.BinLen << " bytes, frame length " << b.FrameLen << ", " << baud << " baud, "
        << ex.size() << " exchanges (" << writes << " writes)\n";
    out << QString("wall time            %1 s over %2 ticks (%3 ms a tick)\n")
               .arg(wallMs / 1000, 0, 'f', 3).arg(ticks).arg(ticks ? wallMs / ticks : 0, 0, 'f', 2);
    out << QString("tick model, best     %1 s = wire %2 s + %3 x %4 quiet ticks of %5 ms\n")
               .arg(model / 1000, 0, 'f', 3).arg(wireMs / 1000, 0, 'f', 3).arg(ex.size()).arg(kQuietTicks).arg(kTickMs);
    out << QString("ratio wall / model   %1\n").arg(wallMs / model, 0, 'f', 3);
    out << QString("model, replies only  %1 s (the pty does not pace the master's frames); ratio %2\n")
               .arg(modelPty / 1000, 0, 'f', 3).arg(wallMs / modelPty, 0, 'f', 3);
    out << QString("ticks a write takes  %1 on average, send to next send\n")
               .arg(writes ? double(writeTicks) / writes : 0, 0, 'f', 2);
    out << QString("payload rate         %1 byte/s = %2 % of the line's raw rate\n")
               .arg(b.BinLen / (wallMs / 1000), 0, 'f', 0)
               .arg(100.0 * payloadBits / (wallMs / 1000) / baud, 0, 'f', 1);
    return 0;
}
