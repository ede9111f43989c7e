// bench-pgstore [CHIPS]: starts a PostgreSQL server of its own (as the tests
// do), lets eight station processes hand chips to their writers at once and
// measures the chips stored a second and the time from a chip's end to its
// row being visible; then fills the line's store to CHIPS rows (1,000,000 by
// default) and measures a chip's history and an order's summary. Prints
// figures; asserts nothing.
#include "chipwriter.h"
#include "pgserver.h"
#include "pgstore.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTextStream>
#include <QThread>
#include <algorithm>

using namespace pyro;

namespace {

QTextStream out(stdout);

constexpr qint64 kYearStart = 1767225600000;   // 2026-01-01 00:00 UTC

// As bench-records fills its store: a year of a busy line.
ChipRow chip(qint64 i, qint64 total)
{
    ChipRow r;
    const qint64 perDay = std::max<qint64>(1, total / 365);
    const qint64 day = i / perDay, inDay = i % perDay;
    r.utcMs = kYearStart + day * 86400000 + 6 * 3600000 + inDay * (8 * 3600000 / perDay);
    r.local = QDateTime::fromMSecsSinceEpoch(r.utcMs).toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    r.station = QStringLiteral("BENCH-%1").arg(i % 8 + 1);
    r.port = QStringLiteral("COM%1").arg(i % 8 + 1);
    const qint64 id = i % 50 == 49 ? i / 2 : i;   // every fiftieth a board come back
    r.chipId = QStringLiteral("%1").arg(quint64(id) * 2654435761ULL % 0xFFFFFFFFFFFFULL, 24, 16, QLatin1Char('0')).toUpper();
    r.order = QStringLiteral("K%1").arg(700 + day / 2);
    r.image = QStringLiteral("/bench/firmware-%1.BIN").arg(day / 30);
    r.length = 24576;
    r.sha256 = QString::fromLatin1(QByteArray::number(day / 30).repeated(64).left(64));
    r.durationMs = 6000 + (i * 7919) % 3000;
    r.retries = i % 17 == 0 ? 1 : 0;
    r.result = i % 40 == 0 ? QStringLiteral("failed") : QStringLiteral("done");
    r.version = QStringLiteral("0.1");
    r.key = ChipRowKey(r);
    return r;
}

// A station: hands `chips` chips to its writer, `perSecond` a second (0: at
// once), each stamped with the moment it is handed over, then prints the
// longest and the mean hand-off in microseconds.
int station(int n, const QString &url, int chips, int perSecond, const QString &folder)
{
    LineStoreConfig line;
    QString error;
    if (!ParseRecordsUrl(url, &line, &error))
        return 2;
    ChipWriter::Options o(ChipStorePath(folder));
    o.line = line;
    ChipWriter w(o);
    w.start();
    QElapsedTimer clock;
    clock.start();
    qint64 longest = 0, sum = 0;
    for (int i = 0; i < chips; ++i) {
        if (perSecond > 0) {
            const qint64 due = qint64(i) * 1000000 / perSecond;
            while (clock.nsecsElapsed() / 1000 < due)
                QThread::usleep(200);
        }
        // Its end is now, and it is a chip of its own: no row of an earlier
        // run is the same burn (the key would leave it out).
        ChipRow r = chip(i, chips);
        r.station = QStringLiteral("STATION-%1").arg(n);
        r.utcMs = QDateTime::currentMSecsSinceEpoch();
        r.local = QDateTime::fromMSecsSinceEpoch(r.utcMs).toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
        r.chipId = QStringLiteral("%1%2").arg(n, 8, 16, QLatin1Char('0')).arg(r.utcMs * 1000 + i % 1000, 16, 16, QLatin1Char('0')).toUpper();
        r.key = ChipRowKey(r);
        QElapsedTimer t;
        t.start();
        w.append(r);
        const qint64 us = t.nsecsElapsed() / 1000;
        longest = std::max(longest, us);
        sum += us;
    }
    while (w.pending() > 0)
        QThread::msleep(5);
    w.stop();
    printf("%lld %lld %d\n", longest, chips ? sum / chips : 0, w.faulty() ? 1 : 0);
    return 0;
}

// Eight stations at once; the rows watched as they become visible.
void eightStations(PgServer &pg, const QString &url, int chips, int perSecond)
{
    PgChipStore watch(pg.config(QStringLiteral("line")));
    QString error;
    if (!watch.open(&error)) {
        out << error << "\n";
        return;
    }
    qint64 lastId = 0;
    for (const ChipRow &r : watch.newerThan({}, 0, &error))
        lastId = std::max(lastId, r.id);
    QList<QProcess *> kids;
    QTemporaryDir folders;
    QElapsedTimer wall;
    wall.start();
    for (int n = 0; n < 8; ++n) {
        auto *p = new QProcess;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("PYRO_BENCH_STATION"), QString::number(n + 1));
        env.insert(QStringLiteral("PYRO_BENCH_URL"), url);
        env.insert(QStringLiteral("PYRO_BENCH_CHIPS"), QString::number(chips));
        env.insert(QStringLiteral("PYRO_BENCH_RATE"), QString::number(perSecond));
        env.insert(QStringLiteral("PYRO_BENCH_FOLDER"), folders.filePath(QString::number(n)));
        p->setProcessEnvironment(env);
        p->start(QCoreApplication::applicationFilePath(), {});
        kids << p;
    }
    QList<qint64> latency;
    qint64 firstSeen = -1, lastSeen = 0;
    const qint64 expected = qint64(chips) * 8;
    while (latency.size() < expected && wall.elapsed() - lastSeen < 60000) {
        const QList<ChipRow> fresh = watch.newerThan({}, lastId, &error);
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        for (const ChipRow &r : fresh) {
            lastId = std::max(lastId, r.id);
            latency << now - r.utcMs;
        }
        if (!fresh.isEmpty()) {
            if (firstSeen < 0)
                firstSeen = wall.elapsed();
            lastSeen = wall.elapsed();
        }
        if (!watch.isOpen())
            watch.open(&error);
        QThread::msleep(10);
    }
    qint64 longest = 0, meanSum = 0;
    int faulty = 0;
    for (QProcess *p : kids) {
        p->waitForFinished(120000);
        const QList<QByteArray> f = p->readAllStandardOutput().trimmed().split(' ');
        longest = std::max(longest, f.value(0).toLongLong());
        meanSum += f.value(1).toLongLong();
        faulty += f.value(2).toInt();
        delete p;
    }
    std::sort(latency.begin(), latency.end());
    const auto pct = [&](double p) { return latency.isEmpty() ? 0 : latency[qsizetype(p * double(latency.size() - 1))]; };
    const double span = std::max<qint64>(1, lastSeen - firstSeen) / 1000.0;
    out << "  " << latency.size() << " of " << expected << " rows visible; "
        << QString::number(double(latency.size()) / span, 'f', 0) << " chips stored a second over " << QString::number(span, 'f', 1)
        << " s\n  end to visible: median " << pct(0.5) << " ms, 99% " << pct(0.99) << " ms, longest " << (latency.isEmpty() ? 0 : latency.last())
        << " ms\n  a station's hand-off to its writer: mean " << meanSum / 8 << " us, longest " << longest << " us"
        << (faulty ? QStringLiteral(" (%1 writer(s) faulty)").arg(faulty) : QString()) << "\n";
    out.flush();
}

double ms(const QElapsedTimer &t)
{
    return double(t.nsecsElapsed()) / 1e6;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (qEnvironmentVariableIsSet("PYRO_BENCH_STATION"))
        return station(qEnvironmentVariableIntValue("PYRO_BENCH_STATION"), qEnvironmentVariable("PYRO_BENCH_URL"),
                       qEnvironmentVariableIntValue("PYRO_BENCH_CHIPS"), qEnvironmentVariableIntValue("PYRO_BENCH_RATE"),
                       qEnvironmentVariable("PYRO_BENCH_FOLDER"));
    const qint64 total = argc > 1 ? QByteArray(argv[1]).toLongLong() : 1000000;
    PgServer pg;
    pg.extra = {QStringLiteral("-c"), QStringLiteral("shared_buffers=256MB")};
    if (!pg.init({}) || !pg.start()) {
        out << "no server: " << pg.error << "\n";
        return 1;
    }
    if (const QString e = pg.admin(QStringLiteral("postgres"), {QStringLiteral("CREATE DATABASE line")}); !e.isEmpty()) {
        out << e << "\n";
        return 1;
    }
    const QString url = pg.config(QStringLiteral("line")).url();
    out << "PostgreSQL server in " << pg.socketDir() << " (" << pg.bin << "), " << url << "\n";
    out << "eight stations, 20 chips a second each for 15 s:\n";
    out.flush();
    eightStations(pg, url, 300, 20);
    out << "eight stations, 2,000 chips each handed over at once:\n";
    out.flush();
    eightStations(pg, url, 2000, 0);

    PgChipStore store(pg.config(QStringLiteral("line")));
    QString error;
    if (!store.open(&error)) {
        out << error << "\n";
        return 1;
    }
    out << "filling the line's store with " << total << " chips (as records copy does, 5,000 a transaction)\n";
    out.flush();
    QElapsedTimer t;
    t.start();
    for (qint64 i = 0; i < total; i += 5000) {
        QList<ChipRow> rows;
        for (qint64 j = i; j < std::min(total, i + 5000); ++j)
            rows << chip(j, total);
        if (store.append(rows, nullptr, &error) < 0) {
            out << error << "\n";
            return 1;
        }
    }
    out << "  " << QString::number(double(total) / (ms(t) / 1000.0), 'f', 0) << " rows a second\n";
    pg.admin(QStringLiteral("line"), {QStringLiteral("VACUUM ANALYZE chips")});
    ChipSummary all;
    store.summary({}, &all, &error);
    out << "  " << all.chips << " rows in the store\n";

    // A chip's history, as records --chip asks it.
    QList<double> times;
    for (int k = 0; k < 200; ++k) {
        ChipQuery q;
        q.chipId = chip(qint64(k) * 4999 % total, total).chipId;
        t.restart();
        int n = 0;
        store.select(q, [&](const ChipRow &) { ++n; return true; }, &error);
        times << ms(t);
    }
    std::sort(times.begin(), times.end());
    out << "a chip's history: median " << QString::number(times[100], 'f', 2) << " ms, longest "
        << QString::number(times.last(), 'f', 2) << " ms (200 chips)\n";
    times.clear();
    for (int k = 0; k < 20; ++k) {
        ChipQuery q;
        q.order = chip(qint64(k) * 48611 % total, total).order;
        ChipSummary s;
        t.restart();
        store.summary(q, &s, &error);
        times << ms(t);
        if (k == 0)
            out << "an order's summary (" << q.order << ", " << s.chips << " chips): ";
    }
    std::sort(times.begin(), times.end());
    out << "median " << QString::number(times[10], 'f', 1) << " ms, longest " << QString::number(times.last(), 'f', 1) << " ms (20 orders)\n";
    ChipQuery day;
    day.since = chip(total / 2, total).utcMs - 6 * 3600000;
    day.until = *day.since + 86400000;
    ChipSummary s;
    t.restart();
    store.summary(day, &s, &error);
    out << "a day's summary (" << s.chips << " chips): " << QString::number(ms(t), 'f', 1) << " ms\n";
    t.restart();
    const QList<ChipRow> first = store.page({}, std::nullopt, 200, &error);
    out << "the history window's first page (" << first.size() << " rows): " << QString::number(ms(t), 'f', 1) << " ms\n";
    t.restart();
    store.summary({}, &s, &error);
    out << "the whole store's summary: " << QString::number(ms(t), 'f', 0) << " ms\n";
    store.close();
    pg.stop();
    return 0;
}
