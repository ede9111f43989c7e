// The one way files are written: whole or untouched, never into a FIFO or a
// device, with the system's reason when it fails.
#include "fileguard.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>
#include <sys/mount.h>
#include <sys/stat.h>

using namespace pyro;

namespace {

QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

void writeAll(const QString &path, const QByteArray &bytes)
{
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(f.write(bytes), bytes.size());
}

// A small file system that is full to the last byte, or none where mounts are
// not allowed (the caller skips).
struct FullDisk {
    QTemporaryDir dir;
    bool mounted = false;
    FullDisk()
    {
        mounted = ::mount("tmpfs", QFile::encodeName(dir.path()).constData(), "tmpfs", 0, "size=16k") == 0;
        if (!mounted)
            return;
        writeAll(path("old.BIN"), "the old contents");
        QFile filler(path("filler"));
        if (filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered))
            while (filler.write(QByteArray(512, 'x')) == 512) {
            }
    }
    ~FullDisk()
    {
        if (mounted)
            ::umount2(QFile::encodeName(dir.path()).constData(), MNT_DETACH);
    }
    QString path(const QString &name) const { return dir.filePath(name); }
};

} // namespace

class TstFileGuard : public QObject {
    Q_OBJECT
private slots:
    void writeWhole_data()
    {
        QTest::addColumn<QString>("target");   // what stands at the name before the write
        QTest::addColumn<QString>("reason");   // empty: written
        QTest::newRow("absent") << "absent" << "";
        QTest::newRow("longer old file") << "file" << "";
        QTest::newRow("link to a file") << "link" << "";
        QTest::newRow("FIFO") << "fifo" << "not a regular file (a FIFO)";
        QTest::newRow("device") << "/dev/null" << "not a regular file (a device)";
        QTest::newRow("full disk as a device") << "/dev/full" << "not a regular file (a device)";
        QTest::newRow("folder") << "folder" << "a folder, not a file";
        QTest::newRow("no such folder") << "nofolder" << "No such file or directory";
    }
    void writeWhole()
    {
        QFETCH(QString, target);
        QFETCH(QString, reason);
        QTemporaryDir dir;
        QString path = dir.filePath("out.BIN");
        if (target.startsWith('/'))
            path = target;
        else if (target == "file")
            writeAll(path, QByteArray(100, 'o'));
        else if (target == "link") {
            writeAll(dir.filePath("real.BIN"), QByteArray(100, 'o'));
            QVERIFY(QFile::link(dir.filePath("real.BIN"), path));
        } else if (target == "fifo")
            QVERIFY(::mkfifo(QFile::encodeName(path).constData(), 0600) == 0);
        else if (target == "folder")
            QVERIFY(QDir().mkpath(path));
        else if (target == "nofolder")
            path = dir.filePath("none/out.BIN");
        struct stat before {};
        ::lstat(QFile::encodeName(path).constData(), &before);

        QString why;
        const bool ok = WriteFileWhole(path, "new", &why);
        QCOMPARE(ok, reason.isEmpty());
        QCOMPARE(why, reason);
        if (ok) {
            QCOMPARE(readAll(path), QByteArray("new"));
            QCOMPARE(QFileInfo(path).isSymLink(), target == "link");
        } else if (target != "nofolder") {
            // The thing that stood there still does, as it was.
            struct stat after {};
            QCOMPARE(::lstat(QFile::encodeName(path).constData(), &after), 0);
            QCOMPARE(after.st_mode, before.st_mode);
            QCOMPARE(after.st_ino, before.st_ino);
        }
        // No temporary file stays behind.
        QCOMPARE(QDir(dir.path()).entryList(QDir::Hidden | QDir::Files).filter(".out.BIN").size(), 0);
    }

    // Nothing fits: the old file keeps every byte, the reason is the system's,
    // no temporary file is left, and an append leaves the file as long as it was.
    void fullDisk()
    {
        FullDisk disk;
        if (!disk.mounted)
            QSKIP("no permission to mount a small file system");
        QString why;
        QVERIFY(!WriteFileWhole(disk.path("old.BIN"), QByteArray(8192, 'n'), &why));
        QCOMPARE(why, QString("No space left on device"));
        QCOMPARE(readAll(disk.path("old.BIN")), QByteArray("the old contents"));
        QCOMPARE(QDir(disk.dir.path()).entryList(QDir::Hidden | QDir::Files).size(), 2);
        QVERIFY(!AppendToFile(disk.path("old.BIN"), QByteArray(8192, 'a'), &why));
        QCOMPARE(why, QString("No space left on device"));
        QCOMPARE(readAll(disk.path("old.BIN")), QByteArray("the old contents"));
    }
};

QTEST_GUILESS_MAIN(TstFileGuard)
#include "tst_fileguard.moc"
