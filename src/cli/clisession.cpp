#include "clisession.h"
#include "appfolder.h"
#include "burn.h"
#include "fileguard.h"
#include "portcontrol.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QTimer>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace pyro;

const QString kExitTable = QStringLiteral(
    "Exit codes:\n"
    "  0  done\n"
    "  1  refused or failed\n"
    "  2  usage error\n"
    "  3  port: not found, in use, not a serial device, no permission, or lost\n"
    "  4  no answer from the board, or a time limit passed\n"
    "  5  interrupted (Ctrl-C, SIGTERM, SIGHUP, or a reader of stdout gone)\n");

void ConsolePrompter::message(const QString &text, const QString &title)
{
    QTextStream(stderr) << title << ": " << text << Qt::endl;
}

bool ConsolePrompter::question(const QString &text, const QString &title)
{
    QTextStream(stderr) << title << ": " << text << (answerYes ? " Yes" : " No") << Qt::endl;
    return answerYes;
}

// --- the command line --------------------------------------------------------

CliCommand::CliCommand(const QString &n, const QString &description, const QString &syn)
    : name(n), synopsis(syn)
{
    parser.setApplicationDescription(description);
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    parser.addHelpOption();
    // -v is --verbose here, so the version has the long name only.
    parser.addOption(QCommandLineOption(QStringLiteral("version"), QStringLiteral("Displays the version.")));
}

static QString progName(const QString &name)
{
    return name.isEmpty() ? QStringLiteral("pyrolink-cli") : QStringLiteral("pyrolink-cli ") + name;
}

void CliCommand::add(const QString &names, const QString &help, const QString &valueName, const QString &def)
{
    QCommandLineOption o(names.split(QLatin1Char(',')), help, valueName, def);
    parser.addOption(o);
}

void CliCommand::addPortOptions()
{
    add("port", "The serial port: COMn or a device path.", "P");
    add("baud", "Baud rate (default 57600).", "N", "57600");
    add("parity", "None, Odd or Even (default None).", "P", "None");
    add("data-bits", "Data bits (default 8).", "N", "8");
    add("stop-bits", "Stop bits (default 1).", "N", "1");
    add("fast", "Fast line: a reply ends as soon as it is whole and the next frame goes at once.");
}

QString CliCommand::helpText() const
{
    // Qt's first line names the program by its path; ours names the command.
    QString text = parser.helpText();
    const int nl = int(text.indexOf(QLatin1Char('\n')));
    text = QStringLiteral("Usage: %1 [options]%2").arg(progName(name), synopsis.isEmpty() ? QString() : ' ' + synopsis)
        + text.mid(nl);
    return text + QLatin1Char('\n') + kExitTable;
}

int CliCommand::usageError(const QString &why)
{
    err << progName(name) << ": " << why << "\n"
        << "Try '" << progName(name) << " --help'.\n";
    err.flush();
    return kExitUsage;
}

int CliCommand::parse(const QStringList &args, bool *done)
{
    *done = false;
    if (!parser.parse(QStringList{QStringLiteral("pyrolink-cli")} + args)) {
        // Qt's wording, turned into the name of the option and what is wrong.
        QString e = parser.errorText();
        static const QString missing = QStringLiteral("Missing value after '");
        static const QString unknown = QStringLiteral("Unknown option '");
        if (e.startsWith(missing))
            e = e.mid(missing.size()).section(QLatin1Char('\''), 0, 0) + QStringLiteral(" needs a value");
        else if (e.startsWith(unknown))
            e = QStringLiteral("unknown option '") + e.mid(unknown.size()).section(QLatin1Char('\''), 0, 0) + '\'';
        *done = true;
        return usageError(e);
    }
    if (parser.isSet(QStringLiteral("help"))) {
        out << helpText();
        out.flush();
        *done = true;
        return kExitOk;
    }
    if (parser.isSet(QStringLiteral("version"))) {
        out << "pyrolink-cli " << QCoreApplication::applicationVersion() << Qt::endl;
        *done = true;
        return kExitOk;
    }
    return kExitOk;
}

bool CliCommand::number(const QString &option, double min, double max, double *value)
{
    const QString text = parser.value(option);
    bool ok = false;
    const double v = text.toDouble(&ok);
    if (!ok || !std::isfinite(v)) {
        usageError(QStringLiteral("--%1: '%2' is not a number").arg(option, text));
        return false;
    }
    if (v < min || v > max) {
        usageError(QStringLiteral("--%1: %2 is out of range %3..%4").arg(option, text).arg(min).arg(max));
        return false;
    }
    *value = v;
    return true;
}

bool CliCommand::positional(int min, int max)
{
    const QStringList p = parser.positionalArguments();
    if (p.size() > max) {
        usageError(QStringLiteral("unexpected argument '%1'").arg(p.value(max)));
        return false;
    }
    if (p.size() < min) {
        usageError(synopsis.isEmpty() ? QStringLiteral("missing argument")
                                      : QStringLiteral("missing argument: %1").arg(synopsis));
        return false;
    }
    return true;
}

// --- signals -------------------------------------------------------------------

namespace {
volatile std::sig_atomic_t g_interrupted = 0;
extern "C" void onInterrupt(int)
{
    g_interrupted = 1;
}
} // namespace

bool CliInterrupted()
{
    return g_interrupted != 0;
}

void CliCatchSignals()
{
    // A hung-up terminal and a reader of stdout that went away end the run
    // as Ctrl-C does: the chip in hand is recorded, the exit code says so.
    // With SIGPIPE caught, a write into the closed pipe fails instead.
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        struct sigaction sa {};
        sa.sa_handler = onInterrupt;
        sigemptyset(&sa.sa_mask);
        sa.sa_flags = SA_RESTART;
        sigaction(sig, &sa, nullptr);
    }
}

QString CliAppDir()
{
    static const QString path = [] {
        const pyro::AppFolder &f = pyro::ApplicationFolder();
        QTextStream err(stderr);
        for (const QString &note : f.notes)
            err << "pyrolink-cli: " << note << Qt::endl;
        if (!f.error.isEmpty())
            err << "pyrolink-cli: " << f.error << Qt::endl;
        return f.path;
    }();
    return path;
}

namespace {
QString s_recordsUrl;
}

void CliSetRecordsUrl(const QString &url)
{
    s_recordsUrl = url;
}

pyro::RecordsChoice CliRecordsChoice()
{
    static const pyro::RecordsChoice choice = [] {
        pyro::RecordsChoice c = pyro::ChooseRecords(RecordFolder(), s_recordsUrl.isEmpty() ? CliAppDir() : QString(), s_recordsUrl);
        if (!c.notice.isEmpty())
            QTextStream(stderr) << "pyrolink-cli: " << c.notice << Qt::endl;
        return c;
    }();
    return choice;
}

// --- the session -------------------------------------------------------------

CliSession::CliSession()
{
    link.appDir = CliAppDir();
    link.prompter = &prompter;
    AttachPort(link, &port);
    InitPortBoxes(link.view);
}

bool CliSession::takePortOptions(CliCommand &cmd)
{
    auto &box = link.view.ComboSet;
    if (!cmd.parser.isSet("port"))
        return cmd.usageError("--port is missing"), false;
    box[0].text = cmd.parser.value("port");
    const char *names[] = {nullptr, "baud", "parity", "data-bits", "stop-bits"};
    for (int i = 1; i <= 4; ++i) {
        const QString v = cmd.parser.value(QLatin1String(names[i]));
        // The boxes' own spellings; parity is taken in any case.
        QString match;
        for (const QString &item : box[i].list)
            if (item.compare(v, Qt::CaseInsensitive) == 0)
                match = item;
        if (match.isEmpty()) {
            cmd.usageError(QStringLiteral("--%1: '%2' is not one of %3").arg(QLatin1String(names[i]), v, box[i].list.join(", ")));
            return false;
        }
        box[i].text = match;
    }
    link.fastLine = cmd.parser.isSet("fast");
    return true;
}

int CliSession::openPort(const QString &command)
{
    const QString text = link.view.ComboSet[0].text;
    const QString device = ResolvePortName(text, link.appDir);
    auto fail = [&](const QString &why) {
        err << "pyrolink-cli " << command << ": port " << text;
        if (!device.isEmpty() && device != text)
            err << " (" << device << ")";
        err << ": " << why << Qt::endl;
        return int(kExitPort);
    };
    if (device.isEmpty())
        return fail(QStringLiteral("not found"));
    // Looked at before the open, whose refusals don't say which of these it was.
    struct stat st {};
    if (::stat(QFile::encodeName(device).constData(), &st) != 0)
        return fail(QStringLiteral("not found"));
    if (!S_ISCHR(st.st_mode))
        return fail(QStringLiteral("not a serial device"));
    if (const PortAccess a = CheckPortAccess(device); a.denied)
        return fail(PortAccessAdvice(a));
    // "Serial port error！" is said below, with its reason.
    struct Silent : Prompter {
        void message(const QString &, const QString &) override {}
        bool question(const QString &, const QString &) override { return false; }
        QString openFile(const QString &, const QString &, const QString &) override { return {}; }
        QString saveFile(const QString &, const QString &, const QString &) override { return {}; }
    } silent;
    link.prompter = &silent;
    Command2Click(link);
    link.prompter = &prompter;
    if (port.isOpen())
        return kExitOk;
    const QString why = port.errorText();
    // The file is there and may be read and written: a refusal now is a
    // lock or an exclusive open by another program, or no terminal at all.
    if (why.contains(QLatin1String("ermission")) || why.contains(QLatin1String("busy"), Qt::CaseInsensitive)
        || why.contains(QLatin1String("lock"), Qt::CaseInsensitive))
        return fail(QStringLiteral("in use"));
    return fail(QStringLiteral("not a serial device (%1)").arg(why));
}

QString OutcomeText(int16_t outcome)
{
    switch (outcome) {
    case 0: return QStringLiteral("good");
    case 1: return QStringLiteral("send timed out");
    case 2: return QStringLiteral("no reply");
    case 3: return QStringLiteral("too short");
    case 4: return QStringLiteral("CRC wrong");
    case 5: return QStringLiteral("wrong function");
    default: return QStringLiteral("none");
    }
}

void CliSession::traceExchanges()
{
    link.onExchange = [this](const ExchangeRecord &r) {
        err << QDateTime::currentDateTime().toString(QStringLiteral("HH:mm:ss.zzz"))
            << (r.direction == ExchangeRecord::Sent ? " >> " : " << ")
            << QStringLiteral("%1").arg(r.function, 2, 16, QLatin1Char('0')).toUpper() << "  "
            << QString::fromLatin1(r.frame.toHex(' ').toUpper());
        if (r.direction == ExchangeRecord::Received)
            err << "  " << OutcomeText(r.outcome);
        err << Qt::endl;
    };
}

CliSession::End CliSession::run(const std::function<bool()> &done, double seconds,
                                const std::function<void()> &afterTick)
{
    QEventLoop loop;
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    tick.setInterval(15);
    End end = End::Done;
    QElapsedTimer clock;
    clock.start();
    QObject::connect(&tick, &QTimer::timeout, &loop, [&] {
        MBTimTimer(link);
        if (afterTick)
            afterTick();
        flushLog();
        if (CliInterrupted()) {
            end = End::Interrupted;
            loop.quit();
        } else if (done && done()) {
            loop.quit();
        } else if (seconds > 0 && clock.elapsed() >= qint64(seconds * 1000)) {
            end = End::TimedOut;
            loop.quit();
        }
    });
    tick.start();
    if (CliInterrupted())
        return End::Interrupted;
    loop.exec();
    return end;
}

void CliSession::flushLog()
{
    if (link.view.RTB.size() > logPrinted) {
        if (printLog) {
            *logStream << link.view.RTB.mid(logPrinted).replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
            logStream->flush();
        }
        logPrinted = int(link.view.RTB.size());
    }
}

void CliSession::emitLine(const QString &text)
{
    out.flush();
    const QByteArray bytes = (text + QLatin1Char('\n')).toUtf8();
    const char *at = bytes.constData();
    qint64 left = bytes.size();
    while (left > 0) {
        const ssize_t n = ::write(STDOUT_FILENO, at, size_t(left));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;   // a reader gone: SIGPIPE has ended the run
        at += n;
        left -= n;
    }
}

QString NoAnswerText(const QString &port, double seconds, int badCrcReplies)
{
    if (badCrcReplies > 0)
        return QStringLiteral("no good answer from the board on %1 (%2 %3 with a bad CRC)")
            .arg(port).arg(badCrcReplies).arg(badCrcReplies == 1 ? QStringLiteral("reply") : QStringLiteral("replies"));
    return QStringLiteral("no answer from the board on %1 after %2 s").arg(port).arg(seconds);
}

QString CheckInputFile(const QString &path, qint64 maxBytes)
{
    QString reason;
    if (!CheckRegularFile(path, maxBytes, &reason))
        return reason;
    if (QFileInfo(path).size() == 0)
        return QStringLiteral("empty: %1").arg(path);
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return QStringLiteral("can't be opened (%1): %2").arg(f.errorString(), path);
    return {};
}
