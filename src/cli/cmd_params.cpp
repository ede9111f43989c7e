// pyrolink-cli params: the settings block, the running values and the
// information block of the board, as the image buttons reach them.
#include "chiplog.h"
#include "clisession.h"
#include "commands.h"
#include "fileguard.h"
#include "gridedit.h"
#include "image.h"
#include "itemblock.h"
#include "paramops.h"
#include "params.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <cstdio>
#include <unistd.h>

using namespace pyro;

namespace {

const QString kReadOk = QStringLiteral("Successful reading data set");
const QString kUpdateOk = QStringLiteral("Update the set data successfully");
const QString kSaveOk = QStringLiteral("Save Settings data successfully");
const QString kEraseOk = QStringLiteral("Erase the data successfully");
const QString kStampRefused = QStringLiteral("Set the data validation is invalid");

const char *const kVerbs[][2] = {
    {"read", "read the settings block and print every row; --out keeps it"},
    {"get", "read and print the named rows (caption or row number)"},
    {"set", "NAME=VALUE...: check, store, update; --save also saves"},
    {"update", "send a block (--in BIN, or --db FILE --item PATH) to the working copy"},
    {"save", "as update, and write it into the board's flash"},
    {"erase", "restore the board's default settings (asks, or --yes)"},
    {"watch", "the running values, sampled every --interval ms"},
    {"info", "the information block of the firmware"},
    {"diff", "A B: the rows where two sources differ (board, an item, a file, defaults)"},
    {"export", "the settings as a readable file, JSON or CSV"},
    {"import", "FILE: a settings file, checked whole, into the board or an item"},
};

// One table as the start-up loads it: the block takes BlockSize + 1 bytes.
bool loadTable(Params &p, int t, const QString &path, QString *error)
{
    TableDiag diag;
    const QString bad = CheckInputFile(path, 1 << 20);
    if (!bad.isEmpty()) {
        *error = QStringLiteral("%1: %2").arg(kTableLoadErrorText, bad);
        return false;
    }
    if (LoadProtocolTable(p.MSFG[t], path, p.rows(t), p.Tables[t], &diag) != 0) {
        *error = QStringLiteral("%1: %2").arg(kTableLoadErrorText, QDir::toNativeSeparators(path));
        if (diag.line > 0)
            *error += QStringLiteral(": line %1").arg(diag.line);
        if (!diag.reason.isEmpty())
            *error += QStringLiteral(": ") + diag.reason;
        return false;
    }
    p.block(t) = QByteArray(p.Tables[t].BlockSize + 1, '\0');
    return true;
}

bool valueRow(const Params &p, int t, int r)
{
    const QList<ParamRow> &rows = t == 0 ? p.SetRows : p.DisplayRows;
    return r >= 1 && r < p.Tables[t].RowCount && r < rows.size() && rows[r].Addr >= 1;
}

// A row by its number or by the caption of its item (or "group/item"),
// case ignored. -1 with the reason when none or several match.
int findRow(const Params &p, int t, const QString &name, QString *error)
{
    bool isNumber = false;
    const int n = name.toInt(&isNumber);
    if (isNumber) {
        if (valueRow(p, t, n))
            return n;
        *error = QStringLiteral("row %1 holds no value").arg(name);
        return -1;
    }
    const GridModel &g = p.MSFG[t];
    QList<int> hits;
    for (int r = 1; r < p.Tables[t].RowCount; ++r) {
        if (!valueRow(p, t, r))
            continue;
        const QString item = g.text(r, 2).trimmed();
        const QString both = g.text(r, 1).trimmed() + QLatin1Char('/') + item;
        if (item.compare(name.trimmed(), Qt::CaseInsensitive) == 0 || both.compare(name.trimmed(), Qt::CaseInsensitive) == 0)
            hits << r;
    }
    if (hits.size() == 1)
        return hits[0];
    if (hits.isEmpty()) {
        *error = QStringLiteral("no row is called '%1'").arg(name);
    } else {
        QStringList nums;
        for (int r : hits)
            nums << QString::number(r);
        *error = QStringLiteral("'%1' names rows %2: give the row number").arg(name, nums.join(", "));
    }
    return -1;
}

// The checks of the grid's editors, then the codec: the list editor takes
// one of its labels, the number box a number inside Labels' range.
bool storeValue(Params &p, int r, const QString &text, Prompter *prompter, QString *error)
{
    const ParamRow &row = p.SetRows[r];
    const ValueKind kind = KindOf(row);
    if (kind == ValueKind::None || kind == ValueKind::Unsupported) {
        *error = QStringLiteral("row %1 can't be set").arg(r);
        return false;
    }
    const bool list = row.IsList == 1 || kind == ValueKind::Bit;
    if (list) {
        QStringList labels;
        for (const QString &l : SplitList(row.Labels))
            labels << l.trimmed();
        const int at = labels.indexOf(text.trimmed());
        if (at < 0) {
            *error = QStringLiteral("'%1' is not one of: %2").arg(text, labels.join(", "));
            return false;
        }
        return EncodeValue(labels[at], p.SetImage, p.SetRows, r, prompter) == 0
            || (*error = kListMismatchText, false);
    }
    bool ok = false;
    const double x = text.trimmed().toDouble(&ok);
    if (!ok) {
        *error = QStringLiteral("'%1' is not a number").arg(text);
        return false;
    }
    const QStringList range = SplitList(row.Labels);
    if (range.size() != 2) {
        *error = kNoRangeText;
        return false;
    }
    if (x < LeadingNumber(range[0]) || x > LeadingNumber(range[1])) {
        // The window's message, without its box's title.
        *error = RangeErrorMessage(range);
        return false;
    }
    return EncodeValue(text.trimmed(), p.SetImage, p.SetRows, r, prompter) == 0
        || (*error = kListMismatchText, false);
}

struct ParamsRun {
    CliCommand &cmd;
    CliSession s;
    Params p;
    ParamOps ops;

    explicit ParamsRun(CliCommand &c) : cmd(c) {}

    // Presses an image button and ticks until its mode has had the line and
    // ended. kExitOk with the status text left in SB[2].
    int operate(int button, uint8_t mode)
    {
        MenuImgClick(ops, button);
        if (s.link.ModeRequest != mode) {
            s.err << "pyrolink-cli " << cmd.name << ": the operation did not start" << Qt::endl;
            return kExitFailed;
        }
        // Each operation ends by its own count of ticks, in about 11 s at
        // most on a silent line (a send limit of 500 ticks, then a reply
        // limit of 200). The 60 s are only a guard against one that never
        // hands the line back, so that a script is never left hanging.
        bool entered = false;
        const CliSession::End end = s.run([&] {
            entered = entered || s.link.LinkMode == mode;
            return (entered && s.link.ModeRequest == 0) || !s.port.isOpen();
        }, 60);
        if (end == CliSession::End::Interrupted) {
            s.err << "pyrolink-cli " << cmd.name << ": interrupted" << Qt::endl;
            return kExitInterrupted;
        }
        if (!s.port.isOpen()) {
            s.err << "pyrolink-cli " << cmd.name << ": port " << s.link.view.ComboSet[0].text << ": lost" << Qt::endl;
            return kExitPort;
        }
        if (end == CliSession::End::TimedOut) {
            s.err << "pyrolink-cli " << cmd.name << ": no end of the operation after 60 s" << Qt::endl;
            return kExitNoAnswer;
        }
        return kExitOk;
    }

    // The operation's status text: kExitOk when it is the one expected.
    int expect(const QString &ok)
    {
        const QString result = s.link.view.SB[2];
        if (result == ok) {
            s.err << result << Qt::endl;
            return kExitOk;
        }
        s.err << result << Qt::endl;
        // The operations time out by their own count of ticks on silence.
        return result.contains(QLatin1String("fail"), Qt::CaseInsensitive) && s.link.MBResult == 2 ? kExitNoAnswer : kExitFailed;
    }

    int readSettings()
    {
        int code = operate(1, 3);
        return code != kExitOk ? code : expect(kReadOk);
    }
};

// The settings block to send, from a file or a project item.
int takeBlock(ParamsRun &run, QByteArray *block)
{
    CliCommand &cmd = run.cmd;
    const bool fromFile = cmd.parser.isSet("in");
    const bool fromDb = cmd.parser.isSet("db") || cmd.parser.isSet("item");
    if (fromFile == fromDb)
        return cmd.usageError("give --in BIN, or --db FILE with --item PATH");
    const int size = run.p.Tables[0].BlockSize;
    QString why;
    if (fromFile) {
        const QString path = cmd.parser.value("in");
        QString bad = CheckInputFile(path, 1 << 20);
        if (bad.isEmpty() && !ReadWholeFile(path, 1 << 20, block, &bad))
            block->clear();
        if (!bad.isEmpty()) {
            cmd.err << "pyrolink-cli " << cmd.name << ": --in: " << bad << Qt::endl;
            return kExitFailed;
        }
        // A block for another table would be stamped and sent as if it fitted.
        if (block->size() != size) {
            cmd.err << "pyrolink-cli " << cmd.name << ": --in: " << path << " holds " << block->size()
                    << " bytes; the settings block has " << size << Qt::endl;
            return kExitFailed;
        }
    } else {
        if (!cmd.parser.isSet("db") || !cmd.parser.isSet("item"))
            return cmd.usageError("--db and --item go together");
        const QString path = cmd.parser.value("db");
        const QString bad = CheckInputFile(path, qint64(1) << 31);
        if (!bad.isEmpty() || !ReadItemBlock(path, cmd.parser.value("item"), cmd.parser.value("key"), block, &why)) {
            cmd.err << "pyrolink-cli " << cmd.name << ": --db: " << (bad.isEmpty() ? why : bad) << Qt::endl;
            return kExitFailed;
        }
        *block = block->left(size);
    }
    // The update step writes a fresh CRC, as it does for the window's working
    // copy: a stale one is no fault, only a length field that doesn't fit
    // the table refuses the block, with the window's words.
    QByteArray stamped = *block;
    if (StampImage(stamped, run.p.Tables[0]) != 0) {
        cmd.err << kStampRefused << Qt::endl;
        return kExitFailed;
    }
    return kExitOk;
}

struct WatchOptions {
    double interval = 1000;   // ms between samples
    bool once = false;
    double seconds = 0;       // 0: no end
    double timeout = 10;      // s without a reading before the board counts as gone
    QString format;
};

int watch(ParamsRun &run, const QList<int> &rows, const WatchOptions &o)
{
    CliSession &s = run.s;
    const GridModel &g = run.p.MSFG[1];
    const QString port = s.link.view.ComboSet[0].text;
    MenuImgClick(run.ops, 5);
    if (o.format == QLatin1String("csv")) {
        QStringList head{QStringLiteral("time")};
        for (int r : rows)
            head << CsvField(g.text(r, 2).trimmed());
        s.emitLine(head.join(','));
    }
    qint64 seen = 0, answers = 0;
    int samples = 0;
    QElapsedTimer sinceSample, sinceAnswer;
    sinceAnswer.start();
    int badCrc = 0;   // replies with a bad CRC since the last sample
    auto trace = s.link.onExchange;
    s.link.onExchange = [&](const ExchangeRecord &r) {
        if (trace)
            trace(r);
        if (r.direction == ExchangeRecord::Received && r.outcome == 4)
            ++badCrc;
    };
    bool lost = false, silent = false;
    const CliSession::End end = s.run([&] {
        if (!s.port.isOpen())
            return lost = true;
        if (sinceAnswer.elapsed() >= qint64(o.timeout * 1000))
            return silent = true;
        return o.once && samples > 0;
    }, o.seconds, [&] {
        if (run.ops.displayPolls != answers) {
            answers = run.ops.displayPolls;
            sinceAnswer.restart();
            badCrc = 0;
        }
        if (run.ops.displayPolls == seen || (samples > 0 && sinceSample.elapsed() < qint64(o.interval)))
            return;
        seen = run.ops.displayPolls;
        sinceSample.start();
        ++samples;
        const QString time = QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz"));
        if (o.format == QLatin1String("csv")) {
            QStringList f{time};
            for (int r : rows)
                f << CsvField(g.text(r, kValueCol));
            s.emitLine(f.join(','));
        } else if (o.format == QLatin1String("json")) {
            QJsonObject values;
            for (int r : rows)
                values[g.text(r, 2).trimmed()] = g.text(r, kValueCol);
            QJsonObject obj{{QStringLiteral("time"), time}, {QStringLiteral("values"), values}};
            s.emitLine(QString::fromUtf8(QJsonDocument(obj).toJson(QJsonDocument::Compact)));
        } else {
            // A sample is its time and its rows, written as one piece.
            QStringList block{time};
            for (int r : rows)
                block << QStringLiteral("%1\t%2\t%3\t%4").arg(r).arg(g.text(r, 1), g.text(r, 2), g.text(r, kValueCol));
            s.emitLine(block.join('\n'));
        }
    });
    s.link.onExchange = trace;
    if (end == CliSession::End::Interrupted)
        return kExitInterrupted;
    if (lost) {
        s.err << "pyrolink-cli params watch: port " << port << ": lost" << Qt::endl;
        return kExitPort;
    }
    if (silent) {
        s.err << "pyrolink-cli params watch: " << NoAnswerText(port, o.timeout, badCrc) << Qt::endl;
        return kExitNoAnswer;
    }
    if (samples == 0) {
        // --seconds ran out before the first sample.
        s.err << "pyrolink-cli params watch: " << NoAnswerText(port, o.seconds, badCrc) << Qt::endl;
        return kExitNoAnswer;
    }
    return kExitOk;
}

int paramsHelp(bool asked)
{
    QTextStream stream(asked ? stdout : stderr);
    stream << "Usage: pyrolink-cli params VERB [options]\n\nVerbs:\n";
    for (const auto &v : kVerbs)
        stream << "  " << QString::fromLatin1(v[0]).leftJustified(8) << QLatin1String(v[1]) << "\n";
    stream << "\n'pyrolink-cli params VERB --help' tells the options of a verb.\n\n" << kExitTable;
    return asked ? kExitOk : kExitUsage;
}

} // namespace

int cliParams(const QStringList &argsIn)
{
    QStringList args = argsIn;
    if (args.isEmpty())
        return paramsHelp(false);
    const QString verb = args.takeFirst();
    if (verb == QLatin1String("-h") || verb == QLatin1String("--help"))
        return paramsHelp(true);
    if (verb == QLatin1String("--version")) {
        QTextStream(stdout) << "pyrolink-cli " << QCoreApplication::applicationVersion() << Qt::endl;
        return kExitOk;
    }
    if (verb == "diff" || verb == "export" || verb == "import")
        return cliParamsService(verb, args);
    QString summary;
    for (const auto &v : kVerbs)
        if (verb == QLatin1String(v[0]))
            summary = QLatin1String(v[1]);
    if (summary.isEmpty()) {
        QTextStream(stderr) << "pyrolink-cli params: unknown verb '" << verb << "'\nTry 'pyrolink-cli params --help'.\n";
        return kExitUsage;
    }
    const QString synopsis = verb == "get" ? "NAME..." : verb == "set" ? "NAME=VALUE..." : QString();
    CliCommand cmd("params " + verb, summary, synopsis);
    cmd.addPortOptions();
    cmd.add("config", "The settings table (default: Config.For beside the program).", "FILE");
    cmd.add("display", "The display table (default: Display.For beside the program).", "FILE");
    cmd.add("v,verbose", "Also print every exchange on the line.");
    if (verb == "read")
        cmd.add("out", "Write the block read into this file.", "BIN");
    if (verb == "set")
        cmd.add("save", "Also save the settings into the board's flash.");
    if (verb == "update" || verb == "save") {
        cmd.add("in", "The block to send, as 'params read --out' writes it.", "BIN");
        cmd.add("db", "A project database ...", "FILE");
        cmd.add("item", "... and the path of captions of its item, as A/B/C.", "PATH");
        cmd.add("key", "The field key of the database's texts (empty by default).", "K");
    }
    if (verb == "erase")
        cmd.add("yes", "Erase without asking (needed when no one is at a terminal).");
    if (verb == "watch") {
        cmd.add("interval", "Milliseconds between samples (default 1000).", "MS", "1000");
        cmd.add("once", "Print one sample and end.");
        cmd.add("rows", "The rows to print, by caption or number (default: all).", "NAME,...");
        cmd.add("format", "table, csv or json (default table).", "F", "table");
        cmd.add("seconds", "End after S seconds (default 0: until Ctrl-C).", "S", "0");
        cmd.add("timeout", "Seconds the board may go without an answer (default 10).", "S", "10");
    }
    bool done = false;
    int code = cmd.parse(args, &done);
    if (done)
        return code;
    ParamsRun run(cmd);
    CliSession &s = run.s;
    const bool named = verb == "get" || verb == "set";
    if (!cmd.positional(named ? 1 : 0, named ? 1 << 20 : 0) || !s.takePortOptions(cmd))
        return kExitUsage;
    WatchOptions watchOpts;
    if (verb == "watch") {
        if (!cmd.number("interval", 0, 86400000, &watchOpts.interval) || !cmd.number("seconds", 0, 1e9, &watchOpts.seconds)
            || !cmd.number("timeout", 0.1, 1e7, &watchOpts.timeout))
            return kExitUsage;
        watchOpts.once = cmd.parser.isSet("once");
        watchOpts.format = cmd.parser.value("format");
        const QString &format = watchOpts.format;
        if (format != "table" && format != "csv" && format != "json")
            return cmd.usageError(QStringLiteral("--format: '%1' is not one of table, csv, json").arg(format));
    }
    if (verb == "erase" && !cmd.parser.isSet("yes") && !isatty(fileno(stdin)))
        return cmd.usageError("erase needs --yes when no one is at a terminal to answer");

    QString error;
    Params &p = run.p;
    const QString appDir = s.link.appDir;
    if (!loadTable(p, 0, cmd.parser.isSet("config") ? cmd.parser.value("config") : appDir + "/Config.For", &error)
        || !loadTable(p, 1, cmd.parser.isSet("display") ? cmd.parser.value("display") : appDir + "/Display.For", &error)) {
        s.err << error << Qt::endl;
        return kExitFailed;
    }
    InstallParamOps(s.link, p, run.ops);

    // Names are checked before the port opens: a typo costs no exchange.
    QList<int> rows;
    QStringList values;
    const QStringList names = verb == "watch" && cmd.parser.isSet("rows")
        ? cmd.parser.value("rows").split(',', Qt::SkipEmptyParts) : cmd.parser.positionalArguments();
    for (const QString &n : names) {
        QString name = n;
        if (verb == "set") {
            const int eq = int(n.indexOf('='));
            if (eq <= 0)
                return cmd.usageError(QStringLiteral("'%1' is not NAME=VALUE").arg(n));
            name = n.left(eq);
            values << n.mid(eq + 1);
        }
        const int r = findRow(p, verb == "watch" ? 1 : 0, name, &error);
        if (r < 0)
            return cmd.usageError(error);
        rows << r;
    }
    if (verb == "watch" && rows.isEmpty())
        for (int r = 1; r < p.Tables[1].RowCount; ++r)
            if (valueRow(p, 1, r))
                rows << r;

    // An output that can't take the block is refused before the board is asked.
    if (verb == "read" && cmd.parser.isSet("out")) {
        const QString out = cmd.parser.value("out");
        const QString bad = out.isEmpty() ? QStringLiteral("no file name") : WriteTargetProblem(out);
        if (!bad.isEmpty()) {
            s.err << "pyrolink-cli " << cmd.name << ": --out: " << bad << ": " << out << Qt::endl;
            return kExitFailed;
        }
    }

    QByteArray block;
    if (verb == "update" || verb == "save") {
        code = takeBlock(run, &block);
        if (code != kExitOk)
            return code;
    }
    if (verb == "erase" && !cmd.parser.isSet("yes")) {
        QTextStream(stderr) << "警告: 确认擦除设置参数，恢复默认设置吗？ [y/N] " << Qt::flush;
        QTextStream in(stdin);
        const QString answer = in.readLine().trimmed().toLower();
        if (answer != "y" && answer != "yes") {
            s.err << "not erased" << Qt::endl;
            return kExitFailed;
        }
    }
    s.prompter.answerYes = true;   // asked above, or --yes

    CliCatchSignals();
    if (cmd.parser.isSet("verbose"))
        s.traceExchanges();
    code = s.openPort(cmd.name);
    if (code != kExitOk)
        return code;

    if (verb == "watch")
        return watch(run, rows, watchOpts);
    if (verb == "info") {
        code = run.operate(6, 6);
        if (code != kExitOk)
            return code;
        if (run.ops.infoReads == 0) {
            s.err << "Read the device information failed" << Qt::endl;
            return kExitFailed;
        }
        s.out << "Device ID：" << run.ops.BitInf.DeviceId << '\n'
              << "Order ID：" << run.ops.BitInf.OrderId.trimmed() << '\n'
              << "DateUpdated：" << run.ops.BitInf.DateUpdated.trimmed() << '\n'
              << "Remark：" << run.ops.BitInf.RemarkStamp.trimmed() << Qt::endl;
        return kExitOk;
    }
    if (verb == "erase") {
        code = run.operate(0, 2);
        return code != kExitOk ? code : run.expect(kEraseOk);
    }
    if (verb == "update" || verb == "save") {
        p.SetImage.replace(0, int(block.size()), block);
        code = run.operate(verb == "update" ? 2 : 3, verb == "update" ? 4 : 5);
        return code != kExitOk ? code : run.expect(verb == "update" ? kUpdateOk : kSaveOk);
    }

    code = run.readSettings();
    if (code != kExitOk)
        return code;
    const GridModel &g = p.MSFG[0];
    if (verb == "read") {
        for (int r = 1; r < p.Tables[0].RowCount; ++r)
            if (valueRow(p, 0, r))
                s.out << r << '\t' << g.text(r, 1) << '\t' << g.text(r, 2) << '\t' << g.text(r, kValueCol) << '\n';
        s.out.flush();
        if (cmd.parser.isSet("out")) {
            const QString out = cmd.parser.value("out");
            if (!WriteFileWhole(out, p.SetImage.left(p.Tables[0].BlockSize), &error)) {
                s.err << "pyrolink-cli " << cmd.name << ": --out: cannot write " << out << ": " << error
                      << "; nothing was written" << Qt::endl;
                return kExitFailed;
            }
        }
        return kExitOk;
    }
    if (verb == "get") {
        for (int i = 0; i < rows.size(); ++i)
            s.out << names[i] << '=' << g.text(rows[i], kValueCol) << '\n';
        s.out.flush();
        return kExitOk;
    }
    // set: every value is checked before any is stored, so a bad one changes nothing.
    const QByteArray before = p.SetImage;
    for (int i = 0; i < rows.size(); ++i) {
        if (!storeValue(p, rows[i], values[i], &s.prompter, &error)) {
            p.SetImage = before;
            s.err << names[i].section('=', 0, 0) << ": " << error << "; nothing changed" << Qt::endl;
            return kExitFailed;
        }
    }
    code = run.operate(2, 4);
    if (code == kExitOk)
        code = run.expect(kUpdateOk);
    if (code == kExitOk && cmd.parser.isSet("save")) {
        code = run.operate(3, 5);
        if (code == kExitOk)
            code = run.expect(kSaveOk);
    }
    return code;
}
