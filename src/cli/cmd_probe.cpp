// pyrolink-cli ports --probe: which ports have a board answering, and in
// which mode, found by the link monitor's poll on every port at once.
#include "clisession.h"
#include "commands.h"
#include "portcontrol.h"
#include "portprobe.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

using namespace pyro;

int cliPortsProbe(const QStringList &args)
{
    CliCommand cmd("ports --probe",
                   "Polls each port that opens with the link monitor's frame (0xF0), at the window's default line "
                   "settings or those given, and tells which have a board answering and in which mode (run, "
                   "download, stop). All known ports, or only those named by a repeated --port. Exit 0 when a "
                   "board answered somewhere, 4 when none did.");
    cmd.add("probe", "Poll for boards (this command).");
    cmd.add("port", "A port to poll: COMn or a device path; repeat for more (default: every known port).", "P");
    cmd.add("baud", "Baud rate (default 57600).", "N", "57600");
    cmd.add("parity", "None, Odd or Even (default None).", "P", "None");
    cmd.add("data-bits", "Data bits (default 8).", "N", "8");
    cmd.add("stop-bits", "Stop bits (default 1).", "N", "1");
    cmd.add("polls", "Polls before a port counts as no board (default 3).", "N", "3");
    bool done = false;
    const int code = cmd.parse(args, &done);
    if (done)
        return code;
    if (!cmd.positional(0, 0))
        return kExitUsage;
    double polls = 3;
    if (!cmd.number("polls", 1, 100, &polls))
        return kExitUsage;

    // The line settings through the window's own boxes: the same lists, the
    // same settings text.
    View boxes;
    InitPortBoxes(boxes);
    const char *names[] = {nullptr, "baud", "parity", "data-bits", "stop-bits"};
    for (int i = 1; i <= 4; ++i) {
        const QString v = cmd.parser.value(QLatin1String(names[i]));
        QString match;
        for (const QString &item : boxes.ComboSet[i].list)
            if (item.compare(v, Qt::CaseInsensitive) == 0)
                match = item;
        if (match.isEmpty())
            return cmd.usageError(QStringLiteral("--%1: '%2' is not one of %3")
                                      .arg(QLatin1String(names[i]), v, boxes.ComboSet[i].list.join(", ")));
        boxes.ComboSet[i].text = match;
    }
    PortSettings settings;
    if (!ParseSettings(MBSettings(boxes), &settings))
        return cmd.usageError(QStringLiteral("the line settings %1 can't be opened").arg(MBSettings(boxes)));

    const QString appDir = CliAppDir();
    const QStringList ports = cmd.parser.isSet("port") ? cmd.parser.values("port") : CandidatePorts(appDir);
    PortProbe probe;
    probe.pollLimit = int(polls);
    StartProbe(probe, ports, appDir, settings, [] { return std::make_unique<QtSerialControl>(); });

    // The same 15 ms tick as the window; every line is bounded by its polls.
    CliCatchSignals();
    QEventLoop loop;
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    tick.setInterval(15);
    bool interrupted = false;
    QObject::connect(&tick, &QTimer::timeout, &loop, [&] {
        ProbeTick(probe);
        interrupted = CliInterrupted();
        if (interrupted || ProbeDone(probe))
            loop.quit();
    });
    tick.start();
    if (!ProbeDone(probe))
        loop.exec();
    StopProbe(probe);

    int boards = 0;
    cmd.out << "port\tdevice\tanswer\tdetail\n";
    for (const auto &l : probe.lines) {
        boards += BoardAnswered(l->answer);
        const QString device = ResolvePortName(l->name, appDir);
        cmd.out << l->name << '\t' << (device.isEmpty() ? QStringLiteral("-") : device) << '\t' << ProbeAnswerText(l->answer)
                << '\t' << (l->detail.isEmpty() ? QStringLiteral("-") : l->detail) << '\n';
    }
    cmd.out.flush();
    if (interrupted)
        return kExitInterrupted;
    cmd.err << (boards ? QStringLiteral("%1 of %2 ports have a board answering").arg(boards).arg(probe.lines.size())
                       : QStringLiteral("no board answered on %1 ports").arg(probe.lines.size()))
            << Qt::endl;
    return boards ? kExitOk : kExitNoAnswer;
}
