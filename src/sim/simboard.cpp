#include "simboard.h"
#include "frame.h"
#include "samplevalues.h"

#include <QStringEncoder>
#include <algorithm>
#include <cmath>
#include <limits>

namespace pyro {

namespace {

bool inRange(uint32_t address, int count, uint32_t base, int size)
{
    const qint64 a = qint64(address), b = qint64(base);
    return count >= 0 && a >= b && a + count <= b + size;
}

uint8_t byteAt(const QByteArray &b, int at)
{
    return at >= 0 && at < b.size() ? uint8_t(b[at]) : 0;
}

// The first armed fault of this kind that applies to the function; used up by one.
bool takeFault(SimBoard &b, SimFault kind, uint8_t function)
{
    for (int i = 0; i < b.faults.size(); ++i) {
        SimArmedFault &f = b.faults[i];
        if (f.fault != kind || f.count == 0)
            continue;
        if (f.function >= 0 && f.function != function)
            continue;
        if (f.count > 0 && --f.count == 0)
            b.faults.removeAt(i);
        return true;
    }
    return false;
}

void queueOut(SimBoard &b, qint64 due, const QByteArray &bytes)
{
    if (bytes.isEmpty())
        return;
    // Keep the queue ordered by due time, equal times in arrival order.
    int at = int(b.out.size());
    while (at > 0 && b.out[at - 1].due > due)
        --at;
    b.out.insert(at, SimPending{due, bytes});
}

QByteArray statusBody(uint8_t status)
{
    return QByteArray(1, char(status));
}

void writeBytes(QByteArray &mem, int at, const QByteArray &data)
{
    for (int i = 0; i < data.size(); ++i)
        if (at + i >= 0 && at + i < mem.size())
            mem[at + i] = data[i];
}

void eraseSettingsPages(SimChip &c)
{
    const int at = int(kSimSettingsAddr - kSimFlashBase);
    for (int i = 0; i < kSimSettingsRoom && at + i < c.flash.size(); ++i)
        c.flash[at + i] = char(0xFF);
}

void refreshRunningValues(SimBoard &b)
{
    const QByteArray v = SampleRunningValues(simMsSinceStart(b));
    const int at = int(kSimRunningAddr - kSimRamBase);
    writeBytes(b.chip.ram, at, v.left(kSimRamSize - at));
}

void putFactorySettings(SimBoard &b)
{
    const QByteArray block = b.opt.factorySettings.left(kSimSettingsRoom);
    eraseSettingsPages(b.chip);
    writeBytes(b.chip.flash, int(kSimSettingsAddr - kSimFlashBase), block);
    writeBytes(b.chip.ram, int(kSimWorkingAddr - kSimRamBase), block);
}

// --- the answers, one per function -------------------------------------------

QByteArray readMemory(SimBoard &b, const QByteArray &req)
{
    const uint32_t address = getLe32(req, 2);
    const int count = getLe16(req, 6);
    // Status at 2, the count echoed at 6, the data from 8.
    QByteArray body(6, '\0');
    putLe16(body, 4, uint16_t(count));
    if (count > kSimMaxReadCount) {
        body[0] = char(kSimBadAddress);
        putLe16(body, 4, 0);
        return body;
    }
    if (inRange(address, count, kSimFlashBase, kSimFlashSize)) {
        body += b.chip.flash.mid(int(address - kSimFlashBase), count);
    } else if (inRange(address, count, kSimRamBase, kSimRamSize)) {
        refreshRunningValues(b);
        body += b.chip.ram.mid(int(address - kSimRamBase), count);
    } else {
        body[0] = char(kSimBadAddress);
        putLe16(body, 4, 0);
    }
    return body;
}

uint8_t writeParams(SimBoard &b, const QByteArray &req)
{
    const uint32_t address = getLe32(req, 2);
    const int count = getLe16(req, 6);
    const uint8_t flag = byteAt(req, 8);
    const QByteArray data = req.mid(9, count);
    if (flag != 0x00 && flag != 0xAA)
        return kSimBadFlag;
    if (data.size() != count || !inRange(address, count, kSimRamBase, kSimRamSize))
        return kSimBadAddress;
    const qint64 offset = qint64(address) - qint64(kSimWorkingAddr);
    // A save keeps the working copy from its start; anything outside the two
    // settings pages can't be kept.
    if (flag == 0xAA && (offset < 0 || offset + count > kSimSettingsRoom))
        return kSimBadAddress;
    writeBytes(b.chip.ram, int(address - kSimRamBase), data);
    if (flag == 0xAA) {
        eraseSettingsPages(b.chip);
        const QByteArray copy = b.chip.ram.mid(int(kSimWorkingAddr - kSimRamBase), int(offset) + count);
        writeBytes(b.chip.flash, int(kSimSettingsAddr - kSimFlashBase), copy);
    }
    return 0;
}

uint8_t erasePage(SimBoard &b, const QByteArray &req)
{
    SimChip &c = b.chip;
    if (!c.downloading)
        return kSimNotReady;
    const uint32_t address = getLe32(req, 3);
    const uint8_t pageNo = byteAt(req, 7);
    if (!inRange(address, kSimPageSize, kSimFlashBase, kSimFlashSize)
        || (address - kSimFlashBase) % kSimPageSize != 0)
        return kSimBadAddress;
    const int page = int((address - kSimFlashBase) / kSimPageSize);
    if (pageNo != page + kSimFirstPage)
        return kSimBadAddress;
    for (int i = 0; i < kSimPageSize; ++i)
        c.flash[page * kSimPageSize + i] = char(0xFF);
    c.openPage = page;
    return 0;
}

uint8_t writePage(SimBoard &b, const QByteArray &req)
{
    SimChip &c = b.chip;
    if (!c.downloading || c.openPage < 0)
        return kSimNotReady;
    const int offset = getLe16(req, 3);
    const int count = getLe16(req, 5);
    const QByteArray data = req.mid(7, count);
    if (data.size() != count || offset + count > kSimPageSize)
        return kSimBadAddress;
    const int at = c.openPage * kSimPageSize + offset;
    // Flash only clears bits: the same data twice is fine, other data needs an erase.
    for (int i = 0; i < count; ++i) {
        const uint8_t old = uint8_t(c.flash[at + i]), now = uint8_t(data[i]);
        if ((old & now) != now)
            return kSimNotErased;
    }
    writeBytes(c.flash, at, data);
    return 0;
}

uint8_t closePage(SimBoard &b, const QByteArray &req)
{
    SimChip &c = b.chip;
    const uint8_t flag = byteAt(req, 2);
    if (flag != 0x00 && flag != 0xA7)
        return kSimBadFlag;
    // A close repeated after its reply went astray finds the image closed
    // already; it is answered, and counted once.
    if (!c.downloading)
        return 0;
    c.openPage = -1;
    if (flag == 0xA7) {
        c.downloading = false;
        b.mode = 2;
        ++b.imagesClosed;
        SimFinishedImage done{c.identity, c.flash, getLe32(req, 3)};
        b.finished << done;
        if (b.onImageClosed)
            b.onImageClosed(done);
        if (b.opt.swapAfterBurn)
            b.swapOffAt = b.tick + std::max(b.opt.swapOffTicks, b.opt.closeTicks + 1);
    }
    return 0;
}

// The reply body and its delay; false for a request that gets no reply.
bool answer(SimBoard &b, const QByteArray &req, QByteArray *body, int *delay)
{
    const uint8_t fn = byteAt(req, 1);
    *delay = b.opt.replyTicks;
    if (takeFault(b, SimFault::Refuse, fn)) {
        switch (fn) {
        case kFnLinkPoll: *body = statusBody(0); break;
        case kFnIdentify: *body = statusBody(0) + QByteArray(12, '\0'); break;
        case kFnDisplayAddress: *body = le32(0); break;
        case kFnReadMemory: *body = statusBody(kSimRefusedByFault) + QByteArray(5, '\0'); break;
        default: *body = statusBody(kSimRefusedByFault); break;
        }
        return true;
    }
    switch (fn) {
    case kFnLinkPoll:
        *body = statusBody(b.mode);
        break;
    case kFnIdentify:
        if (takeFault(b, SimFault::NoIdentity, fn))
            *body = statusBody(0) + QByteArray(12, '\0');
        else
            *body = statusBody(1) + b.chip.identity.left(12).leftJustified(12, '\0');
        break;
    case kFnEnterDownload:
        b.mode = 1;
        b.chip.downloading = true;
        b.chip.openPage = -1;
        *body = statusBody(0);
        break;
    case kFnErasePage:
        *body = statusBody(erasePage(b, req));
        *delay = b.opt.eraseTicks;
        break;
    case kFnWritePage:
        *body = statusBody(writePage(b, req));
        *delay = b.opt.writeTicks;
        break;
    case kFnClosePage:
        *body = statusBody(closePage(b, req));
        *delay = b.opt.closeTicks;
        break;
    case kFnReadMemory:
        *body = readMemory(b, req);
        break;
    case kFnWriteParams:
        *body = statusBody(writeParams(b, req));
        if (byteAt(req, 8) == 0xAA)
            *delay = b.opt.saveTicks;
        break;
    case kFnEraseParams:
        if (req.mid(2, 4) != QByteArray("\x44\x33\x22\x11", 4)) {
            *body = statusBody(kSimBadFlag);
        } else {
            putFactorySettings(b);
            *body = statusBody(0);
            *delay = b.opt.eraseParamsTicks;
        }
        break;
    case kFnDisplayAddress:
        *body = le32(kSimRunningAddr);
        break;
    default:
        return false;
    }
    return true;
}

void handleRequest(SimBoard &b, const QByteArray &req)
{
    const uint8_t fn = byteAt(req, 1);
    ++b.requests[fn];
    b.heard << req;
    if (b.heard.size() > kSimHeardKeep)
        b.heard.removeFirst();
    if (b.onFrame)
        b.onFrame(req, true);
    if (b.flakyPercent > 0 && b.faults.isEmpty()) {
        auto roll = [&b] {
            b.flakySeed = b.flakySeed * 1103515245u + 12345u;   // the dice need no quality
            return (b.flakySeed >> 16) & 0x7FFF;
        };
        if (int(roll() % 100) < b.flakyPercent)
            simArmFault(b, roll() % 2 ? SimFault::DropReply : SimFault::CorruptCrc, 1, fn);
    }
    if (!b.present || takeFault(b, SimFault::RemoveChip, fn))
        return;

    QByteArray body;
    int delay = 0;
    if (!answer(b, req, &body, &delay))
        return;
    QByteArray reply = MBBuildFrame(fn, body);

    if (takeFault(b, SimFault::DropReply, fn))
        return;
    if (takeFault(b, SimFault::WrongFunction, fn))
        reply = MBBuildFrame(uint8_t(fn ^ 0x80), body);
    if (takeFault(b, SimFault::CorruptCrc, fn))
        reply[reply.size() - 1] = char(uint8_t(reply[reply.size() - 1]) ^ 0xFF);
    if (b.onFrame)
        b.onFrame(reply, false);
    qint64 due = b.tick + std::max(0, delay);
    if (takeFault(b, SimFault::DelayReply, fn))
        due += std::max(0, b.opt.faultDelayTicks);
    if (takeFault(b, SimFault::SplitReply, fn)) {
        const int half = int(reply.size()) / 2;
        queueOut(b, due, reply.left(half));
        queueOut(b, due + std::max(1, b.opt.splitGapTicks), reply.mid(half));
    } else {
        queueOut(b, due, reply);
    }
}

// Takes whole requests off the front of the buffer. With the gap passed, a
// half frame at the front is given up one byte at a time, so that a good frame
// behind it still comes through. Works on an offset and cuts the buffer once.
void parse(SimBoard &b, bool gapPassed)
{
    const QByteArray rx = b.rx;
    int at = 0;
    QList<QByteArray> frames;
    while (at < rx.size()) {
        if (uint8_t(rx[at]) != kFrameAddress) {
            int next = int(rx.indexOf(char(kFrameAddress), at));
            if (next < 0)
                next = int(rx.size());
            b.droppedBytes += next - at;
            at = next;
            continue;
        }
        const QByteArray rest = QByteArray::fromRawData(rx.constData() + at, rx.size() - at);
        const int need = simRequestLength(rest);
        if (need == 0 || (need > 0 && rest.size() < need)) {
            if (!gapPassed)
                break;
            ++b.droppedBytes;
            ++at;
            continue;
        }
        if (need < 0 || !FrameCrcOk(rest.left(need))) {
            ++b.droppedBytes;
            ++at;
            continue;
        }
        frames << rx.mid(at, need);
        at += need;
    }
    b.rx.remove(0, at);
    // Answered after the cut, so that a hook that feeds the board again finds
    // the buffer as it should be.
    for (const QByteArray &f : frames)
        handleRequest(b, f);
}

} // namespace

QByteArray simDefaultIdentity()
{
    // Twelve bytes, as a chip's unique ID register would give them.
    return fromHexLine("53 49 4D 31 0A 33 47 15 00 00 00 01");
}

QByteArray simDefaultInfoBlock()
{
    QByteArray rec(kSimInfoSize, ' ');
    putLe16(rec, 0, 0xFFFF);                        // DeviceId -1
    putLe16(rec, 2, 0xFFFF);                        // DeviceId2 -1
    writeBytes(rec, 4, QByteArray("26311 "));       // DateUpdated: 11 March 2026
    writeBytes(rec, 10, QByteArray("SIM-000001"));  // OrderId, blank-filled to 30
    QStringEncoder gbk("GBK");
    QByteArray remark;
    if (gbk.isValid())
        remark = gbk.encode(QStringLiteral("K700操作员"));
    if (remark.size() != 10)
        remark = QByteArray("K700\xB2\xD9\xD7\xF7\xD4\xB1", 10);   // the same in GBK
    writeBytes(rec, 40, remark);
    return rec;
}

int simRequestLength(const QByteArray &buf)
{
    if (buf.isEmpty())
        return 0;
    if (uint8_t(buf[0]) != kFrameAddress)
        return -1;
    if (buf.size() < 2)
        return 0;
    switch (uint8_t(buf[1])) {
    case kFnLinkPoll:
    case kFnIdentify:
    case kFnEnterDownload:
    case kFnDisplayAddress:
        return 5;
    case kFnEraseParams:
        return 8;
    case kFnErasePage:
    case kFnClosePage:
    case kFnReadMemory:
        return 10;
    case kFnWritePage: {
        if (buf.size() < 7)
            return 0;
        const int count = getLe16(buf, 5);
        return count > kSimMaxWriteChunk ? -1 : 9 + count;
    }
    case kFnWriteParams: {
        if (buf.size() < 8)
            return 0;
        const int count = getLe16(buf, 6);
        return count > kSimMaxReadCount ? -1 : 11 + count;
    }
    default:
        return -1;
    }
}

SimBoard::SimBoard()
{
    simInit(*this, SimOptions{});
}

SimBoard::SimBoard(const SimOptions &options)
{
    simInit(*this, options);
}

void simInit(SimBoard &b, const SimOptions &options)
{
    b.opt = options;
    if (b.opt.identity.isEmpty())
        b.opt.identity = simDefaultIdentity();
    if (b.opt.factorySettings.isEmpty())
        b.opt.factorySettings = SampleSettingsBlock();
    b.chip = SimChip{};
    b.chip.identity = b.opt.identity.left(12).leftJustified(12, '\0');
    b.chip.flash = QByteArray(kSimFlashSize, char(0xFF));
    b.chip.ram = QByteArray(kSimRamSize, '\0');
    writeBytes(b.chip.flash, int(kSimInfoAddr - kSimFlashBase), simDefaultInfoBlock());
    b.mode = b.opt.mode;
    b.present = true;
    b.tick = 0;
    b.rx.clear();
    b.lastRxTick = 0;
    b.out.clear();
    b.paceCredit = 0;
    b.faults.clear();
    b.swapOffAt = b.swapOnAt = -1;
    b.chipsMade = 1;
    b.requests.fill(0);
    b.droppedBytes = 0;
    b.imagesClosed = 0;
    b.finished.clear();
    b.heard.clear();
    putFactorySettings(b);
}

void simReceive(SimBoard &b, const QByteArray &bytes)
{
    if (bytes.isEmpty())
        return;
    b.rx += bytes;
    b.lastRxTick = b.tick;
    // No request is longer than a write of the largest count; more than a few
    // of those waiting is a line full of noise.
    constexpr int keep = 4 * (11 + kSimMaxReadCount);
    if (b.rx.size() > keep) {
        b.droppedBytes += int(b.rx.size()) - keep;
        b.rx.remove(0, b.rx.size() - keep);
    }
    parse(b, false);
}

QByteArray simTick(SimBoard &b)
{
    ++b.tick;
    if (!b.rx.isEmpty() && b.tick - b.lastRxTick >= b.opt.partialGapTicks)
        parse(b, true);

    if (b.swapOffAt >= 0 && b.tick >= b.swapOffAt) {
        b.swapOffAt = -1;
        b.present = false;
        b.out.clear();
        b.swapOnAt = b.tick + std::max(1, b.opt.swapGoneTicks);
    }
    if (b.swapOnAt >= 0 && b.tick >= b.swapOnAt) {
        b.swapOnAt = -1;
        simSwapChip(b);
    }

    if (b.opt.bytesPerTick > 0)
        b.paceCredit += b.opt.bytesPerTick;
    return simGiveOut(b);
}

QByteArray simGiveOut(SimBoard &b)
{
    qint64 budget = std::numeric_limits<qint64>::max();
    if (b.opt.bytesPerTick > 0)
        budget = qint64(std::floor(b.paceCredit));
    QByteArray given;
    while (!b.out.isEmpty() && b.out.first().due <= b.tick && given.size() < budget) {
        SimPending &p = b.out.first();
        const qint64 room = budget - given.size();
        if (p.bytes.size() <= room) {
            given += p.bytes;
            b.out.removeFirst();
        } else {
            given += p.bytes.left(room);
            p.bytes.remove(0, room);
        }
    }
    if (b.opt.bytesPerTick > 0) {
        b.paceCredit -= double(given.size());
        // An idle line saves up no more than one tick's worth.
        b.paceCredit = std::min(b.paceCredit, b.opt.bytesPerTick);
    }
    if (!given.isEmpty() && b.onTransmit)
        b.onTransmit(given);
    return given;
}

void simArmFault(SimBoard &b, SimFault fault, int count, int function)
{
    if (fault == SimFault::None || count == 0)
        return;
    b.faults << SimArmedFault{fault, count, function};
}

void simClearFaults(SimBoard &b)
{
    b.faults.clear();
}

void simSetSilent(SimBoard &b, bool silent)
{
    b.present = !silent;
    if (silent)
        b.out.clear();
}

void simSwapChip(SimBoard &b, const QByteArray &identity)
{
    SimChip c;
    if (identity.isEmpty()) {
        c.identity = b.opt.identity;
        putLe32(c.identity, 8, getLe32(b.opt.identity, 8) + uint32_t(b.chipsMade));
        ++b.chipsMade;
    } else {
        c.identity = identity.left(12).leftJustified(12, '\0');
    }
    c.flash = QByteArray(kSimFlashSize, char(0xFF));
    c.ram = QByteArray(kSimRamSize, '\0');
    b.chip = c;
    b.mode = 1;   // a blank chip has nothing but its loader
    b.present = true;
    b.rx.clear();
    b.out.clear();
    b.swapOffAt = b.swapOnAt = -1;
}

void simSetMode(SimBoard &b, uint8_t mode)
{
    b.mode = mode;
}

QByteArray simFlash(const SimBoard &b, uint32_t address, int count)
{
    if (!inRange(address, count, kSimFlashBase, kSimFlashSize))
        return {};
    return b.chip.flash.mid(int(address - kSimFlashBase), count);
}

QByteArray simRam(const SimBoard &b, uint32_t address, int count)
{
    if (!inRange(address, count, kSimRamBase, kSimRamSize))
        return {};
    return b.chip.ram.mid(int(address - kSimRamBase), count);
}

qint64 simMsSinceStart(const SimBoard &b)
{
    return b.tick * kSimMsPerTick;
}

SimFault simFaultFromName(const QString &name)
{
    static const SimFault all[] = {SimFault::DropReply, SimFault::CorruptCrc, SimFault::Refuse,
                                   SimFault::SplitReply, SimFault::DelayReply, SimFault::WrongFunction,
                                   SimFault::NoIdentity, SimFault::RemoveChip};
    for (SimFault f : all)
        if (simFaultName(f).compare(name, Qt::CaseInsensitive) == 0)
            return f;
    return SimFault::None;
}

QString simFaultName(SimFault f)
{
    switch (f) {
    case SimFault::DropReply: return QStringLiteral("DropReply");
    case SimFault::CorruptCrc: return QStringLiteral("CorruptCrc");
    case SimFault::Refuse: return QStringLiteral("Refuse");
    case SimFault::SplitReply: return QStringLiteral("SplitReply");
    case SimFault::DelayReply: return QStringLiteral("DelayReply");
    case SimFault::WrongFunction: return QStringLiteral("WrongFunction");
    case SimFault::NoIdentity: return QStringLiteral("NoIdentity");
    case SimFault::RemoveChip: return QStringLiteral("RemoveChip");
    case SimFault::None: break;
    }
    return QStringLiteral("None");
}

} // namespace pyro
