#include "burn.h"
#include "burnbench.h"
#include "infoblock.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>
#include <sys/stat.h>

using namespace pyro;

namespace {
QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}
const QString kRule(94, QLatin1Char('='));

// The fields of one CSV line as a spreadsheet reads them: a field in double
// quotes may hold commas, and "" inside it is one quote.
QStringList csvFields(const QString &line)
{
    QStringList out{QString()};
    bool quoted = false;
    for (int i = 0; i < line.size(); ++i) {
        const QChar c = line[i];
        if (quoted && c == '"' && i + 1 < line.size() && line[i + 1] == '"')
            out.last() += line[++i];
        else if (c == '"')
            quoted = !quoted;
        else if (c == ',' && !quoted)
            out << QString();
        else
            out.last() += c;
    }
    return out;
}
} // namespace

class TstRecords : public QObject {
    Q_OBJECT
private slots:
    void appendsInGbk();
    void defaultFolderAndFailures();
    void chipRecord_data();
    void chipRecord();
    void everyEndingOneLine_data();
    void everyEndingOneLine();
    void twoBurnsTwoLines();
    void recordTargetsRefused();
};

namespace {
// A bench whose clock runs with its ticks, whose chip lines are kept as they come.
struct TimedBench : BurnBench {
    QList<ChipRecord> seen;
    TimedBench() : BurnBench(Simulated)
    {
        link.now = [this] { return QDateTime(QDate(2026, 11, 23), QTime(9, 30)).addMSecs(us / 1000); };
        burn.chipLog.folder = dir.filePath("records");
        burn.chipLog.onRecord = [this](const ChipRecord &r) { seen << r; };
    }
    QStringList csvLines() const
    {
        return QString::fromUtf8(readAll(burn.chipLog.folder + "/2026.11.23(K0).csv")).split("\r\n", Qt::SkipEmptyParts);
    }
    // Ticks until the chip in hand is a page into its image.
    bool midBurn() { return runUntil([this] { return burn.chipLog.active && burn.BinDone >= 1024; }); }
};
QString hexId(const QByteArray &id)
{
    return QString::fromLatin1(id.toHex().toUpper());
}
} // namespace

// Two closings on one day: one file named for the day, two entries; a closing
// after midnight goes whole into the new day's file. The folder is made when missing.
void TstRecords::appendsInGbk()
{
    QTemporaryDir tmp;
    const QString folder = tmp.filePath("deep/ProRecord(K0)");
    const QString log = "2026-11-23 09:30:00 Downloading the：1 (chip)\r\n"
                        "2026-11-23 09:30:09 Has been successfully burning：1 (chip) /bench/固件.BIN\r\n";
    const QDateTime first(QDate(2026, 11, 23), QTime(9, 31, 2));
    QVERIFY(AppendBurnRecord(folder, first, log));
    QVERIFY(AppendBurnRecord(folder, first.addSecs(3600), QString()));
    const QByteArray bytes = readAll(folder + "/2026.11.23(K0).Txt");
    const QString expected = "2026/11/23 9:31:02" + kRule + "\r\n" + log + "\r\n"
        + "2026/11/23 10:31:02" + kRule + "\r\n" + "\r\n";
    QCOMPARE(bytes, toGbk(expected));
    QVERIFY(bytes.contains(QByteArray::fromHex("b9ccbcfe")));   // 固件 in GBK, not UTF-8

    QVERIFY(AppendBurnRecord(folder, QDateTime(QDate(2026, 11, 24), QTime(0, 0, 5)), log));
    QVERIFY(fromGbk(readAll(folder + "/2026.11.24(K0).Txt")).endsWith(log + "\r\n"));
    QCOMPARE(readAll(folder + "/2026.11.23(K0).Txt"), bytes);
}

void TstRecords::defaultFolderAndFailures()
{
    QTemporaryDir home;
    const QByteArray oldHome = qgetenv("HOME");
    qputenv("HOME", QFile::encodeName(home.path()));
    Link l;
    l.now = [] { return QDateTime(QDate(2026, 1, 5), QTime(8, 0, 0)); };
    l.view.RTB = "2026-01-05 08:00:00 Cancel program\r\n";
    QVERIFY(WriteBurnRecord(l));
    QVERIFY(fromGbk(readAll(home.path() + "/ProRecord(K0)/2026.1.5(K0).Txt")).endsWith(l.view.RTB + "\r\n"));

    // A folder that can't be made: nothing written, nothing thrown.
    QFile blocker(home.filePath("file"));
    QVERIFY(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    QVERIFY(!AppendBurnRecord(home.filePath("file/ProRecord(K0)"), l.now(), l.view.RTB));

    // A disk that is full: the day's file leads to /dev/full, where every write fails.
    if (QFile::exists("/dev/full")) {
        const QString full = home.filePath("full");
        QVERIFY(QDir().mkpath(full));
        QVERIFY(QFile::link("/dev/full", full + "/2026.1.5(K0).Txt"));
        QVERIFY(!AppendBurnRecord(full, l.now(), l.view.RTB));
    }
    qputenv("HOME", oldHome);
}

// One line per chip in the companion file, whatever became of the chip:
// retries counted from the answers the burn had to ask again, the time from
// the chip's first request to enter download.
void TstRecords::chipRecord_data()
{
    QTest::addColumn<int>("fault");      // SimFault, armed on function fn
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("fn");
    QTest::addColumn<bool>("stop");       // Stop clicked half-way
    QTest::addColumn<QString>("result");
    QTest::addColumn<int>("retries");
    QTest::addColumn<QString>("order");   // as typed in box 5
    QTest::addColumn<QString>("field");   // as the CSV line holds it
    // A quote is doubled and the field quoted; a field with a comma is quoted.
    QTest::newRow("clean") << int(SimFault::None) << 0 << -1 << false << "done" << 0
                           << R"(Lot "A" 7)" << R"("Lot ""A"" 7")";
    QTest::newRow("bad CRC on writes") << int(SimFault::CorruptCrc) << 3 << 0x07 << false << "done" << 3 << "7,bay 2" << R"("7,bay 2")";
    QTest::newRow("refused writes restart the page") << int(SimFault::Refuse) << 2 << 0x07 << false << "done" << 2 << "BENCH-7" << "BENCH-7";
    // Asked again, entering download goes on with the chip begun.
    QTest::newRow("entering download refused once") << int(SimFault::Refuse) << 1 << 0x03 << false << "done" << 1 << "BENCH-7" << "BENCH-7";
    // The good answer to entering download counts toward the limit too.
    QTest::newRow("erase always refused") << int(SimFault::Refuse) << -1 << 0x05 << false << "failed" << kBurnRetryLimit - 1 << "BENCH-7" << "BENCH-7";
    QTest::newRow("stopped") << int(SimFault::None) << 0 << -1 << true << "stopped" << 0 << "BENCH-7" << "BENCH-7";
}

void TstRecords::chipRecord()
{
    QFETCH(int, fault);
    QFETCH(QString, result);
    QFETCH(QString, order);
    BurnBench b(BurnBench::Simulated);
    const QDateTime day(QDate(2026, 11, 23), QTime(9, 30, 0));
    b.link.now = [&] { return day.addMSecs(b.us / 1000); };
    b.link.view.NotesTxt[5] = order;
    b.burn.chipLog.folder = b.dir.filePath("records");
    QList<ChipRecord> seen;
    b.burn.chipLog.onRecord = [&](const ChipRecord &r) { seen << r; };
    QFETCH(int, count);
    QFETCH(int, fn);
    if (fault != int(SimFault::None))
        simArmFault(*b.sim, SimFault(fault), count, fn);
    const QString path = b.start(3000);
    QVERIFY(b.runUntil([&] { return b.sent(kFnEnterDownload) > 0; }));
    const QDateTime begun = b.link.now();
    QFETCH(bool, stop);
    if (stop) {
        QVERIFY(b.runUntil([&] { return b.burn.BinDone >= 1024; }));
        Command4Click(b.link, b.burn);
    }
    QVERIFY(b.runUntil([&] { return !seen.isEmpty(); }));
    Command4Click(b.link, b.burn);   // no second round of the refused chip

    QCOMPARE(seen.size(), 1);
    const ChipRecord &r = seen[0];
    QCOMPARE(r.result, result);
    QTEST(r.retries, "retries");
    QVERIFY(r.when > begun);
    QCOMPARE(r.durationMs, begun.msecsTo(r.when));
    QCOMPARE(QByteArray(reinterpret_cast<const char *>(r.chipId.data()), 12), b.sim->chip.identity);
    QCOMPARE(r.sha256, QCryptographicHash::hash(b.stamped(), QCryptographicHash::Sha256));
    const QString csv = QString::fromUtf8(readAll(b.burn.chipLog.folder + "/2026.11.23(K0).csv"));
    QCOMPARE(csv, ChipCsvHeader() + "\r\n" + ChipCsvLine(r) + "\r\n");
    QFETCH(QString, field);
    QVERIFY(ChipCsvLine(r).contains("," + field + ","));
    QCOMPARE(csvFields(ChipCsvLine(r)),
             (QStringList{r.when.toString("yyyy-MM-dd HH:mm:ss"), "/dev/fake0", QString::fromLatin1(b.sim->chip.identity.toHex().toUpper()),
                          order, path, "3000", QString::fromLatin1(r.sha256.toHex()),
                          QString::number(r.durationMs / 1000.0, 'f', 3), QString::number(r.retries), result}));
}

// Whatever cuts a burn short, the chip in hand gets one line, with its own
// identity (none when it never told one) and its own duration.
void TstRecords::everyEndingOneLine_data()
{
    QTest::addColumn<QString>("action");
    QTest::addColumn<QString>("result");
    QTest::addColumn<bool>("identified");
    QTest::newRow("Stop") << "stop" << "stopped" << true;
    QTest::newRow("CloseUart") << "close" << "port closed" << true;
    QTest::newRow("frame length changed") << "frame" << "port closed" << true;
    QTest::newRow("port box changed") << "port" << "port closed" << true;
    QTest::newRow("AutoDetect") << "scan" << "port closed" << true;
    QTest::newRow("port lost") << "lost" << "port lost" << true;
    QTest::newRow("Load File") << "load" << "cut short" << true;
    QTest::newRow("Load File cancelled") << "cancel" << "cut short" << true;
    QTest::newRow("chip without identity, Stop") << "noid" << "stopped" << false;
}

void TstRecords::everyEndingOneLine()
{
    QFETCH(QString, action);
    TimedBench b;
    if (action == "noid")
        simArmFault(*b.sim, SimFault::NoIdentity, -1, -1);
    const QString path = b.start(3000);
    QVERIFY(b.midBurn());
    const qint64 cutAt = b.us / 1000;
    if (action == "stop" || action == "noid")
        Command4Click(b.link, b.burn);
    else if (action == "close")
        Command2Click(b.link);
    else if (action == "frame" || action == "port") {
        b.link.view.ComboSet[action == "frame" ? 5 : 0].text = action == "frame" ? "256" : "COM9";
        ComboSetChange(b.link, action == "frame" ? 5 : 0);
    } else if (action == "scan")
        AutoDetect(b.link, {});
    else if (action == "lost")
        b.port.vanish();
    else if (action == "load")
        ChooseFile(b.link, b.burn, path);
    else if (action == "cancel")
        ChooseFile(b.link, b.burn, QString());
    b.ticks(300);

    QCOMPARE(b.seen.size(), 1);
    const ChipRecord &r = b.seen[0];
    QTEST(r.result, "result");
    QFETCH(bool, identified);
    QCOMPARE(ChipIdText(r), identified ? hexId(b.sim->chip.identity) : QString());
    QVERIFY(r.durationMs > 0 && r.durationMs <= cutAt + 15);
    const QStringList csv = b.csvLines();
    QCOMPARE(csv.size(), 2);
    QCOMPARE(csv[1], ChipCsvLine(r));
    QCOMPARE(csv[1].section(',', 2, 2), ChipIdText(r));
}

// Program, CloseUart, a new chip, Program, Stop: two lines, each about its
// own chip and its own time; nothing of the first burn leaks into the second.
void TstRecords::twoBurnsTwoLines()
{
    TimedBench b;
    const QByteArray first = b.sim->chip.identity;
    b.start(3000);
    QVERIFY(b.midBurn());
    Command2Click(b.link);
    b.ticks(100);
    const QByteArray second = QByteArray::fromHex("0102030405060708090A0B0C");
    simSwapChip(*b.sim, second);
    b.open();
    b.ticks(20);
    const qint64 againAt = b.us / 1000;
    Command4Click(b.link, b.burn);
    QVERIFY(b.midBurn());
    Command4Click(b.link, b.burn);
    const qint64 stopAt = b.us / 1000;
    b.ticks(100);

    QCOMPARE(b.seen.size(), 2);
    QCOMPARE(b.seen[0].result, QString("port closed"));
    QCOMPARE(ChipIdText(b.seen[0]), hexId(first));
    QCOMPARE(b.seen[1].result, QString("stopped"));
    QCOMPARE(ChipIdText(b.seen[1]), hexId(second));
    QVERIFY(b.seen[0].when.toMSecsSinceEpoch() <= b.seen[1].when.toMSecsSinceEpoch() - b.seen[1].durationMs);
    QVERIFY(b.seen[1].durationMs > 0 && b.seen[1].durationMs <= stopAt - againAt);
    QCOMPARE(b.csvLines().size(), 3);
}

// A record file that is a FIFO or a device is refused with the reason and
// left as it is: no line goes astray, nothing blocks.
void TstRecords::recordTargetsRefused()
{
    QTemporaryDir dir;
    const QDateTime when(QDate(2026, 11, 23), QTime(9, 30));
    QVERIFY(::mkfifo(QFile::encodeName(dir.filePath("2026.11.23(K0).csv")).constData(), 0600) == 0);
    QVERIFY(QFile::link("/dev/null", dir.filePath("2026.11.23(K0).Txt")));
    ChipRecord r;
    r.when = when;
    r.result = "done";
    QString why;
    QVERIFY(!AppendChipRecord(dir.path(), r, &why));
    QVERIFY2(why.endsWith("not a regular file (a FIFO)"), qPrintable(why));
    QVERIFY(!AppendBurnRecord(dir.path(), when, "a line"));
    QVERIFY(QFileInfo(dir.filePath("2026.11.23(K0).csv")).exists());
    QCOMPARE(QFileInfo(dir.filePath("2026.11.23(K0).Txt")).symLinkTarget(), QString("/dev/null"));
}

QTEST_GUILESS_MAIN(TstRecords)
#include "tst_records.moc"
