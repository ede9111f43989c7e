#pragma once
// The traceable record of every chip: which chip got which image, when, on
// which port, and how it went. One CSV line per chip in a companion of the
// day's record file; the day's text record itself is left as it is.
#include "csvtext.h"
#include "link.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <array>
#include <functional>

namespace pyro {

struct Burn;

struct ChipRecord {
    QDateTime when;              // the chip's end
    QString port;
    std::array<uint8_t, 12> chipId{};
    bool chipIdKnown = false;    // false: the chip never told its identity
    QString order;
    QString imagePath;
    int32_t imageLen = 0;
    QByteArray sha256;           // of the stamped image as it went on the line
    qint64 durationMs = 0;
    int retries = 0;             // answers that had to be asked again
    // "done", "failed" (given up), "stopped" (Stop), "port closed" (CloseUart,
    // a box changed, AutoDetect), "port lost", "cut short" (Load File),
    // "window closed"; the command line adds "interrupted" and "timed out".
    QString result;
};

// What the burn keeps about the chip in hand. The folder empty: no file is
// written (tests, and callers that keep their own record).
struct ChipLog {
    QString folder;
    std::function<void(const ChipRecord &)> onRecord;   // after each line
    // The chip store's hand-off, called beside the CSV line; it must not wait.
    std::function<void(const ChipRecord &)> toStore;

    bool active = false;
    ChipRecord current;
    // The identity the last poll read, if it read one: the next chip begun is that chip.
    bool polledId = false;
    QDateTime started;
    int begun = 0;               // chips whose burn began in this run
    QString writeError;          // the first failure to write, kept until read
    bool errorShown = false;
};

// "2026.1.5(K0).csv", beside "2026.1.5(K0).Txt".
QString ChipLogFileName(const QDate &day);
QString ChipCsvHeader();
QString ChipCsvLine(const ChipRecord &r);
// 24 upper-case hex digits, or empty when the chip never told its identity.
QString ChipIdText(const ChipRecord &r);
// One line of JSON, no line end.
QString ChipJson(const ChipRecord &r);
// Appends the line (and the header when the file is new) in one write.
bool AppendChipRecord(const QString &folder, const ChipRecord &r, QString *error = nullptr);

// Called by the burn at the top of each of its steps: notices a chip begun,
// an answer asked again, a chip finished or given up.
void ChipLogStep(Link &l, Burn &b);
// Ends the chip in hand, if any, with this result (a Stop, an interrupted run).
// The one place a chip's line is written; onRecord follows it. Each chip
// begun ends here exactly once.
void ChipLogEnd(Link &l, Burn &b, const QString &result);

} // namespace pyro
