// pyrolink-cli as a production script runs it: its usage and exit codes,
// and against pyrolink-sim a burn's record and the settings by name.
#include "help.h"
#include "simprocess.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>
#include <csignal>
#include <functional>
#include <sys/mount.h>
#include <sys/stat.h>

namespace {

const QString kDemo = QStringLiteral(PYRO_DATA_DIR "/demo-firmware.BIN");

// The tool in folder dir with HOME there too; with stopAfter, Ctrl-C (SIGINT),
// or atStop when given, once its output shows that text.
CliRun cli(const QStringList &args, const QString &home, const QByteArray &stopAfter = {},
           const std::function<void()> &atStop = {})
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
    if (!stopAfter.isEmpty() && atStop)
        atStop();
    else if (!stopAfter.isEmpty())
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

// The tool started with HOME in home, its stdout a pipe read as it comes.
void startCli(QProcess &p, const QStringList &args, const QString &home)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("HOME", home);
    p.setProcessEnvironment(env);
    p.start(PYRO_BIN_DIR "/pyrolink-cli", args);
    p.waitForStarted(10000);
    p.closeWriteChannel();
}

// The next whole line of stdout, or empty when none comes before the deadline.
QString nextLine(QProcess &p, int ms)
{
    QElapsedTimer t;
    t.start();
    while (!p.canReadLine() && t.elapsed() < ms && p.state() == QProcess::Running)
        p.waitForReadyRead(50);
    return p.canReadLine() ? QString::fromUtf8(p.readLine()).trimmed() : QString();
}

// The chip record lines of the day, header left out.
QStringList chipLines(const QString &home)
{
    const QStringList f = QDir(home + "/ProRecord(K0)").entryList({"*(K0).csv"});
    QFile file(home + "/ProRecord(K0)/" + f.value(0));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return lines(QString::fromUtf8(file.readAll()).remove('\r')).mid(1);
}

struct Stat {
    bool exists = false;
    mode_t mode = 0;
    ino_t inode = 0;
    dev_t rdev = 0;
};
Stat statOf(const QString &path)
{
    struct stat st {};
    if (::lstat(QFile::encodeName(path).constData(), &st) != 0)
        return {};
    return {true, st.st_mode, st.st_ino, st.st_rdev};
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
        QTest::addColumn<QString>("board");      // "", "silent", "stop" for Ctrl-C once burning, or "lost": its line goes then
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("stream");
        QTest::addColumn<QString>("says");
        const QString usage("Usage: pyrolink-cli ");
        // The about box's version, "Bite 1.0.0", is every program's.
        const QString version = "pyrolink-cli " + pyro::AboutVersionText().section(' ', 1) + "\n";
        QTest::newRow("help") << QStringList{"--help"} << "" << 0 << "out" << "  4  no answer from the board, or a time limit passed\n";
        QTest::newRow("version") << QStringList{"--version"} << "" << 0 << "out" << version;
        for (const char *name : {"ports", "monitor", "table", "burn", "params get", "params set", "params watch", "db new", "db show"}) {
            const QString c = QString::fromLatin1(name);
            QTest::addRow("help %s", qPrintable(c)) << c.split(' ') + QStringList{"--help"} << "" << 0 << "out" << usage + c + " [options]";
            QTest::addRow("version %s", qPrintable(c)) << c.split(' ') + QStringList{"--version"} << "" << 0 << "out" << version;
        }
        QTest::newRow("help params") << QStringList{"params", "-h"} << "" << 0 << "out" << "  watch   the running values";
        QTest::newRow("version db") << QStringList{"db", "--version"} << "" << 0 << "out" << version;
        QTest::newRow("no command") << QStringList{} << "" << 2 << "err" << "no command given";
        QTest::newRow("db without a verb") << QStringList{"db"} << "" << 2 << "err" << "Usage: pyrolink-cli db VERB";
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
        QTest::newRow("read, no answer") << QStringList{"params", "read", "--port", "SIM"} << "silent" << 4 << "err"
                                         << "Read the data failure";
        QTest::newRow("watch once, no answer") << QStringList{"params", "watch", "--once", "--seconds", "1", "--port", "SIM"}
                                               << "silent" << 4 << "err" << "no answer from the board on SIM after 1 s";
        QTest::newRow("line lost") << QStringList{"burn", "--port", "SIM", "--file", "DEMO", "--auto"} << "lost" << 3 << "err"
                                   << "port SIM: lost during the burn";
        QTest::newRow("Ctrl-C") << QStringList{"burn", "--port", "SIM", "--file", "DEMO", "--auto"} << "stop" << 5 << "err" << "interrupted";
    }

    void usage()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, board);
        QFETCH(QString, says);
        SimProcess own;   // a board whose line may go away
        if (board == "lost")
            QVERIFY(own.start());
        const QString line = board == "lost" ? own.path : sim.path;
        auto fill = [&](QString s) { return s.replace("SIM", line).replace("DIR", dir.path()).replace("DEMO", kDemo); };
        for (QString &a : args)
            a = fill(a);
        QTemporaryDir home;
        if (board == "silent")
            sim.command("silent on");
        const bool midway = board == "stop" || board == "lost";
        const CliRun r = cli(args, home.path(), midway ? QByteArray("chip 1: ") : QByteArray(),
                             board == "lost" ? std::function<void()>([&] { own.command("close"); }) : std::function<void()>());
        if (board == "silent")
            sim.command("silent off");
        QTEST(r.code, "code");
        QFETCH(QString, stream);
        QVERIFY2((stream == "out" ? r.out : r.err).contains(fill(says)), qPrintable(r.out + r.err));
        // Refusals read without double blanks (usage tables are aligned by them).
        QVERIFY2(!r.err.contains(QRegularExpression("^pyrolink-cli [^\n]*  ", QRegularExpression::MultilineOption))
                     && !r.err.contains(QRegularExpression(R"(\bQ[A-Z]\w+::)")), qPrintable(r.err));
        // Help is never an action, and a run that never burned leaves no record.
        QVERIFY(!QFileInfo::exists(home.filePath("--help")));
        const QDir records(home.filePath("ProRecord(K0)"));
        QCOMPARE(records.exists(), midway);
        if (midway)
            QCOMPARE(records.entryList({"*.csv"}).size(), 1);
    }

    void simVersion()
    {
        QProcess p;
        p.start(PYRO_BIN_DIR "/pyrolink-sim", {"--version"});
        QVERIFY(p.waitForFinished(30000));
        QCOMPARE(p.exitCode(), 0);
        QCOMPARE(QString::fromUtf8(p.readAllStandardOutput()), "pyrolink-sim " + pyro::VersionText() + "\n");
    }

    // A block from a file goes through the update step as the window's working
    // copy does: a stale CRC is stamped afresh; a length field that doesn't
    // fit the table refuses it before the line.
    void blockFromFile_data()
    {
        QTest::addColumn<QString>("verb");
        QTest::addColumn<int>("at");       // the header byte spoiled, -1 none
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("says");
        QTest::newRow("as read") << "update" << -1 << 0 << "Update the set data successfully\n";
        QTest::newRow("stale CRC, update") << "update" << 28 << 0 << "Update the set data successfully\n";
        QTest::newRow("stale CRC, save") << "save" << 29 << 0 << "Save Settings data successfully\n";
        QTest::newRow("wrong length") << "update" << 20 << 1 << "Set the data validation is invalid\n";
    }
    void blockFromFile()
    {
        QFETCH(QString, verb);
        QFETCH(int, at);
        const QStringList port{"--port", sim.path};
        const QString bin = dir.filePath("block.bin");
        const CliRun read = cli(QStringList{"params", "read", "--out", bin} + port, dir.path());
        QVERIFY2(read.code == 0, qPrintable(read.err));
        QFile f(bin);
        QVERIFY(f.open(QIODevice::ReadWrite));
        QByteArray block = f.readAll();
        if (at >= 0)
            block[at] = char(block[at] ^ 0x5A);   // 20: the payload length; 28, 29: the CRC
        f.seek(0);
        f.write(block);
        f.close();
        const CliRun r = cli(QStringList{"params", verb, "--in", bin} + port, dir.path());
        QTEST(r.code, "code");
        QTEST(r.err, "says");
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

    // A record folder that can't be made, or record files that are FIFOs:
    // the burn goes on and says so once, nothing blocks, no Qt warning.
    void unwritableRecord_data()
    {
        QTest::addColumn<bool>("fifos");
        QTest::newRow("a file where the folder goes") << false;
        QTest::newRow("FIFOs where the files go") << true;
    }
    void unwritableRecord()
    {
        QFETCH(bool, fifos);
        QTemporaryDir home;
        const QString folder = home.filePath("ProRecord(K0)");
        if (fifos) {
            QVERIFY(QDir().mkpath(folder));
            const QDate today = QDate::currentDate();
            const QString day = QStringLiteral("%1.%2.%3(K0)").arg(today.year()).arg(today.month()).arg(today.day());
            for (const QString ext : {".csv", ".Txt"})
                QVERIFY(::mkfifo(QFile::encodeName(folder + "/" + day + ext).constData(), 0600) == 0);
        } else {
            QFile blocker(folder);
            QVERIFY(blocker.open(QIODevice::WriteOnly));
            blocker.close();
        }
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
        QVERIFY2(!r.err.contains(QRegularExpression(R"(\bQ[A-Z]\w+::)")), qPrintable(r.err));
        if (fifos)
            QVERIFY(r.err.contains("not a regular file (a FIFO)"));
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
            // The window's message without its box's title or the field's padding.
            if (s.value == "400")
                QVERIFY2(set.err.endsWith("\n" + name + ": 设置超出范围，有效范围：0.5-300; nothing changed\n"), qPrintable(set.err));
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

    // Outputs are whole or untouched: a FIFO or a device named as the output
    // is refused with the reason and stays what it was; on a full disk the
    // old file keeps every byte; a good write leaves no stale tail.
    void outputs_data()
    {
        QTest::addColumn<QStringList>("args");   // OUT stands for the target
        QTest::addColumn<QString>("target");     // what stands there: file, fifo, /dev/..., full
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("says");
        const QStringList read{"params", "read", "--port", "SIM", "--out", "OUT"};
        const QStringList dbNew{"db", "new", "OUT", "--force"};
        QTest::newRow("read over a longer file") << read << "file" << 0 << "Successful reading data set";
        QTest::newRow("read into a FIFO") << read << "fifo" << 1 << "--out: not a regular file (a FIFO): OUT";
        QTest::newRow("read into /dev/full") << read << "/dev/full" << 1 << "--out: not a regular file (a device): /dev/full";
        QTest::newRow("read into /dev/null") << read << "/dev/null" << 1 << "not a regular file (a device)";
        QTest::newRow("read onto a full disk") << read << "full" << 1 << "--out: cannot write OUT: No space left on device";
        QTest::newRow("db new over a FIFO") << dbNew << "fifo" << 1 << "not a regular file (a FIFO): OUT";
        QTest::newRow("db new onto a full disk") << dbNew << "full" << 1 << "cannot write OUT: No space left on device";
    }
    void outputs()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, target);
        QFETCH(QString, says);
        QTemporaryDir home;
        QString out = home.filePath("out.BIN");
        bool mounted = false;
        const QByteArray old(5000, 'o');
        if (target.startsWith('/')) {
            out = target;
        } else if (target == "fifo") {
            QVERIFY(::mkfifo(QFile::encodeName(out).constData(), 0600) == 0);
        } else {
            if (target == "full") {
                // A small file system, full once the old file and a filler are on it.
                QVERIFY(QDir().mkpath(home.filePath("disk")));
                mounted = ::mount("tmpfs", QFile::encodeName(home.filePath("disk")).constData(), "tmpfs", 0, "size=16k") == 0;
                if (!mounted)
                    QSKIP("no permission to mount a small file system");
                out = home.filePath("disk/out.BIN");
            }
            QFile f(out);
            QVERIFY(f.open(QIODevice::WriteOnly) && f.write(old) == old.size());
            f.close();
            if (target == "full") {
                QFile filler(home.filePath("disk/filler"));
                QVERIFY(filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
                while (filler.write(QByteArray(512, 'x')) == 512) {
                }
            }
        }
        const Stat before = statOf(out);
        for (QString &a : args)
            a.replace("SIM", sim.path).replace("OUT", out);
        const CliRun r = cli(args, home.path());
        const Stat after = statOf(out);
        QByteArray now;
        if (target == "file" || target == "full") {
            QFile f(out);
            QVERIFY(f.open(QIODevice::ReadOnly));
            now = f.readAll();
        }
        if (mounted)
            ::umount2(QFile::encodeName(home.filePath("disk")).constData(), MNT_DETACH);
        QTEST(r.code, "code");
        QVERIFY2(r.err.contains(says.replace("OUT", out)), qPrintable(r.err));
        QVERIFY(!r.err.contains("  "));
        if (r.code == 0) {
            QVERIFY(now.size() > 0 && now.size() < old.size());
            return;
        }
        // Refused or failed: the thing at the name is the very one it was.
        QVERIFY(after.exists);
        QCOMPARE(after.mode, before.mode);
        QCOMPARE(after.inode, before.inode);
        QCOMPARE(after.rdev, before.rdev);
        if (target == "full")
            QCOMPARE(now, old);
    }

    // A line that dies under a long run ends it at once with exit 3 and
    // "port P: lost", with or without --seconds. The lines that came before
    // reached the pipe one by one as they were made.
    void deadLine_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::newRow("watch") << QStringList{"params", "watch", "--format", "csv", "--interval", "100"};
        QTest::newRow("watch --seconds") << QStringList{"params", "watch", "--interval", "100", "--seconds", "60"};
        QTest::newRow("monitor") << QStringList{"monitor"};
        QTest::newRow("monitor --seconds") << QStringList{"monitor", "--seconds", "60"};
    }
    void deadLine()
    {
        QFETCH(QStringList, args);
        SimProcess board;
        QVERIFY(board.start({"--mode", "2"}));
        QTemporaryDir home;
        QProcess p;
        startCli(p, args + QStringList{"--port", board.path}, home.path());
        const bool watching = args[0] == "params";
        // Each line arrives while the run goes on: a reader of the pipe gets it at once.
        QStringList got;
        for (int i = 0; i < (watching ? 3 : 1); ++i) {
            got << nextLine(p, 10000);
            QVERIFY2(!got.last().isEmpty(), qPrintable(got.join('|') + p.readAllStandardError()));
        }
        QCOMPARE(p.state(), QProcess::Running);
        if (!watching)
            QCOMPARE(got[0], QString("Serial uart has ben Opened"));
        QElapsedTimer t;
        t.start();
        board.command("close");
        QVERIFY(p.waitForFinished(10000));
        QVERIFY2(t.elapsed() < 3000, qPrintable(QString::number(t.elapsed())));
        QCOMPARE(p.exitCode(), 3);
        const QString err = QString::fromUtf8(p.readAllStandardError());
        QVERIFY2(err.contains("port " + board.path + ": lost"), qPrintable(err));
        QVERIFY2(!err.contains(QRegularExpression(R"(\bQ[A-Z]\w+::)")), qPrintable(err));
        QVERIFY(!QString::fromUtf8(p.readAllStandardOutput()).contains("Open port first"));
    }

    // A board that stops answering ends watch after --timeout with exit 4; one
    // that answers only with bad CRCs is told apart. The monitor shows the
    // failed link as the panel does and goes on.
    void silentBoard_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QByteArray>("fault");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("stream");
        QTest::addColumn<QString>("says");
        const QStringList watch{"params", "watch", "--timeout", "1"};
        QTest::newRow("watch, silent") << watch << QByteArray("silent on") << 4 << "err" << "no answer from the board on SIM after 1 s";
        QTest::newRow("watch, bad CRCs") << watch << QByteArray("fault CorruptCrc -1") << 4 << "err"
                                         << "no good answer from the board on SIM (";
        QTest::newRow("monitor, silent") << QStringList{"monitor", "--seconds", "4"} << QByteArray("silent on") << 0 << "out"
                                         << "Link failure！";
    }
    void silentBoard()
    {
        QFETCH(QStringList, args);
        QFETCH(QByteArray, fault);
        QFETCH(QString, says);
        SimProcess board;
        QVERIFY(board.start({"--mode", "2"}));
        board.command(fault);
        QElapsedTimer t;
        t.start();
        const CliRun r = cli(args + QStringList{"--port", board.path}, dir.path());
        QTEST(r.code, "code");
        QFETCH(QString, stream);
        QVERIFY2((stream == "out" ? r.out : r.err).contains(says.replace("SIM", board.path)), qPrintable(r.out + r.err));
        if (fault.startsWith("fault"))
            QVERIFY2(r.err.contains(QRegularExpression(R"(\(\d+ replies with a bad CRC\))")), qPrintable(r.err));
        QVERIFY(t.elapsed() < 15000);
    }

    // Every signal that ends a burn, and a reader of stdout that went away,
    // leaves the chip in hand recorded as interrupted, its log in the day's
    // record, and exit 5.
    void signalsMidBurn_data()
    {
        QTest::addColumn<int>("sig");
        QTest::newRow("SIGINT") << int(SIGINT);
        QTest::newRow("SIGTERM") << int(SIGTERM);
        QTest::newRow("SIGHUP") << int(SIGHUP);
        QTest::newRow("SIGPIPE: the reader went away") << int(SIGPIPE);
    }
    void signalsMidBurn()
    {
        QFETCH(int, sig);
        SimProcess board;
        QVERIFY(board.start());
        QTemporaryDir home;
        const QStringList burn{PYRO_BIN_DIR "/pyrolink-cli", "burn", "--port", board.path, "--file", kDemo};
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("HOME", home.path());
        p.setProcessEnvironment(env);
        if (sig == SIGPIPE) {
            // The reader takes the first progress line and goes.
            p.start("bash", QStringList{"-c", R"("$@" | grep -m1 -q "chip 1: "; exit "${PIPESTATUS[0]}")", "bash"} + burn);
        } else {
            p.start(burn[0], burn.mid(1));
            QVERIFY(p.waitForStarted(10000));
            QString line;
            while (!(line = nextLine(p, 30000)).isEmpty() && !line.startsWith("chip 1: ")) {
            }
            QVERIFY(line.startsWith("chip 1: "));
            ::kill(pid_t(p.processId()), sig);
        }
        QVERIFY(p.waitForFinished(60000));
        const QString err = QString::fromUtf8(p.readAllStandardError());
        QCOMPARE(p.exitStatus(), QProcess::NormalExit);
        QVERIFY2(p.exitCode() == 5, qPrintable(QString::number(p.exitCode()) + err));
        QVERIFY(err.contains("pyrolink-cli burn: interrupted"));
        QVERIFY2(!err.contains(QRegularExpression(R"(\bQ[A-Z]\w+::)")), qPrintable(err));
        const QStringList chips = chipLines(home.path());
        QCOMPARE(chips.size(), 1);
        const QStringList f = chips[0].split(',');
        QCOMPARE(f.value(9), QString("interrupted"));
        QCOMPARE(f.value(2).size(), 24);
        QVERIFY(QDir(home.filePath("ProRecord(K0)")).entryList({"*(K0).Txt"}).size() == 1);
    }
};

QTEST_GUILESS_MAIN(TstCli)
#include "tst_cli.moc"
