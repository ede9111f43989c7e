#include "fileguard.h"

#include <QFile>
#include <QFileInfo>

namespace pyro {

bool CheckRegularFile(const QString &path, qint64 maxBytes, QString *reason)
{
    auto fail = [&](const QString &why) {
        if (reason)
            *reason = why;
        return false;
    };
    const QFileInfo info(path);
    if (path.isEmpty() || !info.exists())
        return fail(QStringLiteral("no such file: %1").arg(path));
    if (info.isDir())
        return fail(QStringLiteral("a folder, not a file: %1").arg(path));
    if (!info.isFile())
        return fail(QStringLiteral("not a regular file: %1").arg(path));
    if (!info.isReadable())
        return fail(QStringLiteral("no permission to read: %1").arg(path));
    if (info.size() > maxBytes)
        return fail(QStringLiteral("too large (%1 bytes, at most %2): %3")
                        .arg(info.size()).arg(maxBytes).arg(path));
    return true;
}

bool ReadWholeFile(const QString &path, qint64 maxBytes, QByteArray *out, QString *reason)
{
    if (!CheckRegularFile(path, maxBytes, reason))
        return false;
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) {
        if (reason)
            *reason = QStringLiteral("can't be opened (%1): %2").arg(f.errorString(), path);
        return false;
    }
    // One byte more than allowed tells a file that grew since the look.
    QByteArray bytes = f.read(maxBytes + 1);
    if (bytes.size() > maxBytes || f.error() != QFileDevice::NoError) {
        if (reason)
            *reason = QStringLiteral("changed or failed while read: %1").arg(path);
        return false;
    }
    *out = bytes;
    return true;
}

} // namespace pyro
