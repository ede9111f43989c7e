#include "burnbench.h"
#include "chipwriter.h"
#include "sqlitestore.h"
#include "statsworker.h"

#include <QCryptographicHash>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QtTest>
#include <csignal>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

using namespace pyro;

namespace {

QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

bool writeAll(const QString &path, const QByteArray &bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size();
}

// A file or folder that not even root may change: the immutable flag, where
// the file system has it and the process may set it. Cleared when it goes.
struct Immutable {
    QStringList paths;
    bool set(const QString &path, bool on)
    {
        const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK);
        if (fd < 0)
            return false;
        int flags = 0;
        bool ok = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
        flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
        ok = ok && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
        ::close(fd);
        if (ok && on)
            paths << path;
        return ok;
    }
    void clear()
    {
        for (const QString &p : std::exchange(paths, {}))
            set(p, false);
    }
    ~Immutable() { clear(); }
};

// Ticks the event loop's clock through a writer's hand-off until cond holds.
bool waitFor(const std::function<bool()> &cond, int ms = 10000)
{
    QElapsedTimer t;
    t.start();
    while (!cond()) {
        if (t.elapsed() > ms)
            return false;
        QThread::msleep(5);
    }
    return true;
}

QList<ChipRow> allRows(const QString &path)
{
    SqliteChipStore::Options o;
    o.create = false;
    SqliteChipStore s(path, o);
    QList<ChipRow> rows;
    if (s.open(nullptr))
        s.select({}, [&](const ChipRow &r) { rows << r; return true; }, nullptr);
    return rows;
}

ChipRow sampleRow(int i, const QString &chip = {})
{
    ChipRow r;
    r.utcMs = QDateTime(QDate(2026, 11, 23), QTime(8, 0), Qt::UTC).toMSecsSinceEpoch() + qint64(i) * 7000;
    r.local = QDateTime::fromMSecsSinceEpoch(r.utcMs).toString("yyyy-MM-dd HH:mm:ss");
    r.station = "BENCH-1";
    r.port = "COM4";
    r.chipId = chip.isEmpty() ? QStringLiteral("%1").arg(i, 24, 16, QLatin1Char('0')).toUpper() : chip;
    r.order = "K700";
    r.image = "/bench/fw.BIN";
    r.length = 3000;
    r.sha256 = QString(64, 'a');
    r.durationMs = 4000 + i % 1000;
    r.retries = i % 3;
    r.result = i % 10 == 9 ? "failed" : "done";
    r.version = "0.1";
    r.key = ChipRowKey(r);
    return r;
}

struct CliRun {
    int code = -1;
    QString out, err;
};

CliRun cli(const QStringList &args)
{
    QProcess p;
    p.start(PYRO_BIN_DIR "/pyrolink-cli", args);
    p.closeWriteChannel();
    if (!p.waitForFinished(60000)) {
        p.kill();
        p.waitForFinished();
        return {};
    }
    return {p.exitCode(), QString::fromUtf8(p.readAllStandardOutput()), QString::fromUtf8(p.readAllStandardError())};
}

// The child of killedWriter: hands rows to a writer as fast as it takes them
// and says how many it handed, until it is killed.
int childWriter(const QString &path, int seed)
{
    ChipWriter w(path);
    w.start();
    for (int i = 0;; ++i) {
        w.append(sampleRow(seed * 1000000 + i));
        printf("%d\n", i + 1);
        fflush(stdout);
        if (i % 20 == 0)
            usleep(1000);
    }
}

// A burn on the simulated board with its chips going to a writer, the clock
// moving with the ticks so that two burns are apart in time.
struct StoreBench : BurnBench {
    QString folder;
    std::unique_ptr<ChipWriter> writer;
    QList<ChipRecord> seen;
    StoreBench() : BurnBench(Simulated)
    {
        folder = dir.filePath("records");
        QDir().mkpath(folder);
        const QDateTime base(QDate(2026, 11, 23), QTime(9, 30, 0));
        link.now = [this, base] { return base.addMSecs(us / 1000); };
        burn.chipLog.folder = folder;
        startWriter();
        burn.chipLog.toStore = [this](const ChipRecord &r) { writer->append(ChipRowFromRecord(r, "BENCH-1", "0.1")); };
        burn.chipLog.onRecord = [this](const ChipRecord &r) { seen << r; };
    }
    void startWriter()
    {
        ChipWriter::Options o{ChipStorePath(folder)};
        o.retryMs = 50;
        writer = std::make_unique<ChipWriter>(o);
        writer->start();
    }
    QString storePath() const { return ChipStorePath(folder); }
    QString csvPath() const { return folder + "/2026.11.23(K0).csv"; }
    // One chip burned to its end.
    bool burnOne()
    {
        const qsizetype before = seen.size();
        if (link.view.Command4Caption != QLatin1String("Stop"))
            program(file(testImage(3000)));
        return runUntil([&] { return seen.size() > before; }) && finish();
    }
    QStringList messages;
    QList<ChipMet> met;
    void collect()
    {
        const ChipWriter::Events e = writer->take();
        messages += e.messages;
        met += e.met;
    }
};

} // namespace

class TstChipStore : public QObject {
    Q_OBJECT
private slots:
    void burnsLeaveTheirCsvLines();
    void importRefusesLineByLine_data();
    void importRefusesLineByLine();
    void importTwiceAddsNothing();
    void queriesAndSummary();
    void keyIsStable();
    void statsMatchTheRows_data();
    void statsMatchTheRows();
    void olderSchemaUpgraded();
    void statsWorkerAnswersTheNewest();
    void storeFaults_data();
    void storeFaults();
    void damagedFileSetAside_data();
    void damagedFileSetAside();
    void pendingSurvivesTheProgram();
    void killedWriter();
    void cliRecords();
};

// Every chip's row holds what its CSV line says, field by field; a chip
// burned twice has both burns and is flagged the second time.
void TstChipStore::burnsLeaveTheirCsvLines()
{
    StoreBench b;
    b.open();
    QVERIFY(b.burnOne());
    simArmFault(*b.sim, SimFault::CorruptCrc, 2, 0x07);
    QVERIFY(b.burnOne());
    QVERIFY(waitFor([&] { return b.writer->pending() == 0; }));
    b.collect();
    QCOMPARE(b.met.size(), 1);
    QCOMPARE(b.met[0].times, 1);
    QCOMPARE(b.met[0].before.result, QString("done"));
    QVERIFY(ChipMetText(b.met[0]).contains(b.met[0].before.local));

    QList<ChipRow> fromCsv;
    QList<CsvRefusal> refused;
    ParseChipCsv(readAll(b.csvPath()), "BENCH-1", &fromCsv, &refused);
    QVERIFY(refused.isEmpty());
    const QList<ChipRow> stored = allRows(b.storePath());
    QCOMPARE(stored.size(), 2);
    QCOMPARE(fromCsv.size(), 2);
    for (int i = 0; i < 2; ++i) {
        const ChipRow &s = stored[i], &c = fromCsv[i];
        QCOMPARE(s.local, c.local);
        QCOMPARE(s.utcMs / 1000, c.utcMs / 1000);
        QCOMPARE(s.port, c.port);
        QCOMPARE(s.chipId, c.chipId);
        QCOMPARE(s.order, c.order);
        QCOMPARE(s.image, c.image);
        QCOMPARE(s.length, c.length);
        QCOMPARE(s.sha256, c.sha256);
        QCOMPARE(s.durationMs, c.durationMs);
        QCOMPARE(s.retries, c.retries);
        QCOMPARE(s.result, c.result);
        QCOMPARE(s.key, c.key);   // so importing the day's CSV adds nothing
        QCOMPARE(s.version, QString("0.1"));
    }
    QCOMPARE(stored[1].retries, 2);
    QCOMPARE(stored[0].chipId, QString::fromLatin1(b.sim->chip.identity.toHex().toUpper()));

    ChipQuery q;
    q.chipId = stored[0].chipId.toLower();
    SqliteChipStore s(b.storePath());
    QVERIFY(s.open(nullptr));
    int n = 0;
    QVERIFY(s.select(q, [&](const ChipRow &) { return ++n; }, nullptr));
    QCOMPARE(n, 2);
    QCOMPARE(s.append(fromCsv, nullptr, nullptr), 0);
}

void TstChipStore::importRefusesLineByLine_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QString>("reason");
    const QByteArray good = "2026-11-23 09:30:05,COM4,0102030405060708090A0B0C,K700,/fw.BIN,3000,"
                            + QByteArray(64, 'b') + ",4.250,1,done";
    QTest::newRow("good") << good << QString();
    QTest::newRow("quoted comma and line end") << QByteArray("2026-11-23 09:30:05,COM4,0102030405060708090A0B0C,\"K7,\n00\",/fw.BIN,3000,"
                                                            + QByteArray(64, 'b') + ",4.250,1,done") << QString();
    QTest::newRow("missing column") << QByteArray(good).replace(",K700", "") << "9 fields";
    QTest::newRow("extra column") << good + ",x" << "11 fields";
    QTest::newRow("bad time") << QByteArray(good).replace("09:30:05", "9:30") << "time '2026-11-23 9:30'";
    QTest::newRow("short identity") << QByteArray(good).replace("0B0C", "0B") << "chip_id";
    QTest::newRow("bad duration") << QByteArray(good).replace("4.250", "4.2501") << "duration_s";
    QTest::newRow("unclosed quote") << QByteArray(good).replace("K700", "\"K700") << "never closed";
}

// A file from elsewhere: each bad line refused with its number, the rest kept.
void TstChipStore::importRefusesLineByLine()
{
    QFETCH(QByteArray, line);
    QFETCH(QString, reason);
    const QByteArray text = ChipCsvHeader().toUtf8() + "\r\n" + line + "\r\n"
        + "2026-11-23 10:00:00,COM5,FFFFFFFFFFFFFFFFFFFFFFFF,,x.BIN,1,"
        + QByteArray(64, 'c') + ",1.000,0,failed\r\n";
    QList<ChipRow> rows;
    QList<CsvRefusal> refused;
    ParseChipCsv(text, "S", &rows, &refused);
    if (reason.isEmpty()) {
        QVERIFY(refused.isEmpty());
        QCOMPARE(rows.size(), 2);
        QCOMPARE(rows[0].durationMs, 4250);
        QCOMPARE(rows[1].result, QString("failed"));
        return;
    }
    QCOMPARE(refused.size(), 1);
    QCOMPARE(refused[0].line, 2);
    QVERIFY2(refused[0].reason.contains(reason), qPrintable(refused[0].reason));
    // An unclosed quote swallows the rest of the file; otherwise the next line is kept.
    QCOMPARE(rows.size(), reason.contains("closed") ? 0 : 1);
}

void TstChipStore::importTwiceAddsNothing()
{
    QTemporaryDir dir;
    QByteArray csv = ChipCsvHeader().toUtf8() + "\r\n";
    for (int i = 0; i < 50; ++i) {
        const ChipRow r = sampleRow(i);
        csv += QStringLiteral("%1,%2,%3,%4,%5,%6,%7,%8,%9,%10\r\n").arg(r.local, r.port, r.chipId, r.order, r.image)
                   .arg(r.length).arg(r.sha256, QString::number(r.durationMs / 1000.0, 'f', 3)).arg(r.retries).arg(r.result).toUtf8();
    }
    const QString file = dir.filePath("day.csv");
    QVERIFY(writeAll(file, csv));
    const QString store = dir.filePath("chips.sqlite");
    const CliRun first = cli({"records", "import", file, "--store", store, "--station", "OLD"});
    QCOMPARE(first.code, 0);
    QVERIFY2(first.out.contains("50 added, 0 stored already, 0 refused"), qPrintable(first.out + first.err));
    const CliRun again = cli({"records", "import", file, file, "--store", store, "--station", "OLD"});
    QCOMPARE(again.code, 0);
    QVERIFY(again.out.contains("0 added, 50 stored already"));
    QCOMPARE(allRows(store).size(), 50);
}

void TstChipStore::queriesAndSummary()
{
    QTemporaryDir dir;
    SqliteChipStore s(dir.filePath("c.sqlite"));
    QVERIFY(s.open(nullptr));
    QList<ChipRow> rows;
    for (int i = 0; i < 100; ++i)
        rows << sampleRow(i);
    rows[50].order = "K7*1";
    rows[51].port = "COM5";
    QCOMPARE(s.append(rows, nullptr, nullptr), 100);
    ChipSummary sum;
    QVERIFY(s.summary({}, &sum, nullptr));
    QCOMPARE(sum.chips, 100);
    QCOMPARE(sum.good, 90);
    QCOMPARE(sum.failed, 10);
    QCOMPARE(sum.retries, 99);
    QCOMPARE(sum.medianDurationMs, 4049);
    // 100 chips from the first one's start to the last one's end.
    QCOMPARE(sum.chipsAnHour(), 100 * 3600000.0 / (99 * 7000 + 4000));

    ChipQuery q;
    q.prefix = true;
    q.order = "K7*";   // a star typed is a star, not a wildcard
    QCOMPARE(s.page(q, std::nullopt, 10, nullptr).size(), 1);
    q = {};
    q.port = "COM5";
    QCOMPARE(s.page(q, std::nullopt, 10, nullptr).value(0).id, rows[51].id == 0 ? 52 : rows[51].id);
    // Pages newest first, each older than the last row of the one before.
    QList<ChipRow> all;
    std::optional<std::pair<qint64, qint64>> after;
    for (;;) {
        const QList<ChipRow> p = s.page({}, after, 30, nullptr);
        if (p.isEmpty())
            break;
        all += p;
        after = std::make_pair(p.last().utcMs, p.last().id);
    }
    QCOMPARE(all.size(), 100);
    QCOMPARE(all.first().chipId, rows[99].chipId);
    QCOMPARE(s.newerThan({}, all.first().id - 3, nullptr).size(), 3);
    QCOMPARE(s.hourly({}, nullptr).size(), 1);
    q = {};
    q.since = rows[10].utcMs;
    q.until = rows[20].utcMs;
    QVERIFY(s.summary(q, &sum, nullptr));
    QCOMPARE(sum.chips, 10);
}

// The key decides what "stored already" means for stores made by earlier
// releases: its digest must never change.
void TstChipStore::keyIsStable()
{
    ChipRow r;
    r.station = "BENCH-1";
    r.local = "2026-11-23 09:30:07";
    r.port = "COM4";
    r.chipId = "00000000000000000000000A";
    r.order = "K700";
    r.image = "/bench/fw.BIN";
    r.length = 3000;
    r.sha256 = QString(64, 'a');
    r.durationMs = 4010;
    r.retries = 1;
    r.result = "done";
    QCOMPARE(ChipRowKey(r).toHex(), QByteArray("8bfd32e5e328954de4f3f918d95e46b6"));
    r.station = QStringLiteral("站");
    r.port.clear();
    r.order = QStringLiteral("订单,\"x\"");
    r.image.clear();
    r.length = 0;
    r.durationMs = 0;
    r.retries = 0;
    r.result = "failed";
    QCOMPARE(ChipRowKey(r).toHex(), QByteArray("148a8035651510d24070481aaec677fc"));
}

void TstChipStore::statsMatchTheRows_data()
{
    QTest::addColumn<QString>("chip");
    QTest::addColumn<QString>("port");
    QTest::addColumn<QString>("order");
    QTest::addColumn<QString>("result");
    QTest::addColumn<qint64>("since");      // minutes after the first chip; -1 none
    QTest::addColumn<qint64>("until");
    QTest::newRow("everything") << "" << "" << "" << "" << -1LL << -1LL;
    QTest::newRow("a span not on the hour") << "" << "" << "" << "" << 97LL << 1001LL;
    QTest::newRow("since only") << "" << "" << "" << "" << 2000LL << -1LL;
    QTest::newRow("until only, inside the first hour") << "" << "" << "" << "" << -1LL << 17LL;
    QTest::newRow("port typed") << "" << "COM1" << "" << "" << -1LL << -1LL;
    QTest::newRow("failed in a span") << "" << "" << "" << "failed" << 300LL << 2500LL;
    QTest::newRow("identity typed") << "00000000000000000000001" << "" << "" << "" << -1LL << -1LL;
    QTest::newRow("an order") << "" << "" << "K2" << "" << -1LL << -1LL;
    QTest::newRow("nothing") << "" << "COM9" << "" << "" << -1LL << -1LL;
}

// The summary and the hourly counts, whichever index answers them, say what
// the rows say when counted one by one.
void TstChipStore::statsMatchTheRows()
{
    QFETCH(QString, chip);
    QFETCH(QString, port);
    QFETCH(QString, order);
    QFETCH(QString, result);
    QFETCH(qint64, since);
    QFETCH(qint64, until);
    QTemporaryDir dir;
    SqliteChipStore s(dir.filePath("c.sqlite"));
    QVERIFY(s.open(nullptr));
    QList<ChipRow> rows;
    const qint64 t0 = QDateTime(QDate(2026, 11, 23), QTime(7, 40), Qt::UTC).toMSecsSinceEpoch();
    QRandomGenerator rng(21);
    for (int i = 0; i < 600; ++i) {
        ChipRow r = sampleRow(i);
        r.utcMs = t0 + qint64(i) * 5 * 60000 + rng.bounded(60000);   // two days and a bit
        r.local = QDateTime::fromMSecsSinceEpoch(r.utcMs).toString("yyyy-MM-dd HH:mm:ss");
        r.port = QStringLiteral("COM%1").arg(1 + rng.bounded(12));
        r.order = QStringLiteral("K%1").arg(i / 200 + 1);
        r.durationMs = 3000 + rng.bounded(5000);
        r.retries = rng.bounded(3);
        r.result = rng.bounded(7) == 0 ? "failed" : "done";
        r.key = ChipRowKey(r);
        rows << r;
    }
    QCOMPARE(s.append(rows, nullptr, nullptr), rows.size());

    ChipQuery q;
    q.prefix = true;
    q.chipId = chip;
    q.port = port;
    q.order = order;
    q.result = result;
    if (since >= 0)
        q.since = t0 + since * 60000;
    if (until >= 0)
        q.until = t0 + until * 60000;
    ChipSummary want;
    QMap<qint64, HourCount> wantHours;
    QList<qint64> durations;
    for (const ChipRow &r : rows) {
        if (!r.chipId.startsWith(chip) || !r.port.startsWith(port) || !r.order.startsWith(order)
            || (!result.isEmpty() && r.result != result) || (q.since && r.utcMs < *q.since) || (q.until && r.utcMs >= *q.until))
            continue;
        const qint64 start = r.utcMs - r.durationMs;
        want.firstMs = want.chips ? std::min(want.firstMs, start) : start;
        want.lastMs = want.chips ? std::max(want.lastMs, r.utcMs) : r.utcMs;
        ++want.chips;
        want.good += r.result == "done";
        want.retries += r.retries;
        durations << r.durationMs;
        HourCount &h = wantHours[r.utcMs / 3600000];
        h.hourMs = r.utcMs / 3600000 * 3600000;
        (r.result == "done" ? h.good : h.failed) += 1;
    }
    want.failed = want.chips - want.good;
    std::sort(durations.begin(), durations.end());
    want.medianDurationMs = durations.isEmpty() ? 0 : durations[(durations.size() - 1) / 2];

    ChipSummary got;
    QList<HourCount> hours;
    QString error;
    QVERIFY2(s.summaryAndHours(q, &got, &hours, &error), qPrintable(error));
    QCOMPARE(got.chips, want.chips);
    QCOMPARE(got.good, want.good);
    QCOMPARE(got.failed, want.failed);
    QCOMPARE(got.retries, want.retries);
    QCOMPARE(got.firstMs, want.firstMs);
    QCOMPARE(got.lastMs, want.lastMs);
    QCOMPARE(got.medianDurationMs, want.medianDurationMs);
    QCOMPARE(hours.size(), wantHours.size());
    int k = 0;
    for (const HourCount &h : std::as_const(wantHours)) {
        QCOMPARE(hours[k].hourMs, h.hourMs);
        QCOMPARE(hours[k].good, h.good);
        QCOMPARE(hours[k].failed, h.failed);
        ++k;
    }
    // The two questions apart give the same answers.
    ChipSummary alone;
    QVERIFY(s.summary(q, &alone, nullptr));
    QCOMPARE(alone.medianDurationMs, got.medianDurationMs);
    QCOMPARE(s.hourly(q, nullptr).size(), hours.size());
}

// A store of the first release: read as it is by a reader, upgraded by a
// writer, its chips kept.
void TstChipStore::olderSchemaUpgraded()
{
    QTemporaryDir dir;
    const QString path = dir.filePath("chips.sqlite");
    {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "first-release");
        db.setDatabaseName(path);
        QVERIFY(db.open());
        QSqlQuery q(db);
        for (const char *const *st = kSqliteSchema[0]; *st; ++st)
            QVERIFY2(q.exec(QString::fromLatin1(*st)), qPrintable(q.lastError().text()));
        QVERIFY(q.exec("PRAGMA user_version = 1"));
        q = QSqlQuery();
        db.close();
    }
    QSqlDatabase::removeDatabase("first-release");
    auto indexes = [&] {
        QStringList names;
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "look");
        db.setDatabaseName(path);
        if (db.open()) {
            QSqlQuery q("SELECT name FROM sqlite_master WHERE type = 'index' AND sql IS NOT NULL ORDER BY name", db);
            while (q.next())
                names << q.value(0).toString();
        }
        db.close();
        db = {};
        QSqlDatabase::removeDatabase("look");
        return names;
    };
    QList<ChipRow> rows;
    for (int i = 0; i < 20; ++i)
        rows << sampleRow(i);
    {
        SqliteChipStore::Options o;
        o.create = false;
        SqliteChipStore reader(path, o);
        QVERIFY(reader.open(nullptr));
        QCOMPARE(reader.version(), 1);
        QCOMPARE(reader.append(rows, nullptr, nullptr), 20);
        ChipSummary sum;
        QVERIFY(reader.summary({}, &sum, nullptr));
        QCOMPARE(sum.chips, 20);
    }
    QCOMPARE(indexes(), QStringList({"chips_chip", "chips_order", "chips_time"}));
    {
        SqliteChipStore writer(path);
        QVERIFY(writer.open(nullptr));
        QCOMPARE(writer.version(), kSqliteSchemaVersion);
        QCOMPARE(writer.append(rows, nullptr, nullptr), 0);
    }
    QCOMPARE(indexes(), QStringList({"chips_chip", "chips_duration", "chips_hour", "chips_order", "chips_time"}));
    QCOMPARE(allRows(path).size(), 20);
}

// The window's summary beside it: a request made while an older one waits or
// runs is the one answered; a store that comes later is found.
void TstChipStore::statsWorkerAnswersTheNewest()
{
    QTemporaryDir dir;
    const QString path = dir.filePath("chips.sqlite");
    QList<ChipStats> answers;
    {
        ChipStatsWorker w([path] { return std::make_unique<SqliteChipStore>(path, SqliteChipStore::Options{false, false, 250}); });
        connect(&w, &ChipStatsWorker::ready, this, [&](const ChipStats &st) { answers << st; });
        w.request({});
        QTRY_VERIFY(!w.waiting());
        QCOMPARE(answers.size(), 1);
        QVERIFY2(answers[0].error.contains("no chip store"), qPrintable(answers[0].error));

        {
            SqliteChipStore s(path);
            QVERIFY(s.open(nullptr));
            QList<ChipRow> rows;
            for (int i = 0; i < 3000; ++i)
                rows << sampleRow(i);
            QCOMPARE(s.append(rows, nullptr, nullptr), 3000);
        }
        answers.clear();
        ChipQuery failed;
        failed.result = "failed";
        for (int i = 0; i < 5; ++i)
            w.request({});
        const quint64 last = w.request(failed);
        QTRY_VERIFY(!w.waiting());
        QThread::msleep(100);
        QCoreApplication::processEvents();
        QCOMPARE(answers.size(), 1);
        QCOMPARE(answers[0].ticket, last);
        QVERIFY2(answers[0].error.isEmpty(), qPrintable(answers[0].error));
        QCOMPARE(answers[0].summary.chips, 300);
        QCOMPARE(answers[0].summary.good, 0);
        QVERIFY(!answers[0].hours.isEmpty());
        w.request({});   // still running when the window goes: its end waits for it
    }
    QCOMPARE(answers.size(), 1);
}

void TstChipStore::storeFaults_data()
{
    QTest::addColumn<QString>("fault");
    QTest::newRow("locked by another program") << "locked";
    QTest::newRow("read-only") << "readonly";
    QTest::newRow("full disk") << "full";
}

// The burn goes on and its CSV line is written; the operator is told once;
// once the fault is gone the chips waiting are stored.
void TstChipStore::storeFaults()
{
    QFETCH(QString, fault);
    StoreBench b;
    Immutable immutable;
    b.open();
    QVERIFY(b.burnOne());
    QVERIFY(waitFor([&] { return b.writer->pending() == 0; }));
    const QString path = b.storePath();
    std::optional<QSqlDatabase> other;
    const QString conn = "other-program";
    if (fault == "locked") {
        other = QSqlDatabase::addDatabase("QSQLITE", conn);
        other->setDatabaseName(path);
        QVERIFY(other->open());
        QVERIFY(QSqlQuery(*other).exec("BEGIN EXCLUSIVE"));
    } else if (fault == "readonly") {
        b.writer.reset();
        if (geteuid() == 0) {
            // Root writes files whatever their permissions say.
            if (!immutable.set(path, true) || !immutable.set(b.folder, true))
                QSKIP("root writes read-only files, and the immutable flag can't be set here");
        } else {
            QFile::setPermissions(path, QFile::ReadOwner);
            QFile::setPermissions(b.folder, QFile::ReadOwner | QFile::ExeOwner);
        }
        b.startWriter();
    } else {
        // Every write of the store's journal fails as on a full disk.
        b.writer.reset();
        QFile::remove(path + "-wal");
        QVERIFY(QFile::link("/dev/full", path + "-wal"));
        b.startWriter();
    }
    for (int i = 0; i < 3; ++i)
        QVERIFY(b.burnOne());
    QCOMPARE(QString::fromUtf8(readAll(b.csvPath())).count("\r\n"), 5);   // header and four chips
    QVERIFY(waitFor([&] { b.collect(); return b.writer->faulty(); }));
    QThread::msleep(200);
    b.collect();
    QCOMPARE(b.messages.size(), 1);
    QVERIFY2(b.messages[0].startsWith("The chip store can't be written: ") && b.messages[0].contains("CSV"), qPrintable(b.messages[0]));
    QCOMPARE(b.writer->pending(), 3);

    if (fault == "locked") {
        QSqlQuery(*other).exec("ROLLBACK");
        other->close();
        other.reset();
        QSqlDatabase::removeDatabase(conn);
    } else if (fault == "readonly") {
        immutable.clear();
        QFile::setPermissions(b.folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner);
    } else {
        QFile::remove(path + "-wal");
    }
    b.writer->retryNow();
    QVERIFY(waitFor([&] { return b.writer->pending() == 0; }));
    b.collect();
    QCOMPARE(b.messages.size(), 2);
    QCOMPARE(b.messages[1], QString("The chip store works again: 3 waiting chip(s) stored."));
    QCOMPARE(allRows(path).size(), 4);
    QVERIFY(!QFile::exists(path + ".pending"));
}

void TstChipStore::damagedFileSetAside_data()
{
    QTest::addColumn<QString>("damage");
    QTest::newRow("cut short") << "cut";
    QTest::newRow("random bytes") << "random";
    QTest::newRow("another program's database") << "foreign";
    QTest::newRow("a newer schema") << "newer";
}

// Never overwritten: set aside with a message, and a fresh store takes the
// chips. A newer program's store is left as it is and the chips wait.
void TstChipStore::damagedFileSetAside()
{
    QFETCH(QString, damage);
    QTemporaryDir dir;
    const QString path = dir.filePath("chips.sqlite");
    {
        SqliteChipStore s(path);
        QVERIFY(s.open(nullptr));
        QList<ChipRow> rows;
        for (int i = 0; i < 3000; ++i)
            rows << sampleRow(i);
        QCOMPARE(s.append(rows, nullptr, nullptr), 3000);
    }
    QByteArray bytes = readAll(path);
    QVERIFY(bytes.size() > 100000);
    if (damage == "cut") {
        bytes.truncate(bytes.size() / 2);
    } else if (damage == "random") {
        for (char &c : bytes)
            c = char(QRandomGenerator::global()->bounded(256));
    } else {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "foreign");
        db.setDatabaseName(dir.filePath("other.db"));
        QVERIFY(db.open());
        QSqlQuery(db).exec(damage == "newer" ? "CREATE TABLE chips (id INTEGER, shape TEXT)" : "CREATE TABLE songs (title TEXT)");
        QSqlQuery(db).exec(damage == "newer" ? "PRAGMA user_version = 9" : "PRAGMA user_version = 3");
        db.close();
        db = {};
        QSqlDatabase::removeDatabase("foreign");
        bytes = readAll(dir.filePath("other.db"));
    }
    QFile::remove(path);
    QVERIFY(writeAll(path, bytes));

    ChipWriter w(path);
    w.start();
    w.append(sampleRow(7));
    ChipWriter::Events e;
    QVERIFY(waitFor([&] { return w.pending() == 0 || w.faulty(); }));
    e = w.take();
    if (damage == "newer") {
        QVERIFY(w.faulty());
        QVERIFY2(e.messages.join("\n").contains("made by a newer Pyrolink (schema 9"), qPrintable(e.messages.join("\n")));
        QCOMPARE(readAll(path), bytes);
        w.stop();
        QCOMPARE(ReadPendingRows(path + ".pending").size(), 1);
        return;
    }
    QCOMPARE(e.stored, 1);
    QCOMPARE(e.messages.size(), 1);
    QVERIFY2(e.messages[0].startsWith("The chip store " + path + " could not be used (") && e.messages[0].contains("set aside as"),
             qPrintable(e.messages[0]));
    const QStringList aside = QDir(dir.path()).entryList({"chips.sqlite.damaged-*"});
    QCOMPARE(aside.size(), 1);
    QCOMPARE(readAll(dir.filePath(aside[0])), bytes);
    QCOMPARE(allRows(path).size(), 1);
}

// Rows the store could not take are in the pending file when the program
// ends, and the next run stores them.
void TstChipStore::pendingSurvivesTheProgram()
{
    QTemporaryDir dir;
    const QString path = dir.filePath("chips.sqlite");
    QVERIFY(QDir().mkpath(path));   // a folder where the store should be
    {
        ChipWriter w(path);
        w.start();
        for (int i = 0; i < 5; ++i)
            w.append(sampleRow(i));
        QVERIFY(waitFor([&] { return w.faulty(); }));
        QVERIFY(w.take().messages.value(0).contains("is not a file"));
    }
    QCOMPARE(ReadPendingRows(path + ".pending").size(), 5);
    {
        // A program killed mid-line: the cut line is passed over, and the
        // next row handed over is not glued onto it.
        QFile f(path + ".pending");
        QVERIFY(f.open(QIODevice::Append));
        f.write("{\"chip_id\":\"53");
    }
    QVERIFY(QDir(path).removeRecursively());
    ChipWriter w(path);
    w.start();
    w.append(sampleRow(5));
    QVERIFY(waitFor([&] { return allRows(path).size() == 6; }));
    QVERIFY(waitFor([&] { return !QFile::exists(path + ".pending"); }));
}

// A writer killed at random points leaves a store that opens sound and holds
// every row it was handed, or has it pending for the next run.
void TstChipStore::killedWriter()
{
    QTemporaryDir dir;
    const QString path = dir.filePath("chips.sqlite");
    int total = 0;
    for (int round = 0; round < 5; ++round) {
        QProcess child;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("PYRO_CHILD_WRITER", path);
        env.insert("PYRO_CHILD_SEED", QString::number(round));
        child.setProcessEnvironment(env);
        child.start(QCoreApplication::applicationFilePath(), {});
        QVERIFY(child.waitForStarted());
        QVERIFY(child.waitForReadyRead(20000));
        QThread::msleep(QRandomGenerator::global()->bounded(20, 400));
        ::kill(pid_t(child.processId()), SIGKILL);
        QVERIFY(child.waitForFinished(10000));
        const QStringList said = QString::fromLatin1(child.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
        const int handed = said.isEmpty() ? 0 : said.last().toInt();
        QVERIFY(handed > 0);

        ChipWriter w(path);
        w.start();
        QVERIFY(waitFor([&] { return !QFile::exists(path + ".pending"); }));
        w.stop();
        const ChipWriter::Events e = w.take();
        QVERIFY2(e.messages.isEmpty(), qPrintable(e.messages.join("\n")));
        const int stored = int(allRows(path).size());
        QVERIFY2(stored - total >= handed, qPrintable(QString("%1 handed, %2 stored").arg(handed).arg(stored - total)));
        total = stored;
    }
}

// Usage errors exit 2 with the reason; queries answer in each format.
void TstChipStore::cliRecords()
{
    QTemporaryDir dir;
    const QString store = dir.filePath("chips.sqlite");
    {
        SqliteChipStore s(store);
        QVERIFY(s.open(nullptr));
        QList<ChipRow> rows;
        for (int i = 0; i < 20; ++i)
            rows << sampleRow(i, i % 2 ? QString() : "00000000000000000000ABCD");
        QCOMPARE(s.append(rows, nullptr, nullptr), 20);
    }
    const CliRun bad1 = cli({"records", "--store", store, "--chip", "12AB"});
    QCOMPARE(bad1.code, 2);
    QVERIFY(bad1.err.contains("--chip: '12AB' is not a chip identity (24 hex digits)"));
    const CliRun bad2 = cli({"records", "--store", store, "--since", "yesterday"});
    QCOMPARE(bad2.code, 2);
    QVERIFY(bad2.err.contains("--since: 'yesterday' is not a time"));
    QCOMPARE(cli({"records", "--store", store, "--format", "xml"}).code, 2);
    QCOMPARE(cli({"records", "import", "--store", store}).code, 2);
    QCOMPARE(cli({"records", "--store", dir.filePath("none.sqlite")}).code, 1);
    QVERIFY(!QFile::exists(dir.filePath("none.sqlite")));

    const CliRun chip = cli({"records", "--store", store, "--chip", "00000000000000000000abcd", "--format", "csv"});
    QCOMPARE(chip.code, 0);
    const QStringList lines = chip.out.split('\n', Qt::SkipEmptyParts);
    QCOMPARE(lines.size(), 11);
    QCOMPARE(lines[0], CsvJoin(ChipRowHeader()));
    const CliRun sum = cli({"records", "--store", store, "--summary", "--format", "json", "--result", "done"});
    QCOMPARE(sum.code, 0);
    const QJsonObject o = QJsonDocument::fromJson(sum.out.toUtf8()).object();
    QCOMPARE(o["chips"].toInt(), 18);
    QCOMPARE(o["yield"].toDouble(), 1.0);
    const CliRun json = cli({"records", "--store", store, "--order", "K700", "--port", "COM4", "--format", "json",
                             "--since", "2000-01-01", "--until", "2100-01-01"});
    QCOMPARE(json.out.count('\n'), 20);
}

int main(int argc, char **argv)
{
    const QByteArray child = qgetenv("PYRO_CHILD_WRITER");
    if (!child.isEmpty()) {
        QCoreApplication app(argc, argv);
        return childWriter(QString::fromLocal8Bit(child), qEnvironmentVariableIntValue("PYRO_CHILD_SEED"));
    }
    QCoreApplication app(argc, argv);
    TstChipStore t;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&t, argc, argv);
}

#include "tst_chipstore.moc"
