#include "clisession.h"
#include "commands.h"
#include "help.h"

#include <QCoreApplication>
#include <QTextStream>

namespace {

struct Entry {
    const char *name;
    int (*run)(const QStringList &);
    const char *summary;
};
const Entry kCommands[] = {
    {"ports", cliPorts, "list the serial ports, their makers and which are in use"},
    {"monitor", cliMonitor, "print the link state as it changes"},
    {"table", cliTable, "check a table file, decode a block with it"},
    {"burn", cliBurn, "burn firmware into chips"},
    {"params", cliParams, "read, get, set, update, save, erase, watch the settings; info"},
    {"db", cliDb, "create, list, show and check project databases"},
    {"records", cliRecords, "ask the chip store: a chip's history, a span, an order, a summary; import CSV"},
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("pyrolink-cli"));
    QCoreApplication::setApplicationVersion(pyro::VersionText());

    QString summary = QStringLiteral("The engine of Pyrolink without a window, for production scripts.\n\nCommands:\n");
    for (const Entry &e : kCommands)
        summary += QStringLiteral("  %1%2\n").arg(QString::fromLatin1(e.name).leftJustified(9), QLatin1String(e.summary));
    summary += QStringLiteral("\n'pyrolink-cli COMMAND --help' tells the options of a command.");
    CliCommand top(QString(), summary, QStringLiteral("COMMAND [options]"));
    top.parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    top.parser.addPositionalArgument(QStringLiteral("command"), QStringLiteral("The command to run."));
    top.add(QStringLiteral("records"), QStringLiteral("The line's chip store for this run, instead of records.conf in "
                                                      "the application folder: postgresql://USER@HOST:PORT/DATABASE "
                                                      "(or with ?host=/socket/folder)."), QStringLiteral("URL"));
    bool done = false;
    const int code = top.parse(app.arguments().mid(1), &done);
    if (done)
        return code;
    if (top.parser.isSet(QStringLiteral("records"))) {
        // A script's address that doesn't parse is its mistake: refused, not passed over.
        pyro::LineStoreConfig line;
        QString why;
        if (!pyro::ParseRecordsUrl(top.parser.value(QStringLiteral("records")), &line, &why))
            return top.usageError(QStringLiteral("--records: %1").arg(why));
        CliSetRecordsUrl(top.parser.value(QStringLiteral("records")));
    }
    QStringList rest = top.parser.positionalArguments();
    if (rest.isEmpty())
        return top.usageError(QStringLiteral("no command given"));
    const QString cmd = rest.takeFirst();
    for (const Entry &e : kCommands)
        if (cmd == QLatin1String(e.name))
            return e.run(rest);
    return top.usageError(QStringLiteral("unknown command '%1'").arg(cmd));
}
