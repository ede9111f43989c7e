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
    const QString port = s.link.view.ComboSet[0].text;
    QString shown;
    auto printPanel = [&] {
        // A port gone is said once below, not as the panel's "Open port first！".
        if (s.port.isOpen() && s.link.view.SB[1] != shown) {
            shown = s.link.view.SB[1];
            s.emitLine(shown);
        }
    };
    printPanel();
    // A silent board shows "Link failure！" and the monitor goes on: watching
    // a link fail is its job. A port that goes away ends it at once.
    const CliSession::End end = s.run([&] { return !s.port.isOpen(); }, seconds, printPanel);
    if (end == CliSession::End::Interrupted)
        return kExitInterrupted;
    if (!s.port.isOpen()) {
        s.err << "pyrolink-cli monitor: port " << port << ": lost" << Qt::endl;
        return kExitPort;
    }
    return kExitOk;
}
