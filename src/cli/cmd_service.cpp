// pyrolink-cli params diff / export / import: the settings as a service
// technician handles them, compared between sources and kept as files a
// person can read.
#include "clisession.h"
#include "commands.h"
#include "fileguard.h"
#include "image.h"
#include "itemstore.h"
#include "paramops.h"
#include "params.h"
#include "settingsfile.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

using namespace pyro;

namespace {

// diff's own exit codes, as diff(1) has them: 0 equal, 1 different, and
// trouble with a source never reads as "different".
constexpr int kDiffTrouble = 2;

const QString kSourceHelp = QStringLiteral(
    "A source is 'board' (read now over --port), 'defaults' (the table's own: first choices, low ends of ranges), "
    "'item' (the item of --db and --item), 'item:A/B/C' (another item of --db), or a file: a settings file "
    "(JSON or CSV, as 'params export' writes it) or a block (as 'params read --out' writes it).");

struct ServiceRun {
    CliCommand &cmd;
    CliSession s;
    Params p;
    ParamOps ops;
    bool portOpen = false;

    explicit ServiceRun(CliCommand &c) : cmd(c) {}

    QString prog() const { return QStringLiteral("pyrolink-cli ") + cmd.name; }

    bool loadTable(const QString &path, QString *error)
    {
        const QString bad = CheckInputFile(path, 1 << 20);
        TableDiag diag;
        if (!bad.isEmpty() || LoadProtocolTable(p.MSFG[0], path, p.SetRows, p.Tables[0], &diag) != 0) {
            *error = QStringLiteral("%1: %2").arg(kTableLoadErrorText, bad.isEmpty() ? QDir::toNativeSeparators(path) : bad);
            if (bad.isEmpty() && diag.line > 0)
                *error += QStringLiteral(": line %1").arg(diag.line);
            if (bad.isEmpty() && !diag.reason.isEmpty())
                *error += QStringLiteral(": ") + diag.reason;
            return false;
        }
        p.SetImage = QByteArray(p.Tables[0].BlockSize + 1, '\0');
        return true;
    }

    int openBoard()
    {
        if (portOpen)
            return kExitOk;
        if (!s.takePortOptions(cmd))
            return kExitUsage;
        InstallParamOps(s.link, p, ops);
        CliCatchSignals();
        if (cmd.parser.isSet("verbose"))
            s.traceExchanges();
        const int code = s.openPort(cmd.name);
        portOpen = code == kExitOk;
        return code;
    }

    // An image button's operation, ticked until it has had the line and ended.
    int operate(int button, uint8_t mode, const QString &ok)
    {
        MenuImgClick(ops, button);
        bool entered = false;
        const CliSession::End end = s.run([&] {
            entered = entered || s.link.LinkMode == mode;
            return (entered && s.link.ModeRequest == 0) || !s.port.isOpen();
        }, 60);
        if (end == CliSession::End::Interrupted) {
            s.err << prog() << ": interrupted" << Qt::endl;
            return kExitInterrupted;
        }
        if (!s.port.isOpen()) {
            s.err << prog() << ": port " << s.link.view.ComboSet[0].text << ": lost" << Qt::endl;
            return kExitPort;
        }
        if (end == CliSession::End::TimedOut) {
            s.err << prog() << ": no end of the operation after 60 s" << Qt::endl;
            return kExitNoAnswer;
        }
        const QString result = s.link.view.SB[2];
        s.err << result << Qt::endl;
        if (result == ok)
            return kExitOk;
        return s.link.MBResult == 2 ? kExitNoAnswer : kExitFailed;
    }

    // The board's block, read as the read button reads it.
    int readBoard(QByteArray *block)
    {
        int code = openBoard();
        if (code == kExitOk)
            code = operate(1, 3, QStringLiteral("Successful reading data set"));
        if (code == kExitOk)
            *block = p.SetImage.left(p.Tables[0].BlockSize);
        return code;
    }

    bool itemOptions(QString *error)
    {
        if (!cmd.parser.isSet("db")) {
            *error = QStringLiteral("an item needs --db FILE");
            return false;
        }
        const QString bad = CheckInputFile(cmd.parser.value("db"), qint64(1) << 31);
        if (!bad.isEmpty()) {
            *error = QStringLiteral("--db: ") + bad;
            return false;
        }
        return true;
    }

    // A source named on the command line as a block of this table. kExitOk,
    // or the code to end with after the reason is printed.
    int source(const QString &name, QByteArray *block, QString *label, int trouble)
    {
        QString error;
        const int size = p.Tables[0].BlockSize;
        *label = name;
        if (name == QLatin1String("board"))
            return readBoard(block);
        if (name == QLatin1String("defaults")) {
            *block = DefaultsBlock(p);
            return kExitOk;
        }
        if (name == QLatin1String("item") || name.startsWith(QLatin1String("item:"))) {
            const QString path = name == QLatin1String("item") ? cmd.parser.value("item") : name.mid(5);
            if (path.isEmpty())
                error = QStringLiteral("'item' needs --item A/B/C");
            else if (itemOptions(&error)
                     && ReadItemSettings(cmd.parser.value("db"), path, cmd.parser.value("key"), size, block, &error)
                     && GoodBlock(p, *block, &error)) {
                *label = QStringLiteral("item ") + path;
                return kExitOk;
            }
            s.err << prog() << ": " << name << ": " << error << Qt::endl;
            return trouble;
        }
        QByteArray bytes;
        QString bad = CheckInputFile(name, 4 << 20);
        if (bad.isEmpty() && !ReadWholeFile(name, 4 << 20, &bytes, &bad))
            bytes.clear();
        if (!bad.isEmpty()) {
            s.err << prog() << ": " << bad << Qt::endl;
            return trouble;
        }
        // A block as 'params read --out' writes it is binary and exactly one
        // block long; anything else is read as a settings file.
        if (bytes.size() == size && GoodBlock(p, bytes)) {
            *block = bytes;
            return kExitOk;
        }
        ImportDiag diag;
        if (!ImportSettings(p, bytes, QByteArray(), *block, diag)) {
            s.err << prog() << ": " << name << ": " << diag.text() << Qt::endl;
            return trouble;
        }
        return kExitOk;
    }
};

QString withUnit(const SettingValue &v, const QString &unit)
{
    if (!v.hasShown)
        return QStringLiteral("(stored %1)").arg(v.stored);
    return unit.isEmpty() ? v.shown : v.shown + QLatin1Char(' ') + unit;
}

int runDiff(ServiceRun &run)
{
    CliCommand &cmd = run.cmd;
    const QStringList args = cmd.parser.positionalArguments();
    QList<QByteArray> blocks(2);
    QStringList labels(2);
    for (int i = 0; i < 2; ++i) {
        const int code = run.source(args[i], &blocks[i], &labels[i], kDiffTrouble);
        if (code != kExitOk)
            return code == kExitFailed ? kDiffTrouble : code;
    }
    int differ = 0;
    for (const RowCompare &c : CompareBlocks(run.p, blocks)) {
        if (!c.differs)
            continue;
        ++differ;
        SettingValue a = c.values[0], b = c.values[1];
        // Shown alike, stored not: the stored numbers tell them apart.
        if (a.hasShown && b.hasShown && a.shown == b.shown) {
            a.shown += QStringLiteral(" (stored %1)").arg(a.stored);
            b.shown += QStringLiteral(" (stored %1)").arg(b.stored);
        }
        const QString name = c.row.group.isEmpty() ? c.row.caption : c.row.group + QLatin1Char('/') + c.row.caption;
        cmd.out << name << '\t' << withUnit(a, c.row.unit) << '\t' << withUnit(b, c.row.unit) << '\n';
    }
    cmd.out.flush();
    run.s.err << labels[0] << " and " << labels[1] << ": "
              << (differ ? QStringLiteral("%1 rows differ").arg(differ) : QStringLiteral("the same settings")) << Qt::endl;
    return differ ? 1 : kExitOk;
}

int runExport(ServiceRun &run)
{
    CliCommand &cmd = run.cmd;
    QString format = cmd.parser.value("format");
    if (format.isEmpty())
        format = cmd.parser.value("out").endsWith(QLatin1String(".csv"), Qt::CaseInsensitive) ? QStringLiteral("csv")
                                                                                                 : QStringLiteral("json");
    if (format != QLatin1String("json") && format != QLatin1String("csv"))
        return cmd.usageError(QStringLiteral("--format: '%1' is not one of json, csv").arg(format));
    if (cmd.parser.isSet("in") && cmd.parser.isSet("item"))
        return cmd.usageError(QStringLiteral("give --in BIN or --db FILE --item A/B/C, not both"));
    const QString from = cmd.parser.isSet("in") ? cmd.parser.value("in") : cmd.parser.isSet("item") ? QStringLiteral("item")
                                                                                                     : QStringLiteral("board");
    QByteArray block;
    QString label;
    int code = run.source(from, &block, &label, kExitFailed);
    if (code != kExitOk)
        return code;
    QString why;
    if (!GoodBlock(run.p, block, &why)) {
        run.s.err << run.prog() << ": " << label << ": " << why << Qt::endl;
        return kExitFailed;
    }
    const QString tableName = QFileInfo(cmd.parser.isSet("config") ? cmd.parser.value("config") : QStringLiteral("Config.For")).fileName();
    const QByteArray text = ExportSettings(run.p, block, format == QLatin1String("csv") ? SettingsFormat::Csv : SettingsFormat::Json,
                                           label, tableName);
    if (!cmd.parser.isSet("out")) {
        cmd.out.flush();
        fwrite(text.constData(), 1, size_t(text.size()), stdout);
        fflush(stdout);
        return kExitOk;
    }
    const QString out = cmd.parser.value("out");
    QString why2;
    if (!WriteFileWhole(out, text, &why2)) {
        run.s.err << run.prog() << ": cannot write " << out << ": " << why2 << Qt::endl;
        return kExitFailed;
    }
    run.s.err << label << ": " << SettingRows(run.p).size() << " rows written to " << out << Qt::endl;
    return kExitOk;
}

int runImport(ServiceRun &run)
{
    CliCommand &cmd = run.cmd;
    const QString file = cmd.parser.positionalArguments().value(0);
    QByteArray bytes;
    QString bad = CheckInputFile(file, 4 << 20);
    if (bad.isEmpty() && !ReadWholeFile(file, 4 << 20, &bytes, &bad))
        bytes.clear();
    if (!bad.isEmpty()) {
        run.s.err << run.prog() << ": " << bad << Qt::endl;
        return kExitFailed;
    }
    // The file is checked whole before anything is read from or sent to
    // the target, so a bad one costs no exchange.
    SettingsFileData data;
    ImportDiag diag;
    QByteArray probe;
    if (!ParseSettingsFile(bytes, data, diag) || !ApplySettings(run.p, data, QByteArray(), probe, diag)) {
        run.s.err << run.prog() << ": " << file << ": " << diag.text() << "; nothing changed" << Qt::endl;
        return kExitFailed;
    }
    const bool toItem = cmd.parser.isSet("item");
    QByteArray base;
    QString label;
    if (toItem) {
        QString error;
        if (!run.itemOptions(&error)
            || !ReadItemSettings(cmd.parser.value("db"), cmd.parser.value("item"), cmd.parser.value("key"),
                                 run.p.Tables[0].BlockSize, &base, &error)) {
            run.s.err << run.prog() << ": " << error << "; nothing changed" << Qt::endl;
            return kExitFailed;
        }
        // An item that holds no good block yet (a new one) gets a blank one.
        if (!GoodBlock(run.p, base))
            base.clear();
    } else {
        const int code = run.readBoard(&base);
        if (code != kExitOk)
            return code;
    }
    QByteArray block;
    if (!ApplySettings(run.p, data, base, block, diag)) {
        run.s.err << run.prog() << ": " << file << ": " << diag.text() << "; nothing changed" << Qt::endl;
        return kExitFailed;
    }
    int changed = 0;
    for (const RowCompare &c : CompareBlocks(run.p, {base.isEmpty() ? BlankBlock(run.p) : base, block}))
        changed += c.differs;
    if (toItem) {
        QString error;
        if (!WriteItemSettings(cmd.parser.value("db"), cmd.parser.value("item"), cmd.parser.value("key"), block, &error)) {
            run.s.err << run.prog() << ": " << error << Qt::endl;
            return kExitFailed;
        }
        run.s.err << "item " << cmd.parser.value("item") << ": " << changed << " rows changed" << Qt::endl;
        return kExitOk;
    }
    run.p.SetImage.replace(0, int(block.size()), block);
    int code = run.operate(2, 4, QStringLiteral("Update the set data successfully"));
    if (code == kExitOk && cmd.parser.isSet("save"))
        code = run.operate(3, 5, QStringLiteral("Save Settings data successfully"));
    if (code == kExitOk)
        run.s.err << "board: " << changed << " rows changed" << Qt::endl;
    return code;
}

} // namespace

int cliParamsService(const QString &verb, const QStringList &args)
{
    const char *summary = verb == "diff" ? "Compares the settings of two sources row by row: one line per row that differs "
                                           "(group/caption, value in A, value in B). Exit 0 when equal, 1 when they differ, "
                                           "2 when a source can't be read or on a usage error."
                        : verb == "export" ? "Writes a settings set as a file a person can read and diff (JSON or CSV): from "
                                             "the board, or from --in BIN or --db FILE --item A/B/C."
                                           : "Puts a settings file into the board (read, changed, updated; --save also saves) "
                                             "or into --db FILE --item A/B/C. Every value is checked as the grid's editors "
                                             "check it; one bad row refuses the whole file and nothing changes.";
    CliCommand cmd("params " + verb, QString::fromLatin1(summary) + (verb == "diff" ? "\n\n" + kSourceHelp : QString()),
                   verb == "diff" ? "A B" : verb == "import" ? "FILE" : QString());
    cmd.addPortOptions();
    cmd.add("config", "The settings table (default: Config.For beside the program).", "FILE");
    cmd.add("v,verbose", "Also print every exchange on the line.");
    cmd.add("db", "A project database ...", "FILE");
    cmd.add("item", "... and the path of captions of its item, as A/B/C.", "PATH");
    cmd.add("key", "The field key of the database's texts (empty by default).", "K");
    if (verb == "export") {
        cmd.add("out", "Write here instead of to standard output.", "FILE");
        cmd.add("format", "json or csv (default: csv for an --out ending in .csv, else json).", "F");
        cmd.add("in", "Export this block (as 'params read --out' writes it) instead of the board's.", "BIN");
    }
    if (verb == "import")
        cmd.add("save", "Also save the settings into the board's flash.");
    bool done = false;
    const int code = cmd.parse(args, &done);
    if (done)
        return code;
    const int n = verb == "diff" ? 2 : verb == "import" ? 1 : 0;
    if (!cmd.positional(n, n))
        return kExitUsage;
    ServiceRun run(cmd);
    QString error;
    const QString appDir = run.s.link.appDir;
    if (!run.loadTable(cmd.parser.isSet("config") ? cmd.parser.value("config") : appDir + "/Config.For", &error)) {
        run.s.err << error << Qt::endl;
        return verb == "diff" ? kDiffTrouble : kExitFailed;
    }
    if (verb == "diff")
        return runDiff(run);
    if (verb == "export")
        return runExport(run);
    return runImport(run);
}
