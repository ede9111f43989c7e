// pyrolink-cli db: create, list, show and check project databases. Listing,
// showing and checking only read: they neither stamp nor copy the file.
#include "clisession.h"
#include "commands.h"
#include "projectdb.h"

#include <QFileInfo>
#include <QTextStream>

using namespace pyro;

namespace {

int usageDb()
{
    QTextStream(stderr) << "usage: pyrolink-cli db new FILE [--force]   create an empty database\n"
                           "       pyrolink-cli db tree FILE            the tree, one item a line\n"
                           "       pyrolink-cli db show FILE REC        every field of a record\n"
                           "       pyrolink-cli db check FILE           walk every chain; exit 0 only when sound\n"
                           "  --key K   the field key of titles and notes (empty by default)\n";
    return 2;
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
    if (QFileInfo::exists(path) && !force) {
        QTextStream(stderr) << path << " exists; --force replaces it\n";
        return 1;
    }
    ConsolePrompter prompter;
    prompter.answerYes = true;
    ProjectDb db;
    db.prompter = &prompter;
    CreateDb(db, path);
    if (QFileInfo(path).size() != kRecordSize)
        return 1;
    QTextStream(stdout) << "created " << path << "\n";
    return 0;
}

int dbTree(const QString &path, const QString &key)
{
    QTextStream out(stdout);
    DbFile f;
    if (!OpenDbFile(f, path, DbMode::Read)) {
        QTextStream(stderr) << f.error << "\n";
        return 1;
    }
    DbRecord h;
    if (f.length > 0 && (!GetRec(f, 1, h) || !AuthorLineMatches(h))) {
        QTextStream(stderr) << kMsgTypeMismatch << "\n";
        return 1;
    }
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
    DbFile f;
    if (!ok || !OpenDbFile(f, path, DbMode::Read)) {
        QTextStream(stderr) << (ok ? f.error : QStringLiteral("not a record number: ") + recText) << "\n";
        return ok ? 1 : 2;
    }
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
    const bool force = args.removeAll(QStringLiteral("--force")) > 0;
    const QString key = takeOption(args, QStringLiteral("--key"), QString());
    if (args.size() < 2)
        return usageDb();
    const QString cmd = args[0];
    const QString path = args[1];
    if (cmd == "new" && args.size() == 2)
        return dbNew(path, force);
    if (cmd == "tree" && args.size() == 2)
        return dbTree(path, key);
    if (cmd == "show" && args.size() == 3)
        return dbShow(path, args[2], key);
    if (cmd == "check" && args.size() == 2)
        return dbCheck(path);
    return usageDb();
}
