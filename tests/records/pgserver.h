#pragma once
// A PostgreSQL server of its own for a test or a benchmark: initdb into a
// temporary folder, started on a Unix socket there with no TCP port, stopped
// by its own process id. initdb and postgres refuse to run as root, so as
// root they run as nobody, in a folder nobody owns.
#include "recordsconfig.h"

#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QVariant>
#include <csignal>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

struct PgServer {
    QTemporaryDir dir;
    QString bin;            // the server's programs
    QProcess server;
    QString error;          // why it could not be started
    QStringList extra;      // more -c settings

    // The newest installed server's programs; empty when there are none.
    static QString findBin()
    {
        const QStringList versions = QDir(QStringLiteral("/usr/lib/postgresql")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
        QString best;
        int bestMajor = 0;
        for (const QString &v : versions) {
            const QString b = QStringLiteral("/usr/lib/postgresql/%1/bin").arg(v);
            if (v.toInt() > bestMajor && QFile::exists(b + QStringLiteral("/postgres")) && QFile::exists(b + QStringLiteral("/initdb"))) {
                bestMajor = v.toInt();
                best = b;
            }
        }
        return best;
    }
    QString socketDir() const { return dir.path(); }
    QString dataDir() const { return dir.filePath(QStringLiteral("data")); }

    // As root: the command run as nobody.
    QStringList asServerUser(const QString &program, const QStringList &args) const
    {
        if (::geteuid() != 0)
            return QStringList{program} + args;
        return QStringList{QStringLiteral("setpriv"), QStringLiteral("--reuid=nobody"), QStringLiteral("--regid=nogroup"),
                           QStringLiteral("--clear-groups"), QStringLiteral("--"), program} + args;
    }

    bool init(const QString &hba)
    {
        bin = findBin();
        if (bin.isEmpty()) {
            error = QStringLiteral("no PostgreSQL server programs under /usr/lib/postgresql");
            return false;
        }
        if (::geteuid() == 0) {
            const passwd *pw = ::getpwnam("nobody");
            const group *gr = ::getgrnam("nogroup");
            if (!pw || !gr || ::chown(QFile::encodeName(dir.path()).constData(), pw->pw_uid, gr->gr_gid) != 0) {
                error = QStringLiteral("can't give %1 to nobody").arg(dir.path());
                return false;
            }
        }
        QProcess p;
        p.setProcessChannelMode(QProcess::MergedChannels);
        p.setWorkingDirectory(dir.path());
        const QStringList cmd = asServerUser(bin + QStringLiteral("/initdb"),
                                             {QStringLiteral("-D"), dataDir(), QStringLiteral("-U"), QStringLiteral("postgres"),
                                              QStringLiteral("-A"), QStringLiteral("trust"), QStringLiteral("-E"), QStringLiteral("UTF8"),
                                              QStringLiteral("--locale=C"), QStringLiteral("--no-sync"), QStringLiteral("--no-instructions")});
        p.start(cmd.first(), cmd.mid(1));
        if (!p.waitForFinished(120000) || p.exitStatus() != QProcess::NormalExit || p.exitCode() != 0) {
            error = QStringLiteral("initdb failed: %1").arg(QString::fromLocal8Bit(p.readAll()));
            return false;
        }
        if (!hba.isEmpty()) {
            QFile f(dataDir() + QStringLiteral("/pg_hba.conf"));
            if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate) || f.write(hba.toUtf8()) != hba.toUtf8().size()) {
                error = QStringLiteral("can't write pg_hba.conf");
                return false;
            }
        }
        return true;
    }

    // Started and ready for connections (its own "ready" line, never a sleep).
    bool start()
    {
        server.setProcessChannelMode(QProcess::MergedChannels);
        server.setWorkingDirectory(dir.path());
        const QStringList cmd = asServerUser(bin + QStringLiteral("/postgres"),
                                             QStringList{QStringLiteral("-D"), dataDir(), QStringLiteral("-k"), socketDir(),
                                                         QStringLiteral("-c"), QStringLiteral("listen_addresses=")} + extra);
        server.start(cmd.first(), cmd.mid(1));
        if (!server.waitForStarted(10000)) {
            error = QStringLiteral("postgres did not start");
            return false;
        }
        QByteArray said;
        QElapsedTimer t;
        t.start();
        while (!said.contains("ready to accept connections")) {
            if (t.elapsed() > 60000 || server.state() == QProcess::NotRunning) {
                error = QStringLiteral("postgres is not ready: %1").arg(QString::fromLocal8Bit(said));
                return false;
            }
            server.waitForReadyRead(200);
            said += server.readAll();
        }
        return true;
    }

    // A fast stop (SIGINT: sessions are cut, as a server going away does).
    void stop()
    {
        if (server.state() == QProcess::NotRunning)
            return;
        ::kill(pid_t(server.processId()), SIGINT);
        if (!server.waitForFinished(30000)) {
            ::kill(pid_t(server.processId()), SIGKILL);
            server.waitForFinished(10000);
        }
    }

    pyro::LineStoreConfig config(const QString &dbname, const QString &user = QStringLiteral("postgres")) const
    {
        pyro::LineStoreConfig c;
        c.host = socketDir();
        c.dbname = dbname;
        c.user = user;
        return c;
    }

    // Statements as the server's superuser; the first failure's text.
    QString admin(const QString &dbname, const QStringList &sql) const
    {
        QString failed;
        {
            QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), QStringLiteral("pg-admin"));
            db.setHostName(socketDir());
            db.setDatabaseName(dbname);
            db.setUserName(QStringLiteral("postgres"));
            if (!db.open()) {
                failed = db.lastError().text();
            } else {
                QSqlQuery q(db);
                for (const QString &s : sql) {
                    if (!q.exec(s)) {
                        failed = s + QStringLiteral(": ") + q.lastError().text();
                        break;
                    }
                }
            }
            db.close();
        }
        QSqlDatabase::removeDatabase(QStringLiteral("pg-admin"));
        return failed;
    }

    ~PgServer() { stop(); }
};
