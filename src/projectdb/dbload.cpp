// Creating, loading, stamping and copying a database file, and the chain walk
// that loading and checking share.
#include "dbinternal.h"
#include "fileguard.h"

#include "link.h"
#include "prompter.h"

#include <QDir>
#include <QFileInfo>
#include <vector>
#ifdef Q_OS_WIN
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#endif

namespace pyro {

void AttachDb(ProjectDb &db, Link &l)
{
    db.prompter = l.prompter;
    db.view = &l.view;
    db.now = l.now;
}

void Report(ProjectDb &db, const QString &text)
{
    if (db.prompter)
        db.prompter->message(text, kHintTitle);
}

QString ProblemList(const QStringList &problems)
{
    constexpr int kShown = 8;
    QStringList lines = problems.mid(0, kShown);
    if (problems.size() > kShown)
        lines << QStringLiteral("……共 %1 处问题").arg(problems.size());
    return lines.join('\n');
}

DbRecord NewHeader(const QDateTime &when)
{
    DbRecord h;
    h.Used = 1;
    FirstRec(h) = -1;
    h.PrevRec = h.NextRec = h.ChildRec = 0;
    h.SelfRec = 1;
    AuthorLine(h) = PadFixedText(kAuthorLine);
    MagicLine(h) = PadFixedText(kMagicLine);
    const QString stamp = StampText(when);
    PackField(CreatedText(h), stamp, QString(), kFunctionLimit);
    PackField(OpenedText(h), stamp, QString(), kProgramLimit);
    return h;
}

void CreateDb(ProjectDb &db, const QString &path)
{
    // A FIFO or a device of that name is never unlinked for a database.
    if (const QString bad = WriteTargetProblem(path); !bad.isEmpty()) {
        Report(db, kMsgIoFailed + QStringLiteral("%1：%2").arg(bad, path));
        return;
    }
    if (QFileInfo::exists(path)) {
        if (!db.prompter || !db.prompter->question(kMsgOverwrite, kHintTitle))
            return;
        QFile old(path);
        if (!old.remove()) {
            Report(db, kMsgIoFailed + QStringLiteral("无法删除 %1：%2").arg(path, old.errorString()));
            return;
        }
    }
    ClearTree(db.tree);
    db.TreePath.clear();
    DbFile f;
    f.faults = &db.faults;
    if (!OpenDbFile(f, path, DbMode::ReadWrite)) {
        Report(db, kMsgIoFailed + f.error);
        return;
    }
    if (f.length == 0) {
        // A fresh buffer rather than the last header read: nothing of another
        // file leaks into the bytes behind the terminators.
        db.HeaderRecord = NewHeader(db.now());
        if (!PutRec(f, 1, db.HeaderRecord))
            Report(db, kMsgWriteBroken + f.error);
    }
    CloseDbFile(f);
}

void WalkChains(DbFile &f, int32_t start,
                const std::function<void(const DbRecord &, int32_t, int)> &visit,
                QStringList &problems, QStringList *notes)
{
    // Depth first without recursion: a damaged file can nest as deep as it is
    // long. Each record is shown once at most, so a loop ends at its first repeat.
    // Only the forward links (FirstRec, ChildRec, NextRec) make the tree; what
    // they reach must be whole items, once each. The back links and the keys
    // are only noted: an interrupted edit leaves PrevRec behind, and no edit
    // reads them to find its way.
    struct Step {
        int32_t rec;
        int32_t parent;        // -1 at the top level
        int32_t prev;          // -1 for the first of a chain
        int depth;
    };
    const int32_t count = RecordCount(f);
    std::vector<char> seen(size_t(std::max(count, 0)) + 1, 0);
    QList<Step> todo;
    if (start != 0)
        todo.append({start, -1, -1, 0});
    DbRecord r;
    const auto note = [&](const QString &text) {
        if (notes)
            *notes << text;
    };
    while (!todo.isEmpty()) {
        const Step s = todo.takeLast();
        const QString from = s.prev > 0 ? QStringLiteral("记录 %1 的 NextRec").arg(s.prev)
            : s.parent > 0 ? QStringLiteral("记录 %1 的 ChildRec").arg(s.parent)
                           : QStringLiteral("文件头的 FirstRec");
        if (s.rec >= 1 && s.rec <= count && seen[size_t(s.rec)]) {
            problems << QStringLiteral("%1 指回已经走过的记录 %2（链成环）").arg(from).arg(s.rec);
            continue;
        }
        if (!GetItem(f, s.rec, r)) {
            problems << from + QStringLiteral("：") + f.error;
            continue;
        }
        seen[size_t(s.rec)] = 1;
        if (r.SelfRec != s.rec)
            note(QStringLiteral("记录 %1 的 SelfRec 是 %2").arg(s.rec).arg(r.SelfRec));
        // Any spelling that leads back to the record is its key.
        if (KeyToRec(ReadFixedText(r.NodeKey)) != s.rec)
            note(QStringLiteral("记录 %1 的 NodeKey 不指向它自己").arg(s.rec));
        const QString parentKey = ReadFixedText(r.ParentKey);
        if (s.parent < 0 ? !StripPadding(parentKey).isEmpty() : KeyToRec(parentKey) != s.parent)
            note(QStringLiteral("记录 %1 的 ParentKey 与父节点不符").arg(s.rec));
        if (s.parent < 0 ? r.ParentRec >= 1 : r.ParentRec != s.parent)
            note(QStringLiteral("记录 %1 的 ParentRec 是 %2，应为 %3").arg(s.rec).arg(r.ParentRec).arg(s.parent));
        if (r.PrevRec != s.prev)
            note(QStringLiteral("记录 %1 的 PrevRec 是 %2，应为 %3").arg(s.rec).arg(r.PrevRec).arg(s.prev));
        r.SelfRec = s.rec;
        visit(r, s.parent, s.depth);
        if (r.NextRec != 0)
            todo.append({r.NextRec, s.parent, s.rec, s.depth});
        if (r.ChildRec != 0 && s.depth + 1 >= kMaxTreeDepth)
            problems << QStringLiteral("记录 %1 的子节点超过 %2 层，没有显示").arg(s.rec).arg(kMaxTreeDepth);
        else if (r.ChildRec != 0)
            todo.append({r.ChildRec, s.rec, -1, s.depth + 1});
    }
}

void LoadChain(ProjectDb &db, DbFile &f, int32_t start, QStringList &problems)
{
    WalkChains(f, start, [&](const DbRecord &r, int32_t parent, int) {
        const QString parentKey = parent > 0 ? NodeKeyText(parent) : QString();
        QStandardItem *node = AddNode(db.tree, parentKey, NodeKeyText(r.SelfRec),
                                      UnpackField(r.Caption, db.LoginKey, kCaptionLimit));
        SetNodeExpanded(node, r.Expanded != 0);
        SetNodeColor(node, r.NodeColor);
    }, problems);
}

namespace {

// Problems of the header itself. A header marked free would be handed out by
// the free-record search as the place of a new item, and overwritten.
void checkHeader(const DbRecord &h, QStringList &problems)
{
    if (h.Used == 0)
        problems << QStringLiteral("文件头（记录 1）的 Used 是 0");
}

// A cut-off last record is what a full disk or a power cut leaves of a new
// record; no link names it while the chains are sound, so it is dropped at
// the next write.
QString tailNote(const DbFile &f)
{
    return QStringLiteral("文件末尾有 %1 字节不完整的记录，下次写入时去掉").arg(f.length % kRecordSize);
}

int16_t loadInto(ProjectDb &db, const QString &path)
{
    ClearTree(db.tree);
    db.TreePath = path;
    DbFile f;
    if (!OpenDbFile(f, path, DbMode::Read)) {
        Report(db, kMsgIoFailed + f.error);
        return 3;
    }
    // A file of length 0 is a database that has not yet had its header:
    // empty and sound. The open that follows gives it the header CreateDb
    // writes (see TouchDb).
    if (f.length == 0) {
        CloseDbFile(f);
        return 0;
    }
    // Shorter than one record: no header to test, so not a database.
    if (!GetRec(f, 1, db.HeaderRecord) || !AuthorLineMatches(db.HeaderRecord)) {
        CloseDbFile(f);
        db.TreePath.clear();
        Report(db, kMsgTypeMismatch);
        return 1;
    }
    QStringList problems;
    checkHeader(db.HeaderRecord, problems);
    const int32_t first = FirstRec(db.HeaderRecord);
    if (first > 0)
        LoadChain(db, f, first, problems);
    CloseDbFile(f);
    if (!problems.isEmpty()) {
        Report(db, kMsgDamaged + '\n' + ProblemList(problems));
        return 2;
    }
    if (first <= 0)
        Report(db, kMsgEmptyDb);
    return 0;
}

} // namespace

bool SameFile(const QString &a, const QString &b)
{
    if (a.isEmpty() || b.isEmpty())
        return false;
    if (a == b)
        return true;
    const QFileInfo fa(a), fb(b);
    const QString ca = fa.canonicalFilePath();
    return ca.isEmpty() ? fa.absoluteFilePath() == fb.absoluteFilePath() : ca == fb.canonicalFilePath();
}

int16_t LoadDb(ProjectDb &db, const QString &path)
{
    const int16_t rc = loadInto(db, path);
    // Damage found in the current database ends it as one: no edit goes to
    // it until an open finds it sound again.
    if (rc != 0 && SameFile(path, db.CurrentPath))
        db.CurrentPath.clear();
    return rc;
}

int TouchDb(ProjectDb &db, const QString &path)
{
    DbFile f;
    f.faults = &db.faults;
    if (!OpenDbFile(f, path, DbMode::ReadWrite)) {
        Report(db, kMsgIoFailed + f.error);
        return 1;
    }
    if (!CutPartialTail(f)) {
        Report(db, kMsgWriteBroken + f.error);
        CloseDbFile(f);
        return 1;
    }
    if (f.length == 0) {
        db.HeaderRecord = NewHeader(db.now());
    } else if (!GetRec(f, 1, db.HeaderRecord)) {
        Report(db, kMsgIoFailed + f.error);
        CloseDbFile(f);
        return 1;
    }
    PackField(OpenedText(db.HeaderRecord), StampText(db.now()), QString(), kProgramLimit);
    PackField(LastUser(db.HeaderRecord), db.LoginUser, db.LoginKey, kLastUserLimit);
    const bool ok = PutRec(f, 1, db.HeaderRecord);
    if (!ok)
        Report(db, kMsgWriteBroken + f.error);
    CloseDbFile(f);
    return ok ? 0 : 1;
}

QString TwinPath(const QString &path)
{
    return path + QStringLiteral(".Copy.MPK");
}

int RefreshTwin(ProjectDb &db, const QString &path)
{
    // The copy is read-only so that nobody edits it by mistake; on Windows it
    // is hidden and a system file too, out of the operator's way. Elsewhere
    // those two have no meaning.
    const QString twin = TwinPath(path);
#ifdef Q_OS_WIN
    const std::wstring twinW = QDir::toNativeSeparators(twin).toStdWString();
#endif
    const QFileDevice::Permissions rw = QFileDevice::ReadOwner | QFileDevice::WriteOwner
        | QFileDevice::ReadGroup | QFileDevice::ReadOther;
    const QFileDevice::Permissions ro = QFileDevice::ReadOwner | QFileDevice::ReadGroup
        | QFileDevice::ReadOther;
    QString error;
    if (QFileInfo::exists(twin)) {
#ifdef Q_OS_WIN
        SetFileAttributesW(twinW.c_str(), FILE_ATTRIBUTE_NORMAL);
#endif
        QFile::setPermissions(twin, rw);
        QFile old(twin);
        if (!old.remove())
            error = QStringLiteral("无法替换备份 %1：%2").arg(twin, old.errorString());
    }
    if (error.isEmpty()) {
        QFile src(path);
        if (!src.copy(twin))
            error = QStringLiteral("无法复制到备份 %1：%2").arg(twin, src.errorString());
        else {
            QFile::setPermissions(twin, ro);
#ifdef Q_OS_WIN
            SetFileAttributesW(twinW.c_str(),
                               FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
#endif
        }
    }
    if (!error.isEmpty()) {
        Report(db, kMsgIoFailed + error);
        return 1;
    }
    return 0;
}

QStringList CheckDb(const QString &path, QStringList *notes)
{
    QStringList problems;
    DbFile f;
    if (!OpenDbFile(f, path, DbMode::Read))
        return {f.error};
    if (f.length == 0) {
        return {};   // no header yet; the first open gives it one
    }
    DbRecord h;
    if (!GetRec(f, 1, h))
        return {QStringLiteral("文件只有 %1 字节，没有完整的文件头").arg(f.length)};
    if (!AuthorLineMatches(h))
        return {QStringLiteral("文件头的 AuthorLine 不对：不是项目数据库")};
    checkHeader(h, problems);
    QStringList found;
    if (!WholeRecords(f))
        found << tailNote(f);
    if (h.SelfRec != 1)
        found << QStringLiteral("文件头的 SelfRec 是 %1").arg(h.SelfRec);
    const int32_t count = int32_t(f.length / kRecordSize);
    std::vector<char> reached(size_t(count) + 1, 0);
    if (FirstRec(h) > 0)
        WalkChains(f, FirstRec(h), [&](const DbRecord &r, int32_t, int) {
            reached[size_t(r.SelfRec)] = 1;
        }, problems, &found);
    // Records in use that no chain reaches: what an interrupted edit leaves.
    // They are lost to the tree and never handed out again, but harm nothing.
    DbRecord r;
    for (int32_t n = 2; n <= count; ++n) {
        if (!GetRec(f, n, r)) {
            problems << f.error;
            break;
        }
        if (r.Used != 0 && !reached[size_t(n)])
            found << QStringLiteral("记录 %1 标为使用中，但没有链接到树上").arg(n);
    }
    CloseDbFile(f);
    if (notes)
        *notes = found;
    return problems;
}

} // namespace pyro
