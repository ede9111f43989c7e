// pyrolink-cli db: create, list, show and check project databases. Listing,
// showing and checking only read: they neither stamp nor copy the file.
#include "clisession.h"
#include "commands.h"
#include "fileguard.h"
#include "projectdb.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFileInfo>
#include <QTextStream>

using namespace pyro;

namespace {

const char *const kDbVerbs[][3] = {
    {"new", "FILE", "create an empty database (--force replaces a file)"},
    {"tree", "FILE", "the tree, one item a line"},
    {"show", "FILE REC", "every field of a record"},
    {"check", "FILE", "walk every chain; exit 0 only when sound"},
};

int dbHelp(bool asked)
{
    QTextStream stream(asked ? stdout : stderr);
    stream << "Usage: pyrolink-cli db VERB FILE [options]\n\nVerbs:\n";
    for (const auto &v : kDbVerbs)
        stream << "  " << QString::fromLatin1(v[0]).leftJustified(6) << QString::fromLatin1(v[1]).leftJustified(10)
               << QLatin1String(v[2]) << "\n";
    stream << "\n'pyrolink-cli db VERB --help' tells the options of a verb.\n\n" << kExitTable;
    return asked ? kExitOk : kExitUsage;
}

// A file that is there, and a database: what tree and show both ask first.
bool openDatabase(DbFile &f, DbRecord &h, const QString &path)
{
    QString why;
    if (!CheckRegularFile(path, qint64(1) << 31, &why) || !OpenDbFile(f, path, DbMode::Read)) {
        QTextStream(stderr) << (why.isEmpty() ? f.error : why) << "\n";
        return false;
    }
    if (f.length > 0 && (!GetRec(f, 1, h) || !AuthorLineMatches(h))) {
        QTextStream(stderr) << path << ": " << kMsgTypeMismatch << "\n";
        return false;
    }
    return true;
}

QString quoted(const QString &s)
{
    QString q = s;
    q.replace('\\', "\\\\").replace('"', "\\\"").replace('\n', "\\n").replace('\r', "\\r");
    return '"' + q + '"';
}

QString hexBytes(const QByteArray &b)
{
    return QString::fromLatin1(b.toHex(' '));
}

int dbNew(const QString &path, bool force)
{
    QTextStream err(stderr);
    // A FIFO or a device of that name is refused, never unlinked or replaced.
    if (const QString bad = WriteTargetProblem(path); !bad.isEmpty()) {
        err << "pyrolink-cli db new: " << bad << ": " << path << "\n";
        return 1;
    }
    if (QFileInfo::exists(path) && !force) {
        err << "pyrolink-cli db new: " << path << " exists; --force replaces it\n";
        return 1;
    }
    // The header alone, written whole: a failed write leaves the old file.
    QString why;
    if (!WriteFileWhole(path, EncodeRecord(NewHeader(QDateTime::currentDateTime())), &why)) {
        err << "pyrolink-cli db new: cannot write " << path << ": " << why << "; nothing was written\n";
        return 1;
    }
    QTextStream(stdout) << "created " << path << "\n";
    return 0;
}

int dbTree(const QString &path, const QString &key)
{
    QTextStream out(stdout);
    DbFile f;
    DbRecord h;
    if (!openDatabase(f, h, path))
        return 1;
    QStringList problems;
    int items = 0;
    if (f.length > 0 && FirstRec(h) > 0)
        WalkChains(f, FirstRec(h), [&](const DbRecord &r, int32_t, int depth) {
            out << QString(depth * 2, ' ') << "[" << r.SelfRec << "] " << quoted(NodeKeyText(r.SelfRec))
                << " " << UnpackField(r.Caption, key, kCaptionLimit) << "\n";
            ++items;
        }, problems);
    out << items << " items, " << RecordCount(f) << " records\n";
    out.flush();
    for (const QString &p : problems)
        QTextStream(stderr) << "damaged: " << p << "\n";
    return problems.isEmpty() ? 0 : 1;
}

int dbShow(const QString &path, const QString &recText, const QString &key)
{
    bool ok = false;
    const int32_t n = recText.toInt(&ok);
    if (!ok || n < 1) {
        QTextStream(stderr) << "pyrolink-cli db show: REC: '" << recText << "' is not a record number\n";
        return kExitUsage;
    }
    DbFile f;
    DbRecord h;
    if (!openDatabase(f, h, path))
        return 1;
    DbRecord r;
    if (!GetRec(f, n, r)) {
        QTextStream(stderr) << f.error << "\n";
        return 1;
    }
    QTextStream out(stdout);
    auto line = [&](const char *name, const QString &value) { out << QString::fromLatin1(name).leftJustified(13) << value << "\n"; };
    out << "record " << n << " of " << RecordCount(f) << (n == 1 ? " (header)" : "") << "\n";
    if (n == 1) {
        line("Used", QString::number(r.Used));
        line("FirstRec", QString::number(FirstRec(r)));
        line("PrevRec", QString::number(r.PrevRec));
        line("NextRec", QString::number(r.NextRec));
        line("ChildRec", QString::number(r.ChildRec));
        line("SelfRec", QString::number(r.SelfRec));
        line("AuthorLine", quoted(ReadFixedText(AuthorLine(r))));
        line("MagicLine", quoted(ReadFixedText(MagicLine(r))));
        line("Caption", quoted(UnpackField(r.Caption, QString(), kCaptionLimit)));
        line("Reserved1", QString::number(r.Reserved1));
        line("LoginFlag", QString::number(LoginFlag(r)));
        line("NodeColor", QString::number(r.NodeColor));
        line("CreatedText", quoted(UnpackField(CreatedText(r), QString(), kFunctionLimit)));
        line("OpenedText", quoted(UnpackField(OpenedText(r), QString(), kProgramLimit)));
        line("ConfigFile", quoted(UnpackField(r.ConfigFile, QString(), kNoteLimit)));
        line("DisplayFile", quoted(UnpackField(r.DisplayFile, QString(), kNoteLimit)));
        line("OrderNumber", quoted(UnpackField(r.OrderNumber, QString(), kNoteLimit)));
        line("Remark", quoted(UnpackField(r.Remark, QString(), kNoteLimit)));
        line("LastUser", quoted(UnpackField(LastUser(r), key, kLastUserLimit)));
        line("Reserved3", QString::number(r.Reserved3));
        return 0;
    }
    line("Used", QString::number(r.Used));
    line("ParentRec", QString::number(r.ParentRec));
    line("PrevRec", QString::number(r.PrevRec));
    line("NextRec", QString::number(r.NextRec));
    line("ChildRec", QString::number(r.ChildRec));
    line("SelfRec", QString::number(r.SelfRec));
    line("ParentKey", quoted(ReadFixedText(r.ParentKey)));
    line("NodeKey", quoted(ReadFixedText(r.NodeKey)));
    line("Caption", quoted(UnpackField(r.Caption, key, kCaptionLimit)));
    line("Reserved1", QString::number(r.Reserved1));
    line("Expanded", QString::number(r.Expanded));
    line("NodeColor", QString::number(r.NodeColor));
    line("FunctionText", quoted(UnpackField(r.FunctionText, key, kFunctionLimit)));
    line("ProgramFile", quoted(UnpackField(r.ProgramFile, key, kProgramLimit)));
    line("ConfigFile", quoted(UnpackField(r.ConfigFile, key, kNoteLimit)));
    line("DisplayFile", quoted(UnpackField(r.DisplayFile, key, kNoteLimit)));
    line("OrderNumber", quoted(UnpackField(r.OrderNumber, key, kNoteLimit)));
    line("Remark", quoted(UnpackField(r.Remark, key, kNoteLimit)));
    line("Reserved2", hexBytes(r.Reserved2));
    line("Reserved3", QString::number(r.Reserved3));
    // The image in rows of 32 bytes, with the offset of each row.
    out << "ParamImage   1026 bytes\n";
    for (int at = 0; at < r.ParamImage.size(); at += 32)
        out << QString::number(at).rightJustified(6) << "  " << hexBytes(r.ParamImage.mid(at, 32)) << "\n";
    return 0;
}

int dbCheck(const QString &path)
{
    QString why;
    if (!CheckRegularFile(path, qint64(1) << 31, &why)) {
        QTextStream(stderr) << why << "\n";
        return 1;
    }
    const QStringList problems = CheckDb(path);
    QTextStream out(stdout);
    for (const QString &p : problems)
        out << "problem: " << p << "\n";
    if (problems.isEmpty())
        out << path << ": sound\n";
    else
        out << path << ": " << problems.size() << " problem(s)\n";
    return problems.isEmpty() ? 0 : 1;
}

} // namespace

int cliDb(const QStringList &argsIn)
{
    QStringList args = argsIn;
    if (args.isEmpty())
        return dbHelp(false);
    const QString verb = args.takeFirst();
    if (verb == QLatin1String("-h") || verb == QLatin1String("--help"))
        return dbHelp(true);
    if (verb == QLatin1String("--version")) {
        QTextStream(stdout) << "pyrolink-cli " << QCoreApplication::applicationVersion() << Qt::endl;
        return kExitOk;
    }
    int at = -1;
    for (int i = 0; i < int(std::size(kDbVerbs)); ++i)
        if (verb == QLatin1String(kDbVerbs[i][0]))
            at = i;
    if (at < 0) {
        QTextStream(stderr) << "pyrolink-cli db: unknown verb '" << verb << "'\nTry 'pyrolink-cli db --help'.\n";
        return kExitUsage;
    }
    CliCommand cmd("db " + verb, QString::fromLatin1(kDbVerbs[at][2]), QString::fromLatin1(kDbVerbs[at][1]));
    if (verb == "new")
        cmd.add("force", "Replace a file that is there.");
    if (verb == "tree" || verb == "show")
        cmd.add("key", "The field key of titles and notes (empty by default).", "K");
    bool done = false;
    const int code = cmd.parse(args, &done);
    if (done)
        return code;
    const int count = verb == "show" ? 2 : 1;
    if (!cmd.positional(count, count))
        return kExitUsage;
    const QStringList pos = cmd.parser.positionalArguments();
    const QString key = verb == "tree" || verb == "show" ? cmd.parser.value("key") : QString();
    if (verb == "new")
        return dbNew(pos[0], cmd.parser.isSet("force"));
    if (verb == "tree")
        return dbTree(pos[0], key);
    if (verb == "show")
        return dbShow(pos[0], pos[1], key);
    return dbCheck(pos[0]);
}
