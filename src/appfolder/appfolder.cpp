#include "appfolder.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTemporaryFile>

#include <filesystem>
#include <system_error>

namespace pyro {

QStringList AppFolderSamples()
{
    return {QStringLiteral("Config.For"), QStringLiteral("Display.For"), QStringLiteral("Config.MPK"),
            QStringLiteral("demo-firmware.BIN")};
}

QString AppFolderManual()
{
    return QStringLiteral("Pyrolink_UG.PDF");
}

namespace {

bool holdsTables(const QString &dir)
{
    return !dir.isEmpty()
        && (QFileInfo(QDir(dir).filePath(QStringLiteral("Config.For"))).isFile()
            || QFileInfo(QDir(dir).filePath(QStringLiteral("Display.For"))).isFile());
}

// Copied under a temporary name and renamed into place: a half-written
// copy never stands under the sample's name.
QString seedOne(const QString &from, const QString &to)
{
    QTemporaryFile tmp(to + QStringLiteral(".XXXXXX"));
    QFile in(from);
    if (!in.open(QIODevice::ReadOnly))
        return in.errorString();
    if (!tmp.open())
        return tmp.errorString();
    const QByteArray bytes = in.readAll();
    if (in.error() != QFileDevice::NoError)
        return in.errorString();
    if (tmp.write(bytes) != bytes.size() || !tmp.flush())
        return tmp.errorString();
    // The operator's own, writable copy, whatever mode the sample was installed with.
    tmp.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther);
    tmp.setAutoRemove(false);
    const QString made = tmp.fileName();
    tmp.close();
    // QFile::rename refuses a name that exists: a copy another first run put
    // there in the meantime stays as it is.
    const bool placed = QFile::rename(made, to);
    if (!placed)
        QFile::remove(made);
    if (!placed && !QFileInfo::exists(to))
        return QStringLiteral("can't rename %1").arg(made);
    return {};
}

} // namespace

AppFolder ResolveAppFolder(const QString &programDir, const QString &samplesDir, const QString &userDir)
{
    AppFolder f;
    if (holdsTables(programDir)) {
        f.path = programDir;
        return f;
    }
    f.perUser = true;
    f.path = userDir;
    if (userDir.isEmpty()) {
        f.error = QStringLiteral("no folder for the user's tables: neither XDG_DATA_HOME nor HOME is set");
        return f;
    }
    std::error_code ec;
    const std::filesystem::path p(QFile::encodeName(userDir).toStdString());
    std::filesystem::create_directories(p, ec);
    if (ec || !QFileInfo(userDir).isDir()) {
        f.error = QStringLiteral("the application folder %1 can't be made: %2")
                      .arg(userDir, ec ? QString::fromLocal8Bit(ec.message().c_str()) : QStringLiteral("not a folder"));
        return f;
    }
    {
        // Asked of the file system itself: permissions, a read-only mount,
        // a full disk and an ACL all answer here.
        QTemporaryFile probe(QDir(userDir).filePath(QStringLiteral(".write-test.XXXXXX")));
        if (!probe.open()) {
            f.error = QStringLiteral("the application folder %1 can't be written: %2").arg(userDir, probe.errorString());
            return f;
        }
    }
    const QDir user(userDir), samples(samplesDir);
    for (const QString &name : AppFolderSamples()) {
        const QString to = user.filePath(name);
        if (QFileInfo::exists(to) || QFileInfo(to).isSymLink())
            continue;
        const QString from = samples.filePath(name);
        if (!QFileInfo(from).isFile()) {
            f.notes << QStringLiteral("%1 is missing from the installation (%2): %3 has none")
                           .arg(name, QDir::toNativeSeparators(samplesDir), userDir);
            continue;
        }
        const QString why = seedOne(from, to);
        if (!why.isEmpty())
            f.notes << QStringLiteral("%1 could not be copied into %2: %3").arg(name, userDir, why);
    }
    // A link the package's removal left dangling is ours to renew.
    const QString manual = user.filePath(AppFolderManual());
    const QFileInfo mi(manual);
    const QString target = samples.filePath(AppFolderManual());
    if (!mi.exists() && QFileInfo(target).isFile()) {
        if (mi.isSymLink())
            QFile::remove(manual);
        QFile::link(target, manual);
    }
    return f;
}

const AppFolder &ApplicationFolder()
{
    static const AppFolder folder = [] {
        const QString programDir = QCoreApplication::applicationDirPath();
        const QString samples = QDir::cleanPath(QDir(programDir).filePath(QStringLiteral(PYRO_SAMPLES_REL)));
        const QString data = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
        return ResolveAppFolder(programDir, samples, data.isEmpty() ? QString() : QDir(data).filePath(QStringLiteral("pyrolink")));
    }();
    return folder;
}

} // namespace pyro
