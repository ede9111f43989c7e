// pyrolink-cli records: questions to the chip store, and CSV records into it.
#include "burn.h"
#include "chipstore.h"
#include "clisession.h"
#include "commands.h"
#include "pgstore.h"
#include "sqlitestore.h"

#include <QDir>
#include <QFile>
#include <QTextStream>

using namespace pyro;

namespace {

QString storeOption(const CliCommand &cmd)
{
    return cmd.parser.isSet("store") ? cmd.parser.value("store") : ChipStorePath(RecordFolder());
}

// The store a command reads or fills: --store FILE, else the line's store
// when one is chosen, else this bench's own.
std::unique_ptr<ChipStore> chosenStore(const CliCommand &cmd, bool create, int cacheMb = 64)
{
    const RecordsChoice choice = CliRecordsChoice();
    if (!cmd.parser.isSet("store") && choice.line.isSet()) {
        PgChipStore::Options po;
        po.create = create;
        return std::make_unique<PgChipStore>(choice.line, po);
    }
    SqliteChipStore::Options so;
    so.create = create;
    so.cacheMb = cacheMb;
    return std::make_unique<SqliteChipStore>(storeOption(cmd), so);
}

// Fixed columns: a million rows are printed as they come, never measured first.
QString tableLine(const QStringList &f)
{
    // time, station, port, chip_id, order, result, retries, duration_s, length, image
    return QStringLiteral("%1  %2 %3 %4  %5 %6 %7 %8 %9  %10")
        .arg(f[0].leftJustified(19), f[1].leftJustified(12), f[2].leftJustified(14), f[3].leftJustified(24),
             f[4].leftJustified(12), f[5].leftJustified(11), f[6].rightJustified(7), f[7].rightJustified(10),
             f[8].rightJustified(6))
        .arg(f[9]);
}

QStringList tableFields(const ChipRow &r)
{
    return {r.local, r.station, r.port, r.chipId, r.order, r.result, QString::number(r.retries),
            QString::number(double(r.durationMs) / 1000.0, 'f', 3), QString::number(r.length), r.image};
}

int recordsImport(const QStringList &args)
{
    CliCommand cmd("records import", "Loads chip CSV files (the burn's daily records) into the chip store. "
                   "A line stored already is left out, so importing twice adds nothing.", "FILE.csv...");
    cmd.add("station", "The station the files come from (default: this host's name).", "NAME");
    cmd.add("store", "This bench's chip store file (default: the line's store when one is chosen, else "
            "chips.sqlite in the record folder).", "FILE");
    bool done = false;
    int code = cmd.parse(args, &done);
    if (done)
        return code;
    if (!cmd.positional(1, 1 << 20))
        return kExitUsage;
    const QString station = cmd.parser.isSet("station") ? cmd.parser.value("station") : DefaultStation();
    if (station.isEmpty())
        return cmd.usageError("--station: empty");
    // A year of files goes in a few transactions, each of many files, and
    // with a cache that holds the indexes it adds to: a transaction a file
    // would write each index's pages again for every file.
    const std::unique_ptr<ChipStore> store = chosenStore(cmd, true, 256);
    QString error, notice;
    const bool opened = store->open(&error, &notice);
    if (!notice.isEmpty())
        cmd.err << notice << Qt::endl;
    if (!opened) {
        cmd.err << "pyrolink-cli records import: " << error << Qt::endl;
        return kExitFailed;
    }
    constexpr qint64 kBatchRows = 250000;
    int result = kExitOk;
    qint64 allAdded = 0, batchRows = 0;
    bool inBatch = false;
    QStringList told;   // the files' lines, said once their batch is stored
    QList<ChipRow> rows;
    auto commit = [&] {
        if (!store->endBatch(&error)) {
            cmd.err << "not stored: " << error << Qt::endl;
            return false;
        }
        for (const QString &line : std::exchange(told, {}))
            cmd.out << line << "\n";
        cmd.out.flush();
        batchRows = 0;
        inBatch = false;
        return true;
    };
    for (const QString &file : cmd.parser.positionalArguments()) {
        const QString bad = CheckInputFile(file, qint64(1) << 31);
        QFile f(file);
        if (!bad.isEmpty() || !f.open(QIODevice::ReadOnly)) {
            cmd.err << file << ": " << (bad.isEmpty() ? f.errorString() : bad) << Qt::endl;
            result = kExitFailed;
            continue;
        }
        // One list for every file: its room is taken once, not for each.
        rows.clear();
        QList<CsvRefusal> refused;
        ParseChipCsv(f.readAll(), station, &rows, &refused);
        for (const CsvRefusal &r : refused)
            cmd.err << file << ':' << r.line << ": refused: " << r.reason << "\n";
        if (!inBatch && !store->beginBatch(&error)) {
            cmd.err << file << ": not stored: " << error << Qt::endl;
            return kExitFailed;
        }
        inBatch = true;
        const qint64 added = store->append(rows, nullptr, &error);
        if (added < 0) {
            cmd.err << file << ": not stored, nor the files before it since " << (told.isEmpty() ? file : told.first().section(QLatin1String(": "), 0, 0))
                    << ": " << error << Qt::endl;
            return kExitFailed;
        }
        allAdded += added;
        batchRows += rows.size();
        told << QStringLiteral("%1: %2 added, %3 stored already, %4 refused").arg(file).arg(added).arg(rows.size() - added).arg(refused.size());
        if (!refused.isEmpty())
            result = kExitFailed;
        if (batchRows >= kBatchRows && !commit())
            return kExitFailed;
    }
    if (inBatch && !commit())
        return kExitFailed;
    if (cmd.parser.positionalArguments().size() > 1)
        cmd.out << allAdded << " chip(s) added" << Qt::endl;
    return result;
}

// A bench joins the line with its history: every row of its own store into
// the line's, in time order; rows there already (the key) are left out.
int recordsCopy(const QStringList &args)
{
    CliCommand cmd("records copy", "Copies this bench's chip store into the line's store (PostgreSQL). "
                   "A chip stored there already is left out, so copying twice adds nothing. The first copy "
                   "makes the line's tables when the role may.");
    cmd.add("to", "The line's store: postgresql://USER@HOST:PORT/DATABASE (default: the one records.conf or "
            "--records names).", "URL");
    cmd.add("store", "This bench's chip store (default: chips.sqlite in the record folder).", "FILE");
    bool done = false;
    int code = cmd.parse(args, &done);
    if (done)
        return code;
    if (!cmd.positional(0, 0))
        return kExitUsage;
    LineStoreConfig line;
    if (cmd.parser.isSet("to")) {
        QString why;
        if (!ParseRecordsUrl(cmd.parser.value("to"), &line, &why))
            return cmd.usageError(QStringLiteral("--to: %1").arg(why));
    } else {
        line = CliRecordsChoice().line;
        if (!line.isSet())
            return cmd.usageError("no line's store: give --to URL, or --records URL, or write records.conf in the application folder");
    }
    PgChipStore to(line);
    QString error;
    if (!to.open(&error)) {
        cmd.err << "pyrolink-cli records copy: " << error << Qt::endl;
        return kExitFailed;
    }
    // The owner's first run on a PC without chips makes the tables only.
    if (!QFile::exists(storeOption(cmd))) {
        cmd.out << "no chip store at " << QDir::toNativeSeparators(storeOption(cmd)) << ": nothing to copy; "
                << line.url() << " is ready" << Qt::endl;
        return kExitOk;
    }
    SqliteChipStore::Options so;
    so.create = false;
    SqliteChipStore from(storeOption(cmd), so);
    if (!from.open(&error)) {
        cmd.err << "pyrolink-cli records copy: " << error << Qt::endl;
        return kExitFailed;
    }
    qint64 seen = 0, added = 0;
    QList<ChipRow> batch;
    bool sent = true;
    auto flush = [&] {
        const qint64 n = to.append(batch, nullptr, &error);
        batch.clear();
        if (n < 0)
            return sent = false;
        added += n;
        return true;
    };
    const bool read = from.select({}, [&](const ChipRow &r) {
        ++seen;
        batch << r;
        return batch.size() < 5000 || flush();
    }, &error);
    if (read && sent && !batch.isEmpty())
        flush();
    if (!read || !sent) {
        cmd.err << "pyrolink-cli records copy: " << error << "; " << added << " chip(s) copied before" << Qt::endl;
        return kExitFailed;
    }
    cmd.out << seen << " chip(s) in " << QDir::toNativeSeparators(storeOption(cmd)) << ": " << added << " copied to "
            << line.url() << ", " << seen - added << " there already" << Qt::endl;
    return kExitOk;
}

} // namespace

int cliRecords(const QStringList &args)
{
    if (!args.isEmpty() && args.first() == QLatin1String("import"))
        return recordsImport(args.mid(1));
    if (!args.isEmpty() && args.first() == QLatin1String("copy"))
        return recordsCopy(args.mid(1));
    CliCommand cmd("records", "Chips in the chip store: the rows that match, oldest first, or their summary.\n"
                   "Times are local: 2026-11-23, 2026-11-23 09:30 or 2026-11-23T09:30:00; a bare day as --until "
                   "takes the whole day.\n'pyrolink-cli records import FILE.csv...' loads CSV records; 'pyrolink-cli records copy "
                   "--to URL' copies this bench's store into the line's.\nWith a line's store chosen (records.conf, "
                   "--records URL) the questions go to it.", "[import FILE.csv... | copy]");
    cmd.add("chip", "The whole history of one chip: its identity, 24 hex digits.", "ID");
    cmd.add("since", "Chips that ended at or after this time.", "TIME");
    cmd.add("until", "Chips that ended before this time.", "TIME");
    cmd.add("order", "Chips of this order.", "TEXT");
    cmd.add("station", "Chips of this station.", "NAME");
    cmd.add("port", "Chips burned on this port.", "P");
    cmd.add("result", "Chips with this result: done, failed, stopped, interrupted, port lost, timed out.", "R");
    cmd.add("summary", "Chips, good, failed, yield, chips an hour, median duration and retries instead of rows.");
    cmd.add("format", "table, csv or json (one object a line) (default table).", "F", "table");
    cmd.add("store", "This bench's chip store file (default: the line's store when one is chosen, else "
            "chips.sqlite in the record folder).", "FILE");
    bool done = false;
    int code = cmd.parse(args, &done);
    if (done)
        return code;
    if (!cmd.positional(0, 0))
        return kExitUsage;
    ChipQuery q;
    if (cmd.parser.isSet("chip")) {
        q.chipId = cmd.parser.value("chip").toUpper();
        if (!IsChipIdText(q.chipId))
            return cmd.usageError(QStringLiteral("--chip: '%1' is not a chip identity (24 hex digits)").arg(cmd.parser.value("chip")));
    }
    for (const char *name : {"since", "until"}) {
        if (!cmd.parser.isSet(name))
            continue;
        qint64 ms = 0;
        const bool until = QLatin1String(name) == QLatin1String("until");
        if (!ParseLocalTime(cmd.parser.value(name), until, &ms))
            return cmd.usageError(QStringLiteral("--%1: '%2' is not a time (2026-11-23, 2026-11-23 09:30 or 2026-11-23T09:30:00)")
                                      .arg(QLatin1String(name), cmd.parser.value(name)));
        (until ? q.until : q.since) = ms;
    }
    q.order = cmd.parser.value("order");
    q.station = cmd.parser.value("station");
    q.port = cmd.parser.value("port");
    q.result = cmd.parser.value("result");
    const QString format = cmd.parser.value("format");
    if (format != QLatin1String("table") && format != QLatin1String("csv") && format != QLatin1String("json"))
        return cmd.usageError(QStringLiteral("--format: '%1' is not table, csv or json").arg(format));

    const std::unique_ptr<ChipStore> owned = chosenStore(cmd, false);
    ChipStore &store = *owned;
    QString error;
    if (!store.open(&error)) {
        cmd.err << "pyrolink-cli records: " << error << Qt::endl;
        return kExitFailed;
    }
    if (cmd.parser.isSet("summary")) {
        ChipSummary s;
        if (!store.summary(q, &s, &error)) {
            cmd.err << "pyrolink-cli records: " << error << Qt::endl;
            return kExitFailed;
        }
        if (format == QLatin1String("json")) {
            cmd.out << ChipSummaryJson(s) << "\n";
        } else if (format == QLatin1String("csv")) {
            cmd.out << "chips,good,failed,yield,chips_an_hour,median_duration_s,retries\n"
                    << s.chips << ',' << s.good << ',' << s.failed << ',' << QString::number(s.yield(), 'f', 4) << ','
                    << QString::number(s.chipsAnHour(), 'f', 1) << ',' << QString::number(double(s.medianDurationMs) / 1000.0, 'f', 3)
                    << ',' << s.retries << "\n";
        } else {
            for (const QString &line : ChipSummaryLines(s))
                cmd.out << line << "\n";
        }
        return kExitOk;
    }
    if (format == QLatin1String("csv"))
        cmd.out << CsvJoin(ChipRowHeader()) << "\n";
    else if (format == QLatin1String("table"))
        cmd.out << tableLine({"time", "station", "port", "chip_id", "order", "result", "retries", "duration_s", "length", "image"}) << "\n";
    qint64 n = 0;
    const bool ok = store.select(q, [&](const ChipRow &r) {
        ++n;
        if (format == QLatin1String("csv"))
            cmd.out << CsvJoin(ChipRowFields(r)) << "\n";
        else if (format == QLatin1String("json"))
            cmd.out << ChipRowJson(r) << "\n";
        else
            cmd.out << tableLine(tableFields(r)) << "\n";
        return cmd.out.status() == QTextStream::Ok;
    }, &error);
    cmd.out.flush();
    if (!ok) {
        cmd.err << "pyrolink-cli records: " << error << Qt::endl;
        return kExitFailed;
    }
    if (format == QLatin1String("table"))
        cmd.err << n << " chip(s)" << Qt::endl;
    return kExitOk;
}
