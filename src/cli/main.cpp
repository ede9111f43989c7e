#include "commands.h"

#include <QCoreApplication>
#include <QTextStream>
#include <cstdio>

static int usage()
{
    QTextStream(stderr) << "usage: pyrolink-cli COMMAND [options]\n"
                           "  ports                         list the ports that open\n"
                           "  monitor --port P [--seconds S] print the link state as it changes\n"
                           "  table FILE [--image BIN]      check a table file, decode a block\n"
                           "  burn --port P --file F [...]  burn firmware into chips\n"
                           "  params read|update|save|erase|watch|info --port P [...]\n"
                           "  db new|tree|show|check FILE [...]\n"
                           "common port options: --baud 57600 --parity None --data-bits 8 --stop-bits 1\n";
    return 2;
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments().mid(1);
    if (args.isEmpty())
        return usage();
    const QString cmd = args.takeFirst();
    if (cmd == "ports")
        return cliPorts(args);
    if (cmd == "monitor")
        return cliMonitor(args);
    if (cmd == "table")
        return cliTable(args);
    if (cmd == "burn")
        return cliBurn(args);
    if (cmd == "params")
        return cliParams(args);
    if (cmd == "db")
        return cliDb(args);
    return usage();
}
