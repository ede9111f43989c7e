// pyrolink-cli as a production script runs it: its usage and exit codes,
// and against pyrolink-sim a burn's record and the settings by name.
#include "simprocess.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>
#include <csignal>

namespace {

const QString kDemo = QStringLiteral(PYRO_DATA_DIR "/demo-firmware.BIN");

// The tool in folder dir with HOME there too; with stopAfter, Ctrl-C (SIGINT)
// once its output shows that text.
CliRun cli(const QStringList &args, const QString &home, const QByteArray &stopAfter = {})
{
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("HOME", home);
    p.setProcessEnvironment(env);
    p.setWorkingDirectory(home);
    p.start(PYRO_BIN_DIR "/pyrolink-cli", args);
    p.closeWriteChannel();   // stdin is no terminal
    QByteArray out, err;
    while (!stopAfter.isEmpty() && !(out + err).contains(stopAfter) && p.waitForReadyRead(30000)) {
        out += p.readAllStandardOutput();
        err += p.readAllStandardError();
    }
    if (!stopAfter.isEmpty())
        ::kill(pid_t(p.processId()), SIGINT);
    if (!p.waitForFinished(120000)) {
        p.kill();
        p.waitForFinished(3000);
        return {};
    }
    out += p.readAllStandardOutput();
    err += p.readAllStandardError();
    return {p.exitCode(), QString::fromUtf8(out), QString::fromUtf8(err)};
}

QStringList lines(const QString &text)
{
    return text.split('\n', Qt::SkipEmptyParts);
}

} // namespace

class TstCli : public QObject {
    Q_OBJECT

    QTemporaryDir dir;
    SimProcess sim;

private slots:
    void initTestCase()
    {
        QVERIFY(sim.start());
        QFile empty(dir.filePath("empty.BIN"));
        QVERIFY(empty.open(QIODevice::WriteOnly));
        QFile zeros(dir.filePath("zeros.BIN"));   // no blank information block
        QVERIFY(zeros.open(QIODevice::WriteOnly));
        zeros.write(QByteArray(4096, '\0'));
    }

    // Each row: the arguments (SIM, DIR and DEMO stand for the board's
    // line, a folder and the demo image), the board's state, the exit code
    // and a piece of stdout or stderr.
    void usage_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("board");      // "", "silent", or "stop" for Ctrl-C once burning
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("stream");
        QTest::addColumn<QString>("says");
        const QString usage("Usage: pyrolink-cli ");
        QTest::newRow("help") << QStringList{"--help"} << "" << 0 << "out" << "  4  no answer from the board, or a time limit passed\n";
        QTest::newRow("version") << QStringList{"--version"} << "" << 0 << "out" << "pyrolink-cli 0.1\n";
        for (const char *name : {"ports", "monitor", "table", "burn", "params get", "params set", "params watch", "db new", "db show"}) {
            const QString c = QString::fromLatin1(name);
            QTest::addRow("help %s", qPrintable(c)) << c.split(' ') + QStringList{"--help"} << "" << 0 << "out" << usage + c + " [options]";
            QTest::addRow("version %s", qPrintable(c)) << c.split(' ') + QStringList{"--version"} << "" << 0 << "out" << "pyrolink-cli 0.1\n";
        }
        QTest::newRow("help params") << QStringList{"params", "-h"} << "" << 0 << "out" << "  watch   the running values";
        QTest::newRow("version db") << QStringList{"db", "--version"} << "" << 0 << "out" << "pyrolink-cli 0.1\n";
        QTest::newRow("no command") << QStringList{} << "" << 2 << "err" << "no command given";
        QTest::newRow("unknown command") << QStringList{"flash"} << "" << 2 << "err" << "unknown command 'flash'";
        QTest::newRow("unknown verb") << QStringList{"params", "dump"} << "" << 2 << "err" << "unknown verb 'dump'";
        QTest::newRow("unknown option") << QStringList{"burn", "--port", "COM1", "--speed", "9"} << "" << 2 << "err" << "unknown option 'speed'";
        QTest::newRow("missing value") << QStringList{"burn", "--port", "COM1", "--file"} << "" << 2 << "err" << "--file needs a value";
        QTest::newRow("not a number") << QStringList{"monitor", "--port", "COM1", "--seconds", "abc"} << "" << 2 << "err" << "--seconds: 'abc' is not a number";
        QTest::newRow("baud list") << QStringList{"monitor", "--port", "COM1", "--baud", "1234"} << "" << 2 << "err" << "--baud: '1234' is not one of 57600, 9600, 1200";
        QTest::newRow("format list") << QStringList{"params", "watch", "--port", "COM1", "--format", "xml"} << "" << 2 << "err" << "--format: 'xml' is not one of table, csv, json";
        QTest::newRow("erase unasked") << QStringList{"params", "erase", "--port", "COM1"} << "" << 2 << "err" << "erase needs --yes";
        QTest::newRow("no such port") << QStringList{"monitor", "--port", "DIR/ttyNone"} << "" << 3 << "err" << "port DIR/ttyNone: not found";
        QTest::newRow("not serial") << QStringList{"params", "read", "--port", "/dev/null"} << "" << 3 << "err" << "port /dev/null: not a serial device";
        QTest::newRow("folder as image") << QStringList{"burn", "--port", "SIM", "--file", "DIR"} << "" << 1 << "err" << "a folder, not a file: DIR";
        QTest::newRow("empty image") << QStringList{"burn", "--port", "SIM", "--file", "DIR/empty.BIN"} << "" << 1 << "err" << "empty: DIR/empty.BIN";
        QTest::newRow("not a database") << QStringList{"db", "show", "DIR/zeros.BIN", "1"} << "" << 1 << "err" << "文件类型不匹配！";
        QTest::newRow("refused image") << QStringList{"burn", "--port", "SIM", "--file", "DIR/zeros.BIN"} << "" << 1 << "err" << "the image was refused";
        QTest::newRow("no answer") << QStringList{"burn", "--port", "SIM", "--file", "DEMO", "--timeout", "1"} << "silent" << 4 << "err"
                                   << "no answer from the board on SIM after 1 s";
        QTest::newRow("Ctrl-C") << QStringList{"burn", "--port", "SIM", "--file", "DEMO", "--auto"} << "stop" << 5 << "err" << "interrupted";
    }

    void usage()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, board);
        QFETCH(QString, says);
        auto fill = [&](QString s) { return s.replace("SIM", sim.path).replace("DIR", dir.path()).replace("DEMO", kDemo); };
        for (QString &a : args)
            a = fill(a);
        QTemporaryDir home;
        if (board == "silent")
            sim.command("silent on");
        const CliRun r = cli(args, home.path(), board == "stop" ? QByteArray("chip 1: ") : QByteArray());
        if (board == "silent")
            sim.command("silent off");
        QTEST(r.code, "code");
        QFETCH(QString, stream);
        QVERIFY2((stream == "out" ? r.out : r.err).contains(fill(says)), qPrintable(r.out + r.err));
        // Help is never an action, and a run that never burned leaves no record.
        QVERIFY(!QFileInfo::exists(home.filePath("--help")));
        const QDir records(home.filePath("ProRecord(K0)"));
        QCOMPARE(records.exists(), board == "stop");
        if (board == "stop")
            QCOMPARE(records.entryList({"*.csv"}).size(), 1);
    }

    // Two chips with AutoLoad: each JSON line is what the board says it got,
    // and the companion file holds the same.
    void burnJson()
    {
        SimProcess board;
        QVERIFY(board.start({"--swap-after-burn"}));
        QTemporaryDir home;
        const CliRun r = cli({"burn", "--port", board.path, "--file", kDemo, "--auto", "--chips", "2", "--order", "订单-7", "--json"},
                             home.path());
        QVERIFY2(r.code == 0, qPrintable(r.err));
        QStringList got;
        while (board.proc.waitForReadyRead(200) || board.proc.canReadLine())
            while (board.proc.canReadLine())
                got << QString::fromUtf8(board.proc.readLine()).trimmed();
        got = got.filter(QRegularExpression("^closed "));
        const QStringList json = lines(r.out);
        QCOMPARE(json.size(), 2);
        QCOMPARE(got.size(), 2);
        const QStringList csv = lines(QString::fromUtf8([&] {
            const QStringList f = QDir(home.filePath("ProRecord(K0)")).entryList({"*(K0).csv"});
            QFile file(home.filePath("ProRecord(K0)/" + f.value(0)));
            return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        }()).remove('\r'));
        QCOMPARE(csv.size(), 3);
        QCOMPARE(csv[0], QString("time,port,chip_id,order,image,length,sha256,duration_s,retries,result"));
        for (int i = 0; i < 2; ++i) {
            const QJsonObject o = QJsonDocument::fromJson(json[i].toUtf8()).object();
            const QStringList closed = got[i].split(' ');   // closed ID LEN SHA
            QCOMPARE(o["chip_id"].toString(), closed[1]);
            QCOMPARE(o["length"].toInt(), closed[2].toInt());
            QCOMPARE(o["sha256"].toString(), closed[3]);
            QCOMPARE(o["result"].toString(), QString("done"));
            QCOMPARE(o["order"].toString(), QString("订单-7"));
            const QStringList f = csv[i + 1].split(',');
            QCOMPARE(f.size(), 10);
            QCOMPARE(f.mid(1, 6), (QStringList{board.path, closed[1], "订单-7", kDemo, closed[2], closed[3]}));
            QCOMPARE(f[0], o["time"].toString());
            QCOMPARE(f[9], QString("done"));
        }
        QVERIFY(got[0].section(' ', 1, 1) != got[1].section(' ', 1, 1));
    }

    // An order of five over three boards at once: five good chips, each in
    // JSON with its port, no more images closed than that; a port named twice
    // is a usage error, and a port that isn't there fails alone with code 3.
    void burnOnThreePorts()
    {
        SimProcess boards;
        QVERIFY(boards.start({"--boards", "3", "--swap-after-burn", "--no-pace"}));
        const QStringList ptys = boards.path.split(' ');
        QCOMPARE(ptys.size(), 3);
        QTemporaryDir home;
        const CliRun r = cli({"burn", "--port", ptys[0] + "," + ptys[1], "--port", ptys[2], "--file", kDemo, "--auto",
                              "--chips", "5", "--json", "--fast"},
                             home.path());
        QVERIFY2(r.code == 0, qPrintable(r.err));
        const QStringList json = lines(r.out);
        QCOMPARE(json.size(), 5);
        QSet<QString> ports;
        for (const QString &j : json) {
            const QJsonObject o = QJsonDocument::fromJson(j.toUtf8()).object();
            QCOMPARE(o["result"].toString(), QString("done"));
            QVERIFY(ptys.contains(o["port"].toString()));
            ports << o["port"].toString();
        }
        QVERIFY(ports.size() >= 2);
        QVERIFY(r.err.contains("5 chip(s) done"));
        QStringList got;
        while (boards.proc.waitForReadyRead(300) || boards.proc.canReadLine())
            while (boards.proc.canReadLine())
                got << QString::fromUtf8(boards.proc.readLine()).trimmed();
        QCOMPARE(got.filter(QRegularExpression("^closed ")).size(), 5);

        const CliRun twice = cli({"burn", "--port", ptys[0], "--port", ptys[0], "--file", kDemo}, home.path());
        QCOMPARE(twice.code, 2);
        QVERIFY(twice.err.contains("already on the station"));
        const CliRun missing = cli({"burn", "--port", ptys[1] + "," + dir.filePath("nowhere"), "--file", kDemo}, home.path());
        QCOMPARE(missing.code, 3);
        QVERIFY2(missing.out.contains(QRegularExpression("nowhere +0 +0 +\\S+ +exit 3: port: not found")), qPrintable(missing.out));
        QVERIFY(missing.out.contains(QRegularExpression(QRegularExpression::escape(ptys[1]) + " +1 +0 +\\S+ +ok")));
    }

    // A record folder that can't be made: the burn goes on and says so once.
    void unwritableRecord()
    {
        QTemporaryDir home;
        QFile blocker(home.filePath("ProRecord(K0)"));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        QByteArray image(1100, '\x5A');
        image.replace(1024, 50, QByteArray(50, '\xFF'));   // a blank information block
        QFile f(home.filePath("small.BIN"));
        QVERIFY(f.open(QIODevice::WriteOnly) && f.write(image) == image.size());
        f.close();
        const CliRun r = cli({"burn", "--port", sim.path, "--file", f.fileName()}, home.path());
        QVERIFY2(r.code == 0, qPrintable(r.err));
        QCOMPARE(int(r.err.count("the chip record could not be written (the burn goes on)")), 1);
        QVERIFY(r.err.contains("the day's record in " + home.filePath("ProRecord(K0)") + " could not be written"));
        QVERIFY(r.out.contains("1 chip(s) done"));
    }

    // A setting by its caption (read back by its row number): in range it
    // reaches the board's flash, out of range nothing changes; then one sample of the running values as CSV.
    void paramsByName()
    {
        SimProcess board;
        QVERIFY(board.start({"--mode", "2"}));
        const QStringList port{"--port", board.path};
        const QString name("额定电流(A)");
        const struct {
            QString value;
            int code;
            QString after;
        } steps[] = {{"12.5", 0, "12.5"}, {"400", 1, "12.5"}, {"0.4", 1, "12.5"}, {"abc", 1, "12.5"}, {"300", 0, "300.0"}};
        for (const auto &s : steps) {
            const CliRun set = cli(QStringList{"params", "set", name + "=" + s.value, "--save"} + port, dir.path());
            QVERIFY2(set.code == s.code, qPrintable(s.value + ": " + set.err));
            if (s.value == "400")
                QVERIFY2(set.err.contains("设置超出范围，有效范围：0.5-300"), qPrintable(set.err));
            const CliRun get = cli(QStringList{"params", "get", name, "4"} + port, dir.path());
            QCOMPARE(get.code, 0);
            QCOMPARE(get.out, name + "=" + s.after + "\n4=" + s.after + "\n");
        }
        const CliRun w = cli(QStringList{"params", "watch", "--once", "--format", "csv", "--rows", "运行状态,4"} + port, dir.path());
        QVERIFY2(w.code == 0, qPrintable(w.err));
        const QStringList out = lines(w.out);
        QCOMPARE(out.size(), 2);
        QCOMPARE(out[0], QString("time,运行状态,输出频率(Hz)"));
        QVERIFY2(QRegularExpression(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3},(停止|运行|故障|待机),-?\d+\.\d\d$)").match(out[1]).hasMatch(),
                 qPrintable(out[1]));
    }
};

QTEST_GUILESS_MAIN(TstCli)
#include "tst_cli.moc"
