// bench-records [CHIPS] [FOLDER]: fills a chip store with CHIPS chips
// (1,000,000 by default) as a year of a busy bench, then measures what the
// line and the operator wait for. Prints figures; asserts nothing.
#include "burn.h"
#include "chiphistory.h"
#include "sqlitestore.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QRandomGenerator>
#include <QTableView>
#include <QTemporaryDir>
#include <QProcess>
#include <QTextStream>
#include <algorithm>
#include <numeric>
#include <sys/resource.h>

using namespace pyro;

namespace {

QTextStream out(stdout);

constexpr qint64 kYearStart = 1767225600000;   // 2026-01-01 00:00 UTC

ChipRow chip(qint64 i, qint64 total)
{
    ChipRow r;
    // Spread over 365 days, eight working hours a day.
    const qint64 perDay = std::max<qint64>(1, total / 365);
    const qint64 day = i / perDay, inDay = i % perDay;
    r.utcMs = kYearStart + day * 86400000 + 6 * 3600000 + inDay * (8 * 3600000 / perDay);
    r.local = QDateTime::fromMSecsSinceEpoch(r.utcMs).toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    r.station = QStringLiteral("BENCH-%1").arg(i % 4 + 1);
    r.port = QStringLiteral("COM%1").arg(i % 8 + 1);
    // Most chips once, every fiftieth a board come back.
    const qint64 id = i % 50 == 49 ? i / 2 : i;
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

QString csvLine(const ChipRow &r)
{
    return QStringLiteral("%1,%2,%3,%4,%5,%6,%7,%8,%9,%10\r\n").arg(r.local, r.port, r.chipId, r.order, r.image)
        .arg(r.length).arg(r.sha256, QString::number(r.durationMs / 1000.0, 'f', 3)).arg(r.retries).arg(r.result);
}

// User and system time of the children waited for so far.
double childCpuSeconds()
{
    rusage u{};
    getrusage(RUSAGE_CHILDREN, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

qint64 diskSize(const QString &path)
{
    return QFileInfo(path).size() + QFileInfo(path + "-wal").size();
}

} // namespace

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", QByteArrayLiteral("offscreen"));
    QApplication app(argc, argv);
    const qint64 total = argc > 1 ? QByteArray(argv[1]).toLongLong() : 1000000;
    QTemporaryDir tmp;
    const QString folder = argc > 2 ? QString::fromLocal8Bit(argv[2]) : tmp.path();
    QDir().mkpath(folder);
    const QString path = ChipStorePath(folder);
    QFile::remove(path);

    out << "chip store with " << total << " chips in " << QDir::toNativeSeparators(path) << "\n";
    SqliteChipStore store(path);
    QString error;
    if (!store.open(&error)) {
        out << error << "\n";
        return 1;
    }
    QElapsedTimer t;
    t.start();
    for (qint64 i = 0; i < total;) {
        QList<ChipRow> batch;
        for (int k = 0; k < 20000 && i < total; ++k, ++i)
            batch << chip(i, total);
        if (store.append(batch, nullptr, &error) < 0) {
            out << error << "\n";
            return 1;
        }
    }
    out << QStringLiteral("  filled in batches of 20,000: %1 s (%2 chips/s)\n")
               .arg(t.elapsed() / 1000.0, 0, 'f', 1).arg(qint64(total * 1000.0 / std::max<qint64>(1, t.elapsed())));

    // One chip at a time, as the writer stores them on a quiet line.
    const int adds = 5000;
    QList<double> each;
    int metCount = 0;
    for (int k = 0; k < adds; ++k) {
        ChipRow r = chip(total + k, total);
        QList<ChipMet> met;
        QElapsedTimer one;
        one.start();
        if (store.append({r}, &met, &error) < 0) {
            out << error << "\n";
            return 1;
        }
        each << one.nsecsElapsed() / 1e6;
        metCount += int(met.size());
    }
    std::sort(each.begin(), each.end());
    out << QStringLiteral("  adding a chip (own transaction, met-again check): %1 ms on average, median %2 ms, "
                          "99th percentile %3 ms (%4 met again)\n")
               .arg(std::accumulate(each.begin(), each.end(), 0.0) / adds, 0, 'f', 3)
               .arg(each[adds / 2], 0, 'f', 3).arg(each[adds * 99 / 100], 0, 'f', 3).arg(metCount);

    int found = 0;
    const int histories = 1000;
    t.restart();
    for (int k = 0; k < histories; ++k) {
        ChipQuery q;
        q.chipId = chip(QRandomGenerator::global()->bounded(total), total).chipId;
        store.select(q, [&](const ChipRow &) { ++found; return true; }, &error);
    }
    out << QStringLiteral("  the history of one chip: %1 ms on average (%2 burns found for %3 chips)\n")
               .arg(t.nsecsElapsed() / 1e6 / histories, 0, 'f', 3).arg(found).arg(histories);

    const int days = 20;
    ChipSummary s;
    t.restart();
    for (int k = 0; k < days; ++k) {
        ChipQuery q;
        q.since = kYearStart + qint64(k * 17) * 86400000;
        q.until = *q.since + 86400000;
        store.summary(q, &s, &error);
    }
    out << QStringLiteral("  a day's summary: %1 ms on average (%2 chips that day)\n")
               .arg(t.nsecsElapsed() / 1e6 / days, 0, 'f', 2).arg(s.chips);
    t.restart();
    QList<HourCount> hours;
    store.summaryAndHours({}, &s, &hours, &error);
    out << QStringLiteral("  the whole store's summary and chips-an-hour picture: %1 ms (%2 chips, %3 hours)\n")
               .arg(t.nsecsElapsed() / 1e6, 0, 'f', 1).arg(s.chips).arg(hours.size());
    store.close();
    out << QStringLiteral("  size on disk: %1 MB (%2 MB per million chips)\n")
               .arg(diskSize(path) / 1e6, 0, 'f', 1)
               .arg(diskSize(path) / 1e6 * 1e6 / double(total + adds), 0, 'f', 1);

    // The history window on the full store: built, shown, first paint.
    {
        Burn burn;
        ChipRecords records(burn, folder, nullptr);
        records.boxes = false;
        t.restart();
        ChipHistoryWindow w(records, nullptr);
        w.show();
        w.table()->viewport()->repaint();
        const double shown = t.nsecsElapsed() / 1e6;
        // The first page comes from the window's store thread.
        while (!w.model()->settled() && t.elapsed() < 60000)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
        w.table()->viewport()->repaint();
        const double firstPaint = t.nsecsElapsed() / 1e6;
        QElapsedTimer t2;
        t2.start();
        while (w.stats()->waiting() && t2.elapsed() < 60000)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
        out << QStringLiteral("  history window: shown empty after %1 ms, the GUI thread never waiting on the store\n")
                   .arg(shown, 0, 'f', 1);
        out << QStringLiteral("  history window: first paint %1 ms (%2 rows fetched), the summary and picture of all %3 ms later\n")
                   .arg(firstPaint, 0, 'f', 1).arg(w.model()->rowCount()).arg(t2.elapsed());
    }

    // A year of daily CSV files into a fresh store, as records import does it.
    const QString csvDir = QDir(folder).filePath("csv");
    QDir().mkpath(csvDir);
    QStringList files;
    const qint64 perDay = std::max<qint64>(1, total / 365);
    for (int day = 0; day < 365; ++day) {
        QFile f(QDir(csvDir).filePath(QStringLiteral("day%1.csv").arg(day)));
        if (!f.open(QIODevice::WriteOnly))
            return 1;
        QString text = ChipCsvHeader() + QStringLiteral("\r\n");
        for (qint64 i = day * perDay; i < (day + 1) * perDay; ++i)
            text += csvLine(chip(i, total));
        f.write(text.toUtf8());
        files << f.fileName();
    }
    const QString importPath = QDir(folder).filePath("imported.sqlite");
    QFile::remove(importPath);
    // The command itself, as an operator runs it.
    const QString cli = QDir(QCoreApplication::applicationDirPath()).filePath("pyrolink-cli");
    for (const char *pass : {"into a fresh store", "again (every row stored already)"}) {
        QProcess p;
        p.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        const double cpuBefore = childCpuSeconds();
        t.restart();
        p.start(cli, QStringList{"records", "import", "--store", importPath, "--station", "BENCH-1"} + files);
        if (!p.waitForFinished(-1) || p.exitCode() != 0) {
            out << "records import failed: " << p.readAllStandardOutput().right(500) << "\n";
            return 1;
        }
        const double secs = t.nsecsElapsed() / 1e9;
        // Its processor time too: on a shared machine the wall clock says
        // more about the neighbours than about the import.
        const double cpu = childCpuSeconds() - cpuBefore;
        out << QStringLiteral("  records import of a year of daily CSV files (%1 files, %2 rows) %3: %4 s, %5 rows/s "
                              "(%6 s of processor time, %7 rows per processor second)\n")
                   .arg(files.size()).arg(perDay * 365).arg(QLatin1String(pass)).arg(secs, 0, 'f', 1)
                   .arg(qint64(double(perDay * 365) / secs)).arg(cpu, 0, 'f', 1).arg(qint64(double(perDay * 365) / cpu));
        out.flush();
    }
    out << QStringLiteral("  imported store on disk: %1 MB\n").arg(diskSize(importPath) / 1e6, 0, 'f', 1);
    QDir(csvDir).removeRecursively();
    QFile::remove(importPath);
    return 0;
}
