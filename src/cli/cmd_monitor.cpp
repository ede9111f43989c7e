#include "clisession.h"
#include "commands.h"

using namespace pyro;

int cliMonitor(const QStringList &args)
{
    CliCommand cmd("monitor", "Prints each new text of the link state (status panel 1) on its own line.");
    cmd.addPortOptions();
    cmd.add("seconds", "End after S seconds (default 0: until Ctrl-C).", "S", "0");
    cmd.add("v,verbose", "Also print every exchange on the line.");
    bool done = false;
    int code = cmd.parse(args, &done);
    if (done)
        return code;
    CliSession s;
    double seconds = 0;
    if (!cmd.positional(0, 0) || !s.takePortOptions(cmd) || !cmd.number("seconds", 0, 1e9, &seconds))
        return kExitUsage;
    CliCatchSignals();
    if (cmd.parser.isSet("verbose"))
        s.traceExchanges();
    code = s.openPort("monitor");
    if (code != kExitOk)
        return code;
    QString shown;
    auto printPanel = [&] {
        if (s.link.view.SB[1] != shown) {
            shown = s.link.view.SB[1];
            s.out << shown << Qt::endl;
        }
    };
    printPanel();
    // Ends on its own only when the time is up; a port that goes away shows
    // "Open port first！" and the monitor goes on waiting like the window.
    return s.run({}, seconds, printPanel) == CliSession::End::Interrupted ? kExitInterrupted : kExitOk;
}
