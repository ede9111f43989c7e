#pragma once
// The production station: one image burned on many ports at once. Each port
// is the same pair of structs the main window has (Link, Burn), with its own
// port, limits, retries and last chip; all of them are stepped from one tick
// on one thread. What they share, the prepared image and the order text, is
// read-only while they run.
#include "burn.h"
#include "link.h"

#include <QByteArray>
#include <QHash>
#include <QRgb>
#include <QString>
#include <QStringList>
#include <functional>
#include <memory>
#include <vector>

namespace pyro {

enum class Verdict { None, Pass, Fail };

// One row of the station: a port and what it has done.
struct StationPort {
    QString name;                        // as typed: "COM5", "/dev/ttyUSB0"
    std::unique_ptr<SerialControl> port;
    Link link;                           // its own view: no window shows it
    Burn burn;

    bool running = false;                // armed by Start, until its burn ends
    int good = 0;
    int failed = 0;
    Verdict verdict = Verdict::None;     // of the last chip
    QString reason;                      // the verdict in words
    QString state;                       // what the row is doing, in words
    QString warning;                     // a chip met before, a refused start
    int percent = 0;                     // of the chip in hand
    ChipIdent chipId{};                  // of the chip in hand or the last one
    bool chipKnown = false;
    qint64 bytesDone = 0;                // image bytes answered, all chips of this run

    // Watched from the line, for the reasons and the waiting states.
    int16_t lastOutcome = -1;
    uint8_t lastStatus = 0;
    int silentPolls = 0;                 // identify requests in a row without an answer
    int begunSeen = 0;                   // ChipLog::begun at the last look
    int lastDone = -1;                   // image bytes of the chip in hand at the last move
    int stalled = 0;                     // ticks since they moved
    qint64 runStartedTick = 0;
    qint64 runTicks = 0;                 // ticks the row has run
};

// A chip this run has met, for the seen-before warning.
struct SeenChip {
    QString port;
    QString time;                        // "HH:mm:ss"
    Verdict verdict = Verdict::None;
};

struct Station {
    std::vector<std::unique_ptr<StationPort>> ports;

    // The line settings of every port: baud, parity, data bits, stop bits,
    // as the main window's boxes spell them.
    std::array<QString, 4> line{QStringLiteral("57600"), QStringLiteral("None"), QStringLiteral("8"),
                                QStringLiteral("1")};
    QString frameLen = QStringLiteral("512");   // one of kStationFrameLens
    bool autoLoad = false;
    bool keepInF = false;
    bool fastLine = false;
    QString order;                       // stamped into the image and recorded
    int chipsTarget = 0;                 // good chips in total; 0: no limit
    // A chip in hand whose bytes don't move for so many ticks is given up
    // (a board that refuses a page has it erased again and again, and the
    // retry limit never counts that out); 0: never.
    int stallTicks = 1333;               // 20 s

    // The image: chosen, then prepared once at Start and shared.
    QString binPath;
    QStringList recent;                  // the last images loaded, newest first
    QByteArray binData;                  // stamped, one zero byte more, as Burn keeps it
    int32_t binLen = 0;
    bool imageReady = false;

    int good = 0;                        // all rows, this run
    int failed = 0;
    QString message;                     // the station's own last word: a refusal, the end
    QString log;                         // the text record: every port's lines, each with its port
    QHash<QByteArray, SeenChip> seen;    // chips met this run, by identity

    QString appDir;
    QString recordFolder;                // chip records and the text record; empty: none
    std::function<QDateTime()> now = [] { return QDateTime::currentDateTime(); };
    std::function<qint64()> clockUs;     // for the fast line; empty: the steady clock
    // Makes the serial control of a new row; unset, a real serial port.
    std::function<std::unique_ptr<SerialControl>(const QString &name)> makePort;
    // Ports others hold open (the main window's), refused here.
    std::function<QStringList()> portsInUse;
    // The chip store, asked about every chip as its identity is read. The
    // tick never waits for it: the answer comes later, through
    // StationStoreKnows, typically long before the chip's burn ends.
    std::function<void(const ChipIdent &)> askStore;
    // Every chip's record, as it is written; the row it came from.
    std::function<void(StationPort &, const ChipRecord &)> onChip;
    // Every chip into the chip store, right after its CSV line; unset, none.
    std::function<void(const ChipRecord &)> toStore;

    qint64 ticks = 0;
};

// The frame lengths the operator picks from: those that divide a page.
extern const QStringList kStationFrameLens;

// Rows, while nothing runs. false with why in words.
bool StationAddPort(Station &s, const QString &name, QString *why);
bool StationRemovePort(Station &s, int row, QString *why);
bool StationRunning(const Station &s);

// The image for the next Start; refused while a row runs.
bool StationLoadFile(Station &s, const QString &path, QString *why);

// Prepares the image once and arms every row that is not running. A refused
// image arms nothing and says why (in s.message and on every row). A port
// that can't be opened says so on its row; the others start.
bool StationStart(Station &s);
// Stop for one row, or all. The chip in hand is recorded as stopped.
void StationStopRow(Station &s, int row);
void StationStop(Station &s);

// One tick of every row, in order. Call every 15 ms.
void StationTick(Station &s);

// The chip store's answer about a chip (its identity as ChipIdText gives
// it; where it was burned before, in words, empty for never): shown as a
// warning on the rows that hold that chip.
void StationStoreKnows(Station &s, const QString &chipId, const QString &before);

// The day's text record from the station's log, if it holds anything.
bool StationWriteRecord(Station &s);

// "no answer after 10 tries", "board removed", ...: the words for a chip's end.
QString StationFailReason(const StationPort &p, const QString &result);
// The row's lamp.
QRgb StationLamp(const StationPort &p);
QString ChipIdText(const ChipIdent &id);

} // namespace pyro
