#include "fileguard.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#ifdef Q_OS_WIN
#include <QSaveFile>
#else
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

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

#ifndef Q_OS_WIN
namespace {

QString systemReason(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

QString kindOf(mode_t mode)
{
    if (S_ISDIR(mode))
        return QStringLiteral("a folder");
    if (S_ISFIFO(mode))
        return QStringLiteral("a FIFO");
    if (S_ISCHR(mode) || S_ISBLK(mode))
        return QStringLiteral("a device");
    if (S_ISSOCK(mode))
        return QStringLiteral("a socket");
    return QStringLiteral("of an unknown kind");
}

// The file a write lands on: a link is followed (the link stays), a dangling
// one to the name it holds.
QString landingPath(const QString &path)
{
    const QFileInfo info(path);
    if (!info.isSymLink())
        return path;
    if (info.exists())
        return info.canonicalFilePath();
    const QString target = info.symLinkTarget();
    return target.isEmpty() ? path : target;
}

} // namespace

QString WriteTargetProblem(const QString &path)
{
    struct stat st {};
    if (::stat(QFile::encodeName(path).constData(), &st) != 0 || S_ISREG(st.st_mode))
        return {};
    return S_ISDIR(st.st_mode) ? QStringLiteral("a folder, not a file")
                               : QStringLiteral("not a regular file (%1)").arg(kindOf(st.st_mode));
}

bool WriteFileWhole(const QString &path, const QByteArray &bytes, QString *reason)
{
    auto fail = [&](const QString &why) {
        if (reason)
            *reason = why;
        return false;
    };
    if (path.isEmpty())
        return fail(QStringLiteral("no file name"));
    const QString target = landingPath(path);
    const QByteArray name = QFile::encodeName(target);
    struct stat st {};
    const bool existed = ::stat(name.constData(), &st) == 0;
    if (existed && !S_ISREG(st.st_mode))
        return fail(WriteTargetProblem(target));

    // Beside the target, so that the rename stays within one file system.
    const QFileInfo info(target);
    QByteArray temp = QFile::encodeName(QDir(info.absolutePath()).filePath(QStringLiteral(".%1.XXXXXX").arg(info.fileName())));
    const int fd = ::mkstemp(temp.data());
    if (fd < 0)
        return fail(systemReason(errno));
    auto abandon = [&](int error) {
        ::close(fd);
        ::unlink(temp.constData());
        return fail(systemReason(error));
    };
    // The old file's permissions, or those a new file gets under the umask.
    mode_t mode = st.st_mode & 07777;
    if (!existed) {
        const mode_t mask = ::umask(0);
        ::umask(mask);
        mode = 0666 & ~mask;
    }
    if (::fchmod(fd, mode) != 0)
        return abandon(errno);
    const char *at = bytes.constData();
    qint64 left = bytes.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, at, size_t(left));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return abandon(n < 0 ? errno : EIO);
        at += n;
        left -= n;
    }
    // Some file systems tell of a full disk only here.
    if (::fsync(fd) != 0)
        return abandon(errno);
    if (::close(fd) != 0) {
        const int error = errno;
        ::unlink(temp.constData());
        return fail(systemReason(error));
    }
    if (::rename(temp.constData(), name.constData()) != 0) {
        const int error = errno;
        ::unlink(temp.constData());
        return fail(systemReason(error));
    }
    return true;
}
bool AppendToFile(const QString &path, const QByteArray &bytes, QString *reason, const QByteArray &headIfNew)
{
    auto fail = [&](const QString &why) {
        if (reason)
            *reason = why;
        return false;
    };
    if (const QString bad = WriteTargetProblem(path); !bad.isEmpty())
        return fail(bad);
    // O_NONBLOCK: a FIFO put there since the look must not hold the one thread.
    const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0666);
    if (fd < 0)
        return fail(systemReason(errno));
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return fail(QStringLiteral("not a regular file"));
    }
    const QByteArray all = st.st_size == 0 ? headIfNew + bytes : bytes;
    const char *at = all.constData();
    qint64 left = all.size();
    int error = 0;
    while (left > 0 && error == 0) {
        const ssize_t n = ::write(fd, at, size_t(left));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            error = n < 0 ? errno : EIO;
            break;
        }
        at += n;
        left -= n;
    }
    if (error == 0 && ::fsync(fd) != 0)
        error = errno;
    // A part of a line is no line: the file goes back to its old length
    // (should that fail too, the reason of the write is the one told).
    const bool cutBack = error == 0 || ::ftruncate(fd, st.st_size) == 0;
    Q_UNUSED(cutBack);
    if (::close(fd) != 0 && error == 0)
        error = errno;
    return error == 0 || fail(systemReason(error));
}
#else
bool AppendToFile(const QString &path, const QByteArray &bytes, QString *reason, const QByteArray &headIfNew)
{
    if (const QString bad = WriteTargetProblem(path); !bad.isEmpty()) {
        if (reason)
            *reason = bad;
        return false;
    }
    QFile f(path);
    bool ok = f.open(QIODevice::WriteOnly | QIODevice::Append);
    const QByteArray all = ok && f.size() == 0 ? headIfNew + bytes : bytes;
    ok = ok && f.write(all) == all.size() && f.flush();
    if (!ok && reason)
        *reason = f.errorString();
    return ok;
}

QString WriteTargetProblem(const QString &path)
{
    const QFileInfo info(path);
    if (!info.exists() || info.isFile())
        return {};
    return info.isDir() ? QStringLiteral("a folder, not a file") : QStringLiteral("not a regular file");
}

bool WriteFileWhole(const QString &path, const QByteArray &bytes, QString *reason)
{
    if (const QString bad = WriteTargetProblem(path); !bad.isEmpty()) {
        if (reason)
            *reason = bad;
        return false;
    }
    QSaveFile out(path);
    bool ok = out.open(QIODevice::WriteOnly) && out.write(bytes) == bytes.size();
    // A failed flush shows only in error(), not in commit()'s own check.
    ok = ok && out.flush() && out.error() == QFileDevice::NoError && out.commit();
    if (!ok && reason)
        *reason = out.errorString();
    return ok;
}
#endif

} // namespace pyro
