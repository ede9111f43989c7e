#include "dbfile.h"

#include "frame.h"

namespace pyro {

bool OpenDbFile(DbFile &f, const QString &path, DbMode mode)
{
    f.error.clear();
    f.puts = 0;
    f.file.setFileName(path);
    const QIODevice::OpenMode m = mode == DbMode::Read ? QIODevice::ReadOnly : QIODevice::ReadWrite;
    if (!f.file.open(m)) {
        f.error = QStringLiteral("无法打开文件 %1：%2").arg(path, f.file.errorString());
        return false;
    }
    f.length = f.file.size();
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
    const QByteArray b = EncodeRecord(r);
    if (!f.file.seek(qint64(n - 1) * kRecordSize) || f.file.write(b) != b.size() || !f.file.flush()) {
        f.error = QStringLiteral("写记录 %1 失败，该记录可能只写了一部分：%2").arg(n).arg(f.file.errorString());
        f.length = f.file.size();
        return false;
    }
    f.length = std::max(f.length, qint64(n) * kRecordSize);
    ++f.puts;
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
    if (r.SelfRec != n) {
        f.error = QStringLiteral("记录 %1 的 SelfRec 是 %2").arg(n).arg(r.SelfRec);
        return false;
    }
    return true;
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
            return r.SelfRec;
        n = r.NextRec;
    }
    f.error = QStringLiteral("记录 %1 所在的兄弟链是一个环").arg(n);
    return 0;
}

} // namespace pyro
