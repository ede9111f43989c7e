// Watches running values for a while and prints how fast and how steadily:
// polls per second, the time DecodeBlock takes per poll, and the period of
// the 15 ms tick while watching. The board is the in-process simulated one
// (replies on the same ticks) or, with --pty, pyrolink-sim behind a
// pseudo-terminal at 57600 baud with its output paced like the line.
#include "fakeport.h"
#include "link.h"
#include "paramops.h"
#include "params.h"
#include "portcontrol.h"
#include "qtserialcontrol.h"
#include "simlink.h"
#include "benchkit.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTextStream>
#include <QTimer>
#include <algorithm>

using namespace pyro;

namespace {

QTextStream out(stdout);

struct Figures {
    qint64 polls = 0;
    double seconds = 0;
    double decodeUs = 0;        // DecodeBlock alone, mean of many calls
    double pollTickUs = 0;      // mean handler time of ticks that decoded
    double tickMeanMs = 0;
    double tickWorstMs = 0;
    qint64 ticks = 0;
};

// Runs the watch for the given time with ticks from a 15 ms precise timer.
// step runs one tick of the whole setup.
Figures watch(Link &link, Params &p, ParamOps &ops, double seconds, const std::function<void()> &step)
{
    Figures f;
    QElapsedTimer clock, since;
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    tick.setInterval(15);
    qint64 last = -1, sum = 0, worst = 0, periods = 0, startPolls = -1;
    qint64 pollTickNs = 0, pollTicks = 0;
    QEventLoop loop;
    QObject::connect(&tick, &QTimer::timeout, [&] {
        const qint64 t = clock.nsecsElapsed();
        if (startPolls >= 0 && last >= 0) {
            sum += t - last;
            worst = std::max(worst, t - last);
            ++periods;
        }
        last = t;
        const qint64 before = ops.displayPolls;
        QElapsedTimer h;
        h.start();
        step();
        if (ops.displayPolls != before && startPolls >= 0) {
            pollTickNs += h.nsecsElapsed();
            ++pollTicks;
        }
        // Measure from the first decoded poll on: the address is known then.
        if (startPolls < 0 && ops.displayPolls > 0) {
            startPolls = ops.displayPolls;
            since.start();
        }
        if (startPolls >= 0 && since.elapsed() >= qint64(seconds * 1000))
            loop.quit();
        if (startPolls < 0 && clock.elapsed() > 10000)
            loop.quit();   // never got going
    });
    link.ModeRequest = 7;
    clock.start();
    tick.start();
    loop.exec();
    tick.stop();
    if (startPolls < 0)
        return f;
    f.polls = ops.displayPolls - startPolls;
    f.seconds = since.nsecsElapsed() / 1e9;
    f.ticks = periods;
    f.tickMeanMs = periods ? sum / 1e6 / periods : 0;
    f.tickWorstMs = worst / 1e6;
    f.pollTickUs = pollTicks ? pollTickNs / 1e3 / pollTicks : 0;

    const int n = 2000;
    QElapsedTimer d;
    d.start();
    for (int i = 0; i < n; ++i)
        DecodeBlock(p.MSFG[1], p.DisplayImage, p.DisplayRows, p.Tables[1], link.prompter);
    f.decodeUs = d.nsecsElapsed() / 1e3 / n;
    return f;
}

void report(const QString &board, const QString &table, const Params &p, const Figures &f)
{
    out << board << " | " << table << " | rows " << p.Tables[1].RowCount << " | block " << p.Tables[1].BlockSize
        << " B\n";
    if (f.polls == 0) {
        out << "  no running values came in\n" << Qt::flush;
        return;
    }
    out << QString("  polls %1 in %2 s = %3 polls/s\n").arg(f.polls).arg(f.seconds, 0, 'f', 2).arg(f.polls / f.seconds, 0, 'f', 1)
        << QString("  DecodeBlock %1 us per poll; tick handler with a decode %2 us\n")
               .arg(f.decodeUs, 0, 'f', 1).arg(f.pollTickUs, 0, 'f', 1)
        << QString("  tick period mean %1 ms (%2% off 15 ms), worst %3 ms over %4 ticks\n")
               .arg(f.tickMeanMs, 0, 'f', 3).arg((f.tickMeanMs - 15.0) / 15.0 * 100, 0, 'f', 2)
               .arg(f.tickWorstMs, 0, 'f', 3).arg(f.ticks)
        << Qt::flush;
}

bool loadTables(Params &p, const QByteArray &display, Prompter *prompter)
{
    const QString dir = QCoreApplication::applicationDirPath();
    LoadParamTables(p, dir, prompter);
    if (display.isEmpty())
        return p.Tables[1].BlockSize > 0 && p.DisplayImage.size() == p.Tables[1].BlockSize + 1;
    if (LoadProtocolTableData(p.MSFG[1], display, p.DisplayRows, p.Tables[1]) != 0)
        return false;
    p.DisplayImage = QByteArray(p.Tables[1].BlockSize + 1, '\0');
    return true;
}

void runInProcess(const QString &name, const QByteArray &display, double seconds)
{
    Link link;
    FakePort port;
    ScriptedPrompter prompter;
    Params p;
    ParamOps ops;
    link.prompter = &prompter;
    AttachPort(link, &port);
    InitPortBoxes(link.view);
    if (!loadTables(p, display, &prompter)) {
        out << "cannot load the tables: " << prompter.shown.join("; ") << Qt::endl;
        return;
    }
    InstallParamOps(link, p, ops);
    SimBoard board;
    attachSim(port, board);
    link.view.ComboSet[0].text = QStringLiteral("/dev/sim");
    Command2Click(link);
    const Figures f = watch(link, p, ops, seconds, [&] { simStep(port, board, link); });
    report("in-process board", name, p, f);
    detachSim(port, board);
}

void runPty(const QString &name, const QByteArray &display, double seconds)
{
    QProcess sim;
    sim.setProgram(QCoreApplication::applicationDirPath() + "/pyrolink-sim");
    sim.setArguments({"--baud", "57600"});
    sim.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    sim.start();
    QByteArray line;
    while (sim.waitForReadyRead(5000)) {
        line += sim.readAllStandardOutput();
        if (line.contains('\n'))
            break;
    }
    if (!line.startsWith("ready ")) {
        out << "pyrolink-sim did not get ready" << Qt::endl;
        sim.kill();
        sim.waitForFinished();
        return;
    }
    const QString path = QString::fromLocal8Bit(line.mid(6, line.indexOf('\n') - 6)).trimmed();
    {
        Link link;
        QtSerialControl port;
        ScriptedPrompter prompter;
        Params p;
        ParamOps ops;
        link.prompter = &prompter;
        AttachPort(link, &port);
        InitPortBoxes(link.view);
        if (loadTables(p, display, &prompter)) {
            InstallParamOps(link, p, ops);
            link.view.ComboSet[0].text = path;
            Command2Click(link);
            const Figures f = watch(link, p, ops, seconds, [&] { MBTimTimer(link); });
            report("pyrolink-sim on " + path + " at 57600 baud", name, p, f);
            ClosePort(link);
        }
    }
    sim.write("quit\n");
    if (!sim.waitForFinished(3000)) {
        sim.kill();
        sim.waitForFinished(3000);
    }
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments().mid(1);
    double seconds = 5;
    const int at = int(args.indexOf("--seconds"));
    if (at >= 0 && at + 1 < args.size())
        seconds = args[at + 1].toDouble();
    const bool pty = args.contains("--pty");
    const bool both = !pty && !args.contains("--in-process") ? true : false;

    const QByteArray synthetic = syntheticDisplayTable();
    if (!pty || both) {
        runInProcess("Display.For", {}, seconds);
        runInProcess("synthetic", synthetic, seconds);
    }
    if (pty || both) {
        runPty("Display.For", {}, seconds);
        runPty("synthetic", synthetic, seconds);
    }
    return 0;
}
