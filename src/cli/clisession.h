#pragma once
#include "link.h"
#include "qtserialcontrol.h"

#include <QStringList>
#include <QTextStream>
#include <functional>

// Prints boxes to the terminal; questions take the answer given on the
// command line (Yes unless told otherwise), file dialogs are not asked.
class ConsolePrompter : public pyro::Prompter {
public:
    bool answerYes = true;
    void message(const QString &text, const QString &title) override;
    bool question(const QString &text, const QString &title) override;
    QString openFile(const QString &, const QString &, const QString &) override { return {}; }
    QString saveFile(const QString &, const QString &, const QString &) override { return {}; }
};

// One headless run of the engine on a real port: the same Link, ticks and
// port control as the window, driven by a 15 ms precise timer.
struct CliSession {
    pyro::Link link;
    pyro::QtSerialControl port;
    ConsolePrompter prompter;
    QTextStream out{stdout};
    QTextStream err{stderr};
    int logPrinted = 0;   // characters of the log pane already printed

    CliSession();

    // Takes --port, --baud, --parity, --data-bits, --stop-bits, --frame-len
    // out of args into the port boxes. False with a reason for a bad value.
    bool takePortOptions(QStringList &args, QString *error);
    // Opens the port as Command2 does; false after "Serial port error！".
    bool openPort();
    // Runs ticks until done() says so or the seconds pass (0: no limit).
    // afterTick runs after each tick. Returns false on time-out.
    bool run(const std::function<bool()> &done, double seconds,
             const std::function<void()> &afterTick = {});
    // Prints the log lines added since the last call, as the pane shows them.
    void flushLog();
};

// Takes "--name value" out of args; the default when it is not there.
QString takeOption(QStringList &args, const QString &name, const QString &def = {});
bool takeFlag(QStringList &args, const QString &name);
