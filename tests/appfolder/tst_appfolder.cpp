#include "appfolder.h"

#include <QtTest>

#include <memory>
#include <unistd.h>

using namespace pyro;

class TstAppFolder : public QObject {
    Q_OBJECT
private slots:
    void init();
    void programFolderWithTables_data();
    void programFolderWithTables();
    void seedsOnceAndKeepsTheUsersFiles();
    void twoUsersAndTheInstalledSamples();
    void folderThatCantBeHad_data();
    void folderThatCantBeHad();
    void sampleMissingFromTheInstallation();

private:
    std::unique_ptr<QTemporaryDir> m_holder;
    QString m_bin, m_samples;
    QByteArray bytesOf(const QString &path)
    {
        QFile f(path);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("<unreadable>");
    }
    void put(const QString &path, const QByteArray &bytes)
    {
        QFile f(path);
        QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write(bytes);
    }
};

// An installation: programs in usr/bin (no tables), samples read-only in
// usr/share/pyrolink with the manual.
void TstAppFolder::init()
{
    m_holder = std::make_unique<QTemporaryDir>();
    QVERIFY(m_holder->isValid());
    m_bin = m_holder->filePath("usr/bin");
    m_samples = m_holder->filePath("usr/share/pyrolink");
    QDir().mkpath(m_bin);
    QDir().mkpath(m_samples);
    const QStringList installed = AppFolderSamples() << AppFolderManual();
    for (const QString &name : installed) {
        const QString p = QDir(m_samples).filePath(name);
        QFile::setPermissions(p, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
        put(p, "sample " + name.toUtf8());
        QFile::setPermissions(p, QFileDevice::ReadOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther);
    }
}

void TstAppFolder::programFolderWithTables_data()
{
    QTest::addColumn<QString>("table");
    QTest::newRow("Config.For") << "Config.For";
    QTest::newRow("Display.For") << "Display.For";
}

// A build folder (or a bench folder set up by hand) stays what it is, and
// nothing is made for the user.
void TstAppFolder::programFolderWithTables()
{
    QFETCH(QString, table);
    const QString build = m_holder->filePath("build/bin");
    QDir().mkpath(build);
    put(QDir(build).filePath(table), "table");
    const QString user = m_holder->filePath("home/.local/share/pyrolink");
    const AppFolder f = ResolveAppFolder(build, m_samples, user);
    QCOMPARE(f.path, build);
    QVERIFY(f.error.isEmpty() && f.notes.isEmpty() && !f.perUser);
    QVERIFY(!QFileInfo::exists(user));
}

void TstAppFolder::seedsOnceAndKeepsTheUsersFiles()
{
    const QString user = m_holder->filePath("home/.local/share/pyrolink");
    AppFolder f = ResolveAppFolder(m_bin, m_samples, user);
    QCOMPARE(f.path, user);
    QVERIFY(f.perUser);
    QVERIFY2(f.error.isEmpty() && f.notes.isEmpty(), qPrintable(f.error + f.notes.join('\n')));
    for (const QString &name : AppFolderSamples()) {
        const QFileInfo fi(QDir(user).filePath(name));
        QVERIFY2(fi.isFile() && !fi.isSymLink(), qPrintable(name));
        QCOMPARE(bytesOf(fi.filePath()), "sample " + name.toUtf8());
        // Read-only samples, writable copies.
        QVERIFY(fi.permissions().testFlag(QFileDevice::WriteOwner));
    }
    const QFileInfo manual(QDir(user).filePath(AppFolderManual()));
    QVERIFY(manual.isSymLink());
    QCOMPARE(manual.symLinkTarget(), QDir(m_samples).filePath(AppFolderManual()));
    QCOMPARE(QDir(user).entryList(QDir::Files | QDir::Hidden | QDir::System).size(), AppFolderSamples().size() + 1);

    // The operator's edits and deletions stand through the next run (and an
    // upgrade's new samples): only what is missing comes back.
    put(QDir(user).filePath("Config.MPK"), "the operator's database");
    QFile::remove(QDir(user).filePath("Display.For"));
    put(QDir(m_samples).filePath("Config.For.new"), "");
    f = ResolveAppFolder(m_bin, m_samples, user);
    QVERIFY(f.error.isEmpty() && f.notes.isEmpty());
    QCOMPARE(bytesOf(QDir(user).filePath("Config.MPK")), QByteArray("the operator's database"));
    QCOMPARE(bytesOf(QDir(user).filePath("Display.For")), QByteArray("sample Display.For"));

    // A manual link the package's removal left dangling is renewed; a file
    // of the operator's under that name is not touched.
    const QString link = QDir(user).filePath(AppFolderManual());
    QFile::remove(link);
    QVERIFY(QFile::link(m_holder->filePath("gone/Pyrolink_UG.PDF"), link));
    ResolveAppFolder(m_bin, m_samples, user);
    QCOMPARE(QFileInfo(link).symLinkTarget(), QDir(m_samples).filePath(AppFolderManual()));
    QFile::remove(link);
    put(link, "own");
    ResolveAppFolder(m_bin, m_samples, user);
    QCOMPARE(bytesOf(link), QByteArray("own"));
}

// Two users on one PC: each folder is its own copy, and what one writes
// reaches neither the other nor the installation.
void TstAppFolder::twoUsersAndTheInstalledSamples()
{
    const QString alice = m_holder->filePath("alice/.local/share/pyrolink");
    const QString bob = m_holder->filePath("bob/.local/share/pyrolink");
    QVERIFY(ResolveAppFolder(m_bin, m_samples, alice).error.isEmpty());
    put(QDir(alice).filePath("Config.MPK"), "alice's");
    put(QDir(alice).filePath("Config.For"), "alice's table");
    QVERIFY(ResolveAppFolder(m_bin, m_samples, bob).error.isEmpty());
    QCOMPARE(bytesOf(QDir(bob).filePath("Config.MPK")), QByteArray("sample Config.MPK"));
    put(QDir(bob).filePath("Config.MPK"), "bob's");
    QCOMPARE(bytesOf(QDir(alice).filePath("Config.MPK")), QByteArray("alice's"));
    for (const QString &name : AppFolderSamples())
        QCOMPARE(bytesOf(QDir(m_samples).filePath(name)), "sample " + name.toUtf8());
}

void TstAppFolder::folderThatCantBeHad_data()
{
    QTest::addColumn<QString>("userDir");
    QTest::addColumn<QString>("why");
    QTest::newRow("below a file") << "file/pyrolink" << "can't be made";
    QTest::newRow("a file") << "file" << "can't be made";
    QTest::newRow("read-only") << "ro/pyrolink" << "can't be written";
    QTest::newRow("no home") << "" << "neither XDG_DATA_HOME nor HOME is set";
}

// A clear message that names the folder; nothing seeded, nothing written.
void TstAppFolder::folderThatCantBeHad()
{
    QFETCH(QString, userDir);
    QFETCH(QString, why);
    put(m_holder->filePath("file"), "a file");
    const QString ro = m_holder->filePath("ro/pyrolink");
    QDir().mkpath(ro);
    QFile::setPermissions(ro, QFileDevice::ReadOwner | QFileDevice::ExeOwner);
    if (userDir.startsWith("ro") && ::geteuid() == 0)
        QSKIP("root writes into a read-only folder");
    const QString user = userDir.isEmpty() ? QString() : m_holder->filePath(userDir);
    const AppFolder f = ResolveAppFolder(m_bin, m_samples, user);
    QVERIFY2(f.error.contains(why), qPrintable(f.error));
    if (!user.isEmpty())
        QVERIFY(f.error.startsWith("the application folder " + user));
    QCOMPARE(bytesOf(m_holder->filePath("file")), QByteArray("a file"));
    QVERIFY(QDir(ro).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot));
    QFile::setPermissions(ro, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
}

// A broken installation: the files there still come, and the note names the
// one that could not and where it was looked for.
void TstAppFolder::sampleMissingFromTheInstallation()
{
    QFile::remove(QDir(m_samples).filePath("Display.For"));
    const QString user = m_holder->filePath("home/pyrolink");
    const AppFolder f = ResolveAppFolder(m_bin, m_samples, user);
    QVERIFY(f.error.isEmpty());
    QCOMPARE(f.notes, QStringList{"Display.For is missing from the installation (" + m_samples + "): " + user + " has none"});
    QVERIFY(QFileInfo(QDir(user).filePath("Config.For")).isFile());
    QVERIFY(!QFileInfo::exists(QDir(user).filePath("Display.For")));
}

QTEST_APPLESS_MAIN(TstAppFolder)
#include "tst_appfolder.moc"
