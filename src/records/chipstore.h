#pragma once
// Every chip in a database: the row each chip burn leaves, the questions
// asked of them, and the small interface a store answers them through.
// Callers never see SQL; each engine keeps its own schema and statements.
#include "chiplog.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>
#include <QStringList>
#include <functional>
#include <optional>

namespace pyro {

// One chip burn as stored. The key is a digest of what the chip's CSV line
// says and the station, so a chip stored live and the same line imported
// later are one row.
struct ChipRow {
    qint64 id = 0;               // the store's order of arrival; 0 before stored
    QByteArray key;              // 16 bytes
    qint64 utcMs = 0;            // the chip's end, UTC milliseconds since 1970
    QString local;               // the same as the CSV line has it: "yyyy-MM-dd HH:mm:ss"
    QString station;
    QString port;
    QString chipId;              // 24 upper-case hex digits
    QString order;
    QString image;
    qint64 length = 0;
    QString sha256;              // 64 lower-case hex digits
    qint64 durationMs = 0;
    int retries = 0;
    QString result;              // "done", "failed", "stopped", "interrupted", ...
    QString version;             // the application's; empty for imported lines
};

// What to select; empty fields select everything. Times are UTC
// milliseconds, since inclusive, until exclusive.
struct ChipQuery {
    QString chipId;              // 24 hex digits, or with prefix set the first few
    std::optional<qint64> since, until;
    QString order, station, port, result;
    bool prefix = false;         // chipId, order and port match as beginnings (typing)
};

struct ChipSummary {
    qint64 chips = 0, good = 0, failed = 0, retries = 0;
    qint64 firstMs = 0, lastMs = 0;   // the first chip's start, the last one's end
    qint64 medianDurationMs = 0;
    double yield() const { return chips ? double(good) / double(chips) : 0.0; }
    // Over the span from the first chip's start to the last one's end, at
    // least a minute so that one chip is not a rate.
    double chipsAnHour() const;
};

struct HourCount {
    qint64 hourMs = 0;           // UTC start of the hour
    qint64 good = 0, failed = 0; // failed: every chip that did not end burned
};

// A chip whose identity the store already held as burned.
struct ChipMet {
    ChipRow now;
    ChipRow before;              // the last burn that ended done before this one
    qint64 times = 0;            // burns that ended done before this one
};

// The store. One object is used only in the thread that opened it.
class ChipStore {
public:
    virtual ~ChipStore() = default;
    // Opens (creating or upgrading the schema where it may). notice gets a
    // message the operator must see even though the open went on (a damaged
    // file set aside). False with error: the store can't be used now.
    virtual bool open(QString *error, QString *notice = nullptr) = 0;
    virtual void close() = 0;
    virtual bool isOpen() const = 0;
    // Stores the rows in one transaction; rows whose key is stored already
    // are left out. The count newly stored, or -1 with error (nothing stored).
    // met, when given, gets the rows whose chip was burned before.
    virtual qint64 append(const QList<ChipRow> &rows, QList<ChipMet> *met, QString *error) = 0;
    // The appends between these two are one transaction, for an import of
    // many files; a failed append ends it with nothing of it stored. A store
    // may keep each append its own.
    virtual bool beginBatch(QString *error) { Q_UNUSED(error); return true; }
    virtual bool endBatch(QString *error) { Q_UNUSED(error); return true; }
    // Rows in time order; each returns false to stop.
    virtual bool select(const ChipQuery &q, const std::function<bool(const ChipRow &)> &each, QString *error) = 0;
    // A page of rows, newest first, older than the row (utcMs, id) given.
    virtual QList<ChipRow> page(const ChipQuery &q, std::optional<std::pair<qint64, qint64>> olderThan, int limit,
                                QString *error) = 0;
    // Rows stored after the row id, newest first.
    virtual QList<ChipRow> newerThan(const ChipQuery &q, qint64 id, QString *error) = 0;
    virtual bool summary(const ChipQuery &q, ChipSummary *out, QString *error) = 0;
    virtual QList<HourCount> hourly(const ChipQuery &q, QString *error) = 0;
    // Both at once, for a store that can answer them from one pass.
    virtual bool summaryAndHours(const ChipQuery &q, ChipSummary *out, QList<HourCount> *hours, QString *error)
    {
        if (!summary(q, out, error))
            return false;
        QString e;
        *hours = hourly(q, &e);
        if (!e.isEmpty() && error)
            *error = e;
        return e.isEmpty();
    }
};

// The store file in a record folder.
QString ChipStorePath(const QString &recordFolder);
// The host name.
QString DefaultStation();

QByteArray ChipRowKey(const ChipRow &r);
ChipRow ChipRowFromRecord(const ChipRecord &r, const QString &station, const QString &version);

// Output forms of rows for the command line and the window's export.
QStringList ChipRowHeader();
QStringList ChipRowFields(const ChipRow &r);
QString CsvJoin(const QStringList &fields);
QString ChipRowJson(const ChipRow &r);
QString ChipSummaryJson(const ChipSummary &s);
QStringList ChipSummaryLines(const ChipSummary &s);
// "chip 0A1B...: burned before, 2 times, last on 2026-11-20 14:02:11 at BENCH-3 port COM4 with fw.BIN"
QString ChipMetText(const ChipMet &m);
// A lookup's answer for the chip's row: "in the chip store: burned 2 time(s),
// last on 2026-11-20 14:02:11 at BENCH-3 port COM4"; empty when never burned.
QString ChipKnownText(const ChipMet &m);

// Chip CSV files (the burn's daily records) back into rows. Lines that are
// not chip records are refused one by one with their number and the reason.
struct CsvRefusal {
    int line = 0;
    QString reason;
};
void ParseChipCsv(const QByteArray &text, const QString &station, QList<ChipRow> *rows, QList<CsvRefusal> *refused);

// A local "yyyy-MM-dd[ HH:mm[:ss]]" (or with a T) to UTC milliseconds; a bare
// day with endOfDay gives the next day's start. False when it doesn't parse.
bool ParseLocalTime(const QString &text, bool endOfDay, qint64 *utcMs);
bool IsChipIdText(const QString &text);

} // namespace pyro
