#include "clisession.h"
#include "commands.h"

using namespace pyro;

int cliMonitor(const QStringList &argsIn)
{
    QStringList args = argsIn;
    CliSession s;
    QString error;
    const double seconds = takeOption(args, "--seconds", "0").toDouble();
    if (!s.takePortOptions(args, &error) || !args.isEmpty()) {
        s.err << "pyrolink-cli monitor: " << (error.isEmpty() ? "unknown option " + args.join(' ') : error) << Qt::endl;
        return 2;
    }
    if (!s.openPort())
        return 1;
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
    s.run({}, seconds, printPanel);
    return 0;
}
