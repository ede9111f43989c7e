// The service bench from the command line, against pyrolink-sim over a real
// pseudo-terminal: diff, export, import and the port probe.
#include "../projectdb/dbfixture.h"
#include "itemstore.h"
#include "params.h"
#include "samplevalues.h"
#include "settingsfile.h"
#include "simprocess.h"

#include <QtTest>
#include <fcntl.h>
#include <unistd.h>

using namespace pyro;

namespace {

// A pseudo-terminal whose far end this test plays: silent, or talking.
struct Pty {
    int master = -1;
    QString slave;
    bool open()
    {
        master = posix_openpt(O_RDWR | O_NOCTTY);
        if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0)
            return false;
        slave = QString::fromLocal8Bit(ptsname(master));
        return fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK) == 0;
    }
    void drain()
    {
        char buf[512];
        while (::read(master, buf, sizeof buf) > 0) {
        }
    }
    ~Pty()
    {
        if (master >= 0)
            ::close(master);
    }
};

QStringList lines(const QString &s)
{
    return s.split('\n', Qt::SkipEmptyParts);
}

} // namespace

class TstServiceCli : public QObject {
    Q_OBJECT
    QTemporaryDir dir;
    Params p;

    QString write(const QString &name, const QByteArray &bytes)
    {
        QFile f(dir.filePath(name));
        f.open(QIODevice::WriteOnly);
        f.write(bytes);
        return f.fileName();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(LoadProtocolTable(p.MSFG[0], PYRO_DATA_DIR "/Config.For", p.SetRows, p.Tables[0]) == 0);
    }

    // The simulated board among other pseudo-terminals: one where nothing
    // answers, one where something talks without a pause.
    void probe()
    {
        SimProcess board;
        QVERIFY(board.start({"--mode", "3"}));
        Pty silent, babble;
        QVERIFY(silent.open() && babble.open());
        QProcess cli;
        cli.start(PYRO_BIN_DIR "/pyrolink-cli", {"ports", "--probe", "--port", silent.slave, "--port", board.path,
                                                 "--port", babble.slave, "--port", dir.filePath("no-such-port")});
        QVERIFY(cli.waitForStarted(10000));
        QElapsedTimer t;
        t.start();
        const QByteArray noise = QByteArray("\x01\xF0\x02\x00\x7F\x33\x10", 7).repeated(4);
        while (!cli.waitForFinished(5) && t.elapsed() < 30000) {
            ::write(babble.master, noise.constData(), size_t(noise.size()));
            babble.drain();
            silent.drain();
        }
        QCOMPARE(cli.state(), QProcess::NotRunning);
        QVERIFY2(t.elapsed() < 15000, "the probe must end by its own limits");
        const QString out = QString::fromUtf8(cli.readAllStandardOutput());
        const QString err = QString::fromUtf8(cli.readAllStandardError());
        QVERIFY2(cli.exitCode() == 0, qPrintable(out + err));
        const QStringList rows = lines(out);
        QCOMPARE(rows.size(), 5);
        QVERIFY2(rows[1].startsWith(silent.slave + "\t") && rows[1].contains("\tno answer\t"), qPrintable(rows[1]));
        QVERIFY2(rows[2].startsWith(board.path + "\t") && rows[2].contains("\tboard: stop mode\t"), qPrintable(rows[2]));
        QVERIFY2(rows[3].startsWith(babble.slave + "\t") && rows[3].contains("\tsomething talks, no board\t"), qPrintable(rows[3]));
        QVERIFY2(rows[4].contains("\tnot opened\t"), qPrintable(rows[4]));
        QVERIFY(err.contains("1 of 4 ports have a board answering"));
    }

    // The board against an item: exactly the rows that differ, exit 1; the
    // item against itself, exit 0.
    void diffBoardItem()
    {
        SimProcess board;
        QVERIFY(board.start());
        DbFixture fx;
        const QString db = fx.fresh();
        fx.addTop();
        fx.select(2);
        BeginRename(fx.db);
        QCOMPARE(RenameNode(fx.db, "Board 3"), 0);
        QByteArray item = SampleSettingsBlock();
        const QList<SettingRow> rows = SettingRows(p);
        QStringList want;
        for (const SettingRow &s : rows) {
            if (s.caption == "电机极对数") {
                PutStored(p, s, "7", item);
                want << "电机参数/电机极对数\t" + ValueAt(p, s, SampleSettingsBlock()).shown + "\t7";
            } else if (s.caption == "DI3 急停") {
                const SettingValue now = ValueAt(p, s, SampleSettingsBlock());
                PutStored(p, s, now.stored == "0" ? "1" : "0", item);
                want << "输入设置/DI3 急停\t" + now.shown + "\t" + ValueAt(p, s, item).shown;
            }
        }
        QCOMPARE(want.size(), 2);
        StampImage(item, p.Tables[0]);
        QString error;
        QVERIFY2(WriteItemSettings(db, "Board 3", "", item, &error), qPrintable(error));

        CliRun r = runCli({"params", "diff", "board", "item", "--db", db, "--item", "Board 3", "--port", board.path});
        QVERIFY2(r.code == 1, qPrintable(r.err));
        QCOMPARE(lines(r.out), want);
        QVERIFY(r.err.contains("board and item Board 3: 2 rows differ"));

        r = runCli({"params", "diff", "item", "item:Board 3", "--db", db, "--item", "Board 3"});
        QVERIFY2(r.code == 0, qPrintable(r.err));
        QCOMPARE(r.out, QString());
        r = runCli({"params", "diff", "item:Nobody", "defaults", "--db", db});
        QCOMPARE(r.code, 2);
        QVERIFY(r.err.contains("no item 'Nobody'"));
    }

    // Out of the board as a file, back in: one bad row changes nothing; a
    // good file changes the board and an item, and they then equal the file.
    void exportImport()
    {
        SimProcess board;
        QVERIFY(board.start());
        const QStringList port{"--port", board.path};
        const QString original = dir.filePath("board.csv");
        CliRun r = runCli(QStringList{"params", "export", "--out", original} + port);
        QVERIFY2(r.code == 0, qPrintable(r.err));
        const QByteArray csv = fileBytes(original);
        QVERIFY(csv.startsWith("pyrolink-settings,1\n"));
        QVERIFY(csv.contains("\n3,电机参数,额定电压(V),"));

        QByteArray changed = csv;
        const int at = int(changed.indexOf("\n2,电机参数,电机极对数,")) + 1;
        const int end = int(changed.indexOf('\n', at));
        changed.replace(at, end - at, "2,电机参数,电机极对数,9,,");
        QByteArray bad = changed;
        const int at2 = int(bad.indexOf("\n3,电机参数,额定电压(V),")) + 1;
        bad.replace(at2, bad.indexOf('\n', at2) - at2, "3,电机参数,额定电压(V),401,V,");
        const int badLine = int(bad.left(at2).count('\n')) + 1;

        r = runCli(QStringList{"params", "import", write("bad.csv", bad)} + port);
        QCOMPARE(r.code, 1);
        QVERIFY2(r.err.contains(QString("line %1: row '电机参数/额定电压(V)': 设置超出范围，有效范围：12-400; nothing changed").arg(badLine)),
                 qPrintable(r.err));
        r = runCli(QStringList{"params", "diff", "board", original} + port);
        QVERIFY2(r.code == 0, qPrintable(r.out + r.err));

        const QString good = write("good.csv", changed);
        // The read takes the board's flash: the change shows once saved.
        r = runCli(QStringList{"params", "import", good, "--save"} + port);
        QVERIFY2(r.code == 0, qPrintable(r.err));
        QVERIFY(r.err.contains("board: 1 rows changed"));
        r = runCli(QStringList{"params", "diff", "board", good} + port);
        QVERIFY2(r.code == 0, qPrintable(r.out + r.err));
        r = runCli(QStringList{"params", "diff", original, "board"} + port);
        QCOMPARE(r.code, 1);
        QCOMPARE(lines(r.out), QStringList{"电机参数/电机极对数\t" + ValueAt(p, SettingRows(p)[1], SampleSettingsBlock()).shown + "\t9"});

        // Into an item that holds no settings yet, and out of it as JSON.
        DbFixture fx;
        const QString db = fx.fresh();
        fx.addTop();
        const QStringList item{"--db", db, "--item", kNewCaption};
        r = runCli(QStringList{"params", "import", good} + item);
        QVERIFY2(r.code == 0, qPrintable(r.err));
        r = runCli(QStringList{"params", "export", "--format", "json"} + item);
        QVERIFY2(r.code == 0, qPrintable(r.err));
        QVERIFY(r.out.contains("\"caption\": \"电机极对数\", \"value\": \"9\""));
        r = runCli(QStringList{"params", "diff", "item", good} + item);
        QVERIFY2(r.code == 0, qPrintable(r.out + r.err));
        QVERIFY(CheckDb(db).isEmpty());
    }
};

QTEST_GUILESS_MAIN(TstServiceCli)
#include "tst_service_cli.moc"
