#pragma once
// Shared by the fuzz targets: a temporary folder for the files a target must
// hand over by path, a fixed clock, the sample data, and a reader that takes
// small numbers and pieces from the fuzzer's bytes.
#include <QByteArray>
#include <QDateTime>
#include <QFile>
#include <QString>
#include <QTemporaryDir>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace fuzz {

// One folder for the whole run, removed when the process ends normally.
inline QTemporaryDir &tempDir()
{
    static QTemporaryDir dir;
    if (!dir.isValid())
        std::abort();
    return dir;
}

inline QString writeTemp(const QString &name, const QByteArray &bytes)
{
    const QString path = tempDir().filePath(name);
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate) || f.write(bytes) != bytes.size())
        std::abort();
    return path;
}

// Every stamp, log line and record gets the same time: a run depends on its
// input alone.
inline QDateTime fixedNow()
{
    return QDateTime(QDate(2026, 11, 23), QTime(9, 30, 0));
}

// A file of the sample data, read once.
inline QByteArray sampleData(const char *name)
{
    QFile f(QStringLiteral(PYRO_DATA_DIR "/") + QLatin1String(name));
    if (!f.open(QIODevice::ReadOnly))
        std::abort();
    return f.readAll();
}

// Takes bytes from the front of the input; past its end every read gives 0
// and empty pieces, and done() turns true.
struct Reader {
    const uint8_t *p;
    size_t n;
    Reader(const uint8_t *data, size_t size) : p(data), n(size) {}
    bool done() const { return n == 0; }
    uint8_t byte()
    {
        if (n == 0)
            return 0;
        --n;
        return *p++;
    }
    uint16_t word() { return uint16_t(byte() | (byte() << 8)); }
    QByteArray bytes(size_t count)
    {
        count = std::min(count, n);
        QByteArray b(reinterpret_cast<const char *>(p), qsizetype(count));
        p += count;
        n -= count;
        return b;
    }
    QByteArray rest() { return bytes(n); }
};

} // namespace fuzz
