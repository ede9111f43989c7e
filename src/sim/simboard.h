#pragma once
#include <QByteArray>
#include <QList>
#include <QString>
#include <array>
#include <cstdint>
#include <functional>

namespace pyro {

// The simulated controller board: a chip with a loader, a flash, a settings
// block and running values, answering the master's frames. Time is counted in
// the master's 15 ms ticks; nothing here sleeps or waits.

constexpr uint32_t kSimFlashBase = 0x08002000;      // image offset 0, page 8
constexpr int kSimPageSize = 1024;
constexpr int kSimFirstPage = 8;
constexpr int kSimFlashSize = 64 * 1024;            // pages 8 .. 71
constexpr uint32_t kSimInfoAddr = 0x08002400;
constexpr int kSimInfoSize = 50;
constexpr uint32_t kSimSettingsAddr = 0x08002800;   // two pages: 0x08002800, 0x08002C00
constexpr int kSimSettingsRoom = 2 * kSimPageSize;
constexpr uint32_t kSimRamBase = 0x20000000;
constexpr int kSimRamSize = 20 * 1024;
constexpr uint32_t kSimWorkingAddr = 0x20000110;    // the working copy of the settings
constexpr uint32_t kSimRunningAddr = 0x20001000;    // reported by 0xFF
constexpr int kSimMaxReadCount = 4096;
constexpr int kSimMaxWriteChunk = 1024;             // largest 0x07 count taken as a frame
constexpr int kSimMsPerTick = 15;

// Status bytes of a refusal. Success is 0 (for 0xF0 the mode, for 0xF1 non-zero).
enum : uint8_t {
    kSimBadAddress = 0x01,      // outside flash or RAM, misaligned page, range past the end
    kSimNotReady = 0x02,        // page operation outside download, or no page open
    kSimNotErased = 0x03,       // the write would need an erase first (a 0 bit back to 1)
    kSimBadFlag = 0x04,         // unknown flag, wrong erase pattern
    kSimRefusedByFault = 0xEE,  // the Refuse fault
};

enum class SimFault {
    None,
    DropReply,      // the request is carried out, the reply is lost
    CorruptCrc,     // the reply's last CRC byte is wrong
    Refuse,         // non-zero status, the request is not carried out
    SplitReply,     // the reply in two parts with a gap longer than the master's quiet limit
    DelayReply,     // the reply comes faultDelayTicks late
    WrongFunction,  // the reply's function byte with its high bit flipped (0x03 -> 0x83), CRC right
    NoIdentity,     // 0xF1 answers status 0 (applies to 0xF1 only)
    RemoveChip,     // silence: the request is not heard at all
};

// "DropReply" etc., case-insensitive; None for an unknown name.
SimFault simFaultFromName(const QString &name);
QString simFaultName(SimFault f);

struct SimArmedFault {
    SimFault fault = SimFault::None;
    int count = 1;          // replies still to spoil; negative = until cleared
    int function = -1;      // only replies to this function code; -1 = any
};

struct SimOptions {
    uint8_t mode = 2;                       // 1 loader, 2 running, 3 stopped
    QByteArray identity;                    // 12 bytes; empty = a built-in one
    QByteArray factorySettings;             // empty = SampleSettingsBlock()
    // Ticks between a request and the start of its reply.
    int replyTicks = 0;
    int eraseTicks = 2;                     // 0x05 page erase
    int writeTicks = 0;                     // 0x07
    int closeTicks = 0;                     // 0x09
    int saveTicks = 2;                      // 0xF5 with flag 0xAA
    int eraseParamsTicks = 2;               // 0xFE
    double bytesPerTick = 0;                // pacing of the output; 0 = all at once
    int partialGapTicks = 3;                // a half frame is dropped after this quiet
    int faultDelayTicks = 30;               // DelayReply: beyond the master's 20-tick limit
    int splitGapTicks = 5;                  // SplitReply: beyond the master's 3-tick quiet limit
    bool swapAfterBurn = false;
    int swapOffTicks = 3;                   // after the image closed, the chip goes
    int swapGoneTicks = 20;                 // silent so long, then the next chip answers
};

// One chip: what a swap replaces.
struct SimChip {
    QByteArray identity;                    // 12 bytes
    QByteArray flash;                       // kSimFlashSize bytes from kSimFlashBase
    QByteArray ram;                         // kSimRamSize bytes from kSimRamBase
    bool downloading = false;               // 0x03 seen, image not closed yet
    int openPage = -1;                      // page erased and not closed yet
};

struct SimFinishedImage {
    QByteArray identity;
    QByteArray flash;                       // the whole flash when the image closed
    uint32_t bytesDone = 0;                 // from the closing frame
};

struct SimPending {
    qint64 due = 0;
    QByteArray bytes;
};

struct SimBoard {
    SimBoard();
    explicit SimBoard(const SimOptions &options);

    SimOptions opt;
    SimChip chip;
    uint8_t mode = 2;
    bool present = true;                    // false: RemoveChip, or between swaps
    qint64 tick = 0;                        // ticks since start

    QByteArray rx;                          // bytes heard, not yet a whole frame
    qint64 lastRxTick = 0;
    QList<SimPending> out;                  // replies not yet given out, by due time
    double paceCredit = 0;

    QList<SimArmedFault> faults;
    // Now and then a reply lost or spoiled: this percent of the whole frames
    // heard, thrown once a frame, while no other fault is armed.
    int flakyPercent = 0;
    uint32_t flakySeed = 1;                 // the dice's state
    qint64 swapOffAt = -1;                  // pending swap after a burn
    qint64 swapOnAt = -1;
    int chipsMade = 1;                      // for fresh identities

    // What happened, for tests.
    std::array<int, 256> requests{};        // whole frames heard, by function
    int droppedBytes = 0;                   // garbage and half frames thrown away
    int imagesClosed = 0;
    QList<SimFinishedImage> finished;
    QList<QByteArray> heard;                // every frame heard (last kSimHeardKeep)
    std::function<void(const SimFinishedImage &)> onImageClosed;

    // Bytes given out by simTick; attachSim points it at a FakePort.
    std::function<void(const QByteArray &)> onTransmit;
    // Frames in and out, for a trace.
    std::function<void(const QByteArray &frame, bool fromMaster)> onFrame;
};

constexpr int kSimHeardKeep = 2000;

// Fresh state from the options: the factory settings block in flash and in
// the working copy, the information block, an empty reply queue.
void simInit(SimBoard &b, const SimOptions &options);

// Bytes as they come off the line, in any pieces.
void simReceive(SimBoard &b, const QByteArray &bytes);
// One tick on: drops a half frame after a quiet gap, runs a pending swap, and
// gives out the bytes that are due (to onTransmit, and returned).
QByteArray simTick(SimBoard &b);
// Gives out, without a tick passing, the reply bytes due by now: a host that
// paces the line itself calls it as soon as a request is in.
QByteArray simGiveOut(SimBoard &b);

// Fault injection.
void simArmFault(SimBoard &b, SimFault fault, int count = 1, int function = -1);
void simClearFaults(SimBoard &b);
// RemoveChip as a lasting state: on = silence on everything.
void simSetSilent(SimBoard &b, bool silent);
// A new chip on the bench: another identity (or the one given), blank flash,
// in its loader. Pending replies of the old chip are lost.
void simSwapChip(SimBoard &b, const QByteArray &identity = {});
void simSetMode(SimBoard &b, uint8_t mode);

// The flash as the master sees it, from the given address.
QByteArray simFlash(const SimBoard &b, uint32_t address, int count);
QByteArray simRam(const SimBoard &b, uint32_t address, int count);
qint64 simMsSinceStart(const SimBoard &b);

// The information block at start: DeviceId -1, a date, an order number and
// the remark stamp.
QByteArray simDefaultInfoBlock();
QByteArray simDefaultIdentity();

// The length of the request that starts the buffer: 0 = not enough bytes yet
// to tell, -1 = no request starts here.
int simRequestLength(const QByteArray &buf);

} // namespace pyro
