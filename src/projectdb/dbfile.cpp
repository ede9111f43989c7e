#include "dbfile.h"

#include "fileguard.h"
#include "frame.h"

#include <QFileInfo>

namespace pyro {

namespace {

void beginUndo(DbFile &f)
{
    f.puts = 0;
    f.undo.clear();
    f.startLength = f.length;
}

} // namespace

bool OpenDbFile(DbFile &f, const QString &path, DbMode mode)
{
    f.error.clear();
    f.file.setFileName(path);
    if (mode == DbMode::Read || QFileInfo::exists(path)) {
        QString why;
        if (!CheckRegularFile(path, qint64(kMaxRecords + 1) * kRecordSize, &why)) {
            f.error = why;
            return false;
        }
    }
    // Unbuffered: a write that fails on a full disk must not stay behind in a
    // buffer and land at close, after the operation has been undone.
    const QIODevice::OpenMode m = (mode == DbMode::Read ? QIODevice::ReadOnly : QIODevice::ReadWrite)
        | QIODevice::Unbuffered;
    if (!f.file.open(m)) {
        f.error = QStringLiteral("无法打开文件 %1：%2").arg(path, f.file.errorString());
        return false;
    }
    f.length = f.file.size();
    beginUndo(f);
    return true;
}

void CloseDbFile(DbFile &f)
{
    if (f.file.isOpen())
        f.file.close();
}

int32_t RecordCount(const DbFile &f)
{
    return int32_t((f.length + kRecordSize - 1) / kRecordSize);
}

bool WholeRecords(const DbFile &f)
{
    return f.length % kRecordSize == 0;
}

bool CutPartialTail(DbFile &f)
{
    if (!WholeRecords(f)) {
        if (!f.file.resize(f.length - f.length % kRecordSize)) {
            f.error = QStringLiteral("无法去掉文件末尾不完整的记录：%1").arg(f.file.errorString());
            return false;
        }
        f.length = f.file.size();
    }
    beginUndo(f);
    return true;
}

bool GetRec(DbFile &f, int32_t n, DbRecord &r)
{
    if (n < 1 || qint64(n) * kRecordSize > f.length) {
        f.error = n >= 1 && qint64(n - 1) * kRecordSize < f.length
            ? QStringLiteral("记录 %1 不完整（文件被截断）").arg(n)
            : QStringLiteral("记录号 %1 超出文件范围（共 %2 个记录）").arg(n).arg(RecordCount(f));
        return false;
    }
    if (!f.file.seek(qint64(n - 1) * kRecordSize)) {
        f.error = QStringLiteral("读记录 %1 失败：%2").arg(n).arg(f.file.errorString());
        return false;
    }
    const QByteArray b = f.file.read(kRecordSize);
    if (b.size() != kRecordSize) {
        f.error = QStringLiteral("读记录 %1 失败：%2").arg(n).arg(f.file.errorString());
        return false;
    }
    r = DecodeRecord(b);
    return true;
}

bool PutRec(DbFile &f, int32_t n, const DbRecord &r)
{
    const int32_t count = int32_t(f.length / kRecordSize);
    if (n < 1 || n > count + 1 || !WholeRecords(f)) {
        f.error = QStringLiteral("记录号 %1 不能写入（文件共 %2 个记录）").arg(n).arg(RecordCount(f));
        return false;
    }
    const qint64 at = qint64(n - 1) * kRecordSize;
    if (n <= count) {
        QByteArray old;
        if (f.file.seek(at))
            old = f.file.read(kRecordSize);
        if (old.size() != kRecordSize) {
            f.error = QStringLiteral("读记录 %1 失败：%2").arg(n).arg(f.file.errorString());
            return false;
        }
        f.undo.append({n, old});
    }
    const QByteArray b = EncodeRecord(r);
    qint64 room = b.size();
    QString why;
    if (f.faults && f.faults->spaceLimit >= 0 && at + room > f.faults->spaceLimit) {
        room = std::max<qint64>(f.faults->spaceLimit - at, 0);
        why = QStringLiteral("磁盘已满");
    }
    if (f.faults && f.faults->failPut == f.puts + 1) {
        room = b.size() / 2;
        why = QStringLiteral("写入中断");
    }
    const bool ok = f.file.seek(at) && f.file.write(b.constData(), room) == room && why.isEmpty();
    f.length = f.file.size();
    if (!ok) {
        f.error = QStringLiteral("写记录 %1 失败：%2").arg(n).arg(why.isEmpty() ? f.file.errorString() : why);
        return false;
    }
    ++f.puts;
    if (f.faults && f.faults->afterPut)
        f.faults->afterPut();
    return true;
}

bool GetItem(DbFile &f, int32_t n, DbRecord &r)
{
    if (n < 2) {
        f.error = QStringLiteral("链接指向记录 %1，它不是数据记录").arg(n);
        return false;
    }
    if (!GetRec(f, n, r))
        return false;
    if (r.Used != 1) {
        f.error = QStringLiteral("链接指向空闲记录 %1").arg(n);
        return false;
    }
    return true;
}

bool PutItem(DbFile &f, int32_t n, DbRecord &r)
{
    r.SelfRec = n;
    r.NodeKey = PadFixedText(NodeKeyText(n));
    return PutRec(f, n, r);
}

bool RollBack(DbFile &f)
{
    bool ok = true;
    for (auto it = f.undo.crbegin(); it != f.undo.crend(); ++it)
        ok = f.file.seek(qint64(it->first - 1) * kRecordSize)
            && f.file.write(it->second) == it->second.size() && ok;
    if (f.file.size() != f.startLength)
        ok = f.file.resize(f.startLength) && ok;
    f.length = f.file.size();
    if (ok)
        beginUndo(f);
    return ok;
}

int32_t FindFreeRec(DbFile &f)
{
    const int32_t n = int32_t((f.length + kRecordSize / 2) / kRecordSize);
    if (n == 0)
        return 1;
    // Records are read in runs: one read per run instead of one per record
    // keeps the scan of a large file short. Only Used is looked at.
    constexpr int32_t kRun = 64;
    for (int32_t first = 1; first <= n; first += kRun) {
        if (!f.file.seek(qint64(first - 1) * kRecordSize)) {
            f.error = QStringLiteral("读记录 %1 失败：%2").arg(first).arg(f.file.errorString());
            return 0;
        }
        const QByteArray run = f.file.read(qint64(kRun) * kRecordSize);
        if (run.isEmpty() && f.file.error() != QFileDevice::NoError) {
            f.error = QStringLiteral("读记录 %1 失败：%2").arg(first).arg(f.file.errorString());
            return 0;
        }
        // A cut-off last record is never handed out.
        const int32_t whole = int32_t(run.size() / kRecordSize);
        for (int32_t i = 0; i < whole && first + i <= n; ++i)
            if (getLe16(run, i * kRecordSize) == 0)
                return first + i;
        if (whole < kRun)
            break;
    }
    return n + 1;
}

int32_t LastSibling(DbFile &f, int32_t n)
{
    // A sound chain visits each record once at most; more steps mean a loop.
    const int32_t limit = RecordCount(f);
    DbRecord r;
    for (int32_t steps = 0; steps <= limit; ++steps) {
        if (!GetItem(f, n, r))
            return 0;
        if (r.NextRec == 0)
            return n;
        n = r.NextRec;
    }
    f.error = QStringLiteral("记录 %1 所在的兄弟链是一个环").arg(n);
    return 0;
}

} // namespace pyro
