#pragma once
#include "link.h"
#include "qtserialcontrol.h"
#include "recordsconfig.h"

#include <QCommandLineParser>
#include <QStringList>
#include <QTextStream>
#include <functional>

// One table of exit codes for every command.
enum CliExit : int {
    kExitOk = 0,          // done
    kExitFailed = 1,      // refused or failed
    kExitUsage = 2,       // bad command line
    kExitPort = 3,        // the port could not be opened or failed
    kExitNoAnswer = 4,    // no answer, or a time limit passed
    kExitInterrupted = 5, // Ctrl-C, SIGTERM, SIGHUP, SIGPIPE
};
extern const QString kExitTable;

// Prints boxes to stderr; questions take the answer the command decided on
// (a command that must not answer for the user asks first).
class ConsolePrompter : public pyro::Prompter {
public:
    bool answerYes = true;
    void message(const QString &text, const QString &title) override;
    bool question(const QString &text, const QString &title) override;
    QString openFile(const QString &, const QString &, const QString &) override { return {}; }
    QString saveFile(const QString &, const QString &, const QString &) override { return {}; }
};

// The command line of one command through QCommandLineParser: help on
// -h/--help, named usage errors, and checked values.
struct CliCommand {
    QString name;                 // "burn", "params set"
    QString synopsis;             // what follows the options in the usage line
    QCommandLineParser parser;
    QTextStream out{stdout};
    QTextStream err{stderr};

    CliCommand(const QString &name, const QString &description, const QString &synopsis = {});
    void addPortOptions();
    void add(const QString &names, const QString &help, const QString &valueName = {}, const QString &def = {});
    // kExitOk to go on; otherwise the code to exit with (help printed: 0 with
    // `done` set; a usage error: 2).
    int parse(const QStringList &args, bool *done);
    int usageError(const QString &why);
    // The value of a number option within [min, max]; false after a usage error.
    bool number(const QString &option, double min, double max, double *value);
    // A positional argument count check.
    bool positional(int min, int max);
    QString helpText() const;
};

// Set by SIGINT, SIGTERM, SIGHUP and SIGPIPE once a session has begun.
bool CliInterrupted();
void CliCatchSignals();

// The application folder the window would use (tables, Config.MPK, COMn
// links); the first call says on stderr what kept it from being made or seeded.
QString CliAppDir();

// The chip store's choice for this run: the bench's own store, and the
// line's server from --records URL (before the command) or records.conf in
// the application folder. The first call says on stderr why a server named
// is not used.
void CliSetRecordsUrl(const QString &url);
pyro::RecordsChoice CliRecordsChoice();

// One headless run of the engine on a real port: the same Link, ticks and
// port control as the window, driven by a 15 ms precise timer.
struct CliSession {
    pyro::Link link;
    pyro::QtSerialControl port;
    ConsolePrompter prompter;
    QTextStream out{stdout};
    QTextStream err{stderr};
    QTextStream *logStream = &out;   // where log lines go
    int logPrinted = 0;              // characters of the log pane already printed
    bool printLog = true;

    CliSession();

    // The port boxes from the parsed options; false after a usage error.
    bool takePortOptions(CliCommand &cmd);
    // Opens the port as Command2 does. kExitOk, or kExitPort after a message
    // that names the port and the reason.
    int openPort(const QString &command);
    // Prints every exchange on stderr: time, direction, function, frame, outcome.
    void traceExchanges();

    enum class End { Done, TimedOut, Interrupted };
    // Runs ticks until done() says so, the seconds pass (0: no limit) or a
    // signal comes. afterTick runs after each tick.
    End run(const std::function<bool()> &done, double seconds, const std::function<void()> &afterTick = {});
    // Prints the log lines added since the last call, as the pane shows them.
    void flushLog();
    // Data on stdout: the text and a line end in one write, at once, also
    // into a pipe or a file (no buffer holds it back).
    void emitLine(const QString &text);
};

QString OutcomeText(int16_t outcome);
// "no answer from the board on P after N s", or with replies that all failed
// their CRC "no good answer from the board on P (N replies with a bad CRC)".
QString NoAnswerText(const QString &port, double seconds, int badCrcReplies);
// Checks a file named on the command line: what kind of trouble it has, or empty.
QString CheckInputFile(const QString &path, qint64 maxBytes);
