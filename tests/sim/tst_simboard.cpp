// The simulated board on its own, against a bare master: what it leaves in
// flash and RAM, what it refuses, how injected faults look on the line, and
// how it finds frames again in a noisy stream. The burn and parameter engines
// against it are tested in tests/burn and tests/e2e.
#include "fakeport.h"
#include "frame.h"
#include "link.h"
#include "samplevalues.h"
#include "simboard.h"
#include "simlink.h"

#include <QRandomGenerator>
#include <QtTest>

using namespace pyro;

namespace {

// A master with its port and the board behind it. The link sits in a mode
// with no state machine, so the test alone decides what goes on the line.
struct Bench {
    FakePort port;
    SimBoard board;
    Link link;

    explicit Bench(const SimOptions &o = {}) : board(o)
    {
        AttachPort(link, &port);
        port.open(QStringLiteral("COM1"), PortSettings{});
        attachSim(port, board);
        link.ModeRequest = link.LinkMode = 5;
    }

    // The exchange's MBResult. Without a body, the one byte most requests
    // carry: 0xA7 for the identity, 0 otherwise.
    int exchange(uint8_t fn, const QByteArray &body = {})
    {
        MBBuildFrame(link, fn, body.isEmpty() ? QByteArray(1, fn == kFnIdentify ? char(0xA7) : '\0') : body);
        MBSend(link, 3, 20, 100);
        return simRunExchange(port, board, link);
    }
    // The reply's status byte, or -1 when no good reply came.
    int status() const { return link.MBResult == 0 && link.MBRxBuf.size() > 2 ? uint8_t(link.MBRxBuf[2]) : -1; }
    int ask(uint8_t fn, const QByteArray &body = {})
    {
        exchange(fn, body);
        return status();
    }
    QByteArray identity() { return exchange(kFnIdentify) == 0 ? link.MBRxBuf.mid(3, 12) : QByteArray(); }
    // 0xF4: the data bytes of the reply, empty on refusal.
    QByteArray read(uint32_t address, int count)
    {
        exchange(kFnReadMemory, le32(address) + le16(uint16_t(count)));
        return link.MBRxBuf.mid(8, link.MBRxBuf.size() - 10);
    }
};

QByteArray patterned(int size, uint32_t seed)
{
    QByteArray b(size, '\0');
    QRandomGenerator g(seed);
    for (char &c : b)
        c = char(g.bounded(256));
    return b;
}

QByteArray pageBody(uint8_t flag, uint32_t value, int pageNo)
{
    return char(flag) + le32(value) + char(pageNo);
}

QByteArray paramsBody(uint32_t address, uint8_t flag, const QByteArray &data)
{
    return le32(address) + le16(uint16_t(data.size())) + char(flag) + data;
}

QByteArray writeBody(int offset, const QByteArray &data)
{
    return '\0' + le16(uint16_t(offset)) + le16(uint16_t(data.size())) + data;
}

// The burn's wire sequence for one chip; true when every step answered status 0.
bool burn(Bench &t, const QByteArray &image, int frameLen)
{
    if (t.ask(kFnEnterDownload) != 0)
        return false;
    for (int done = 0; done < image.size();) {
        if (t.ask(kFnErasePage, pageBody(0, kSimFlashBase + uint32_t(done), done / kSimPageSize + kSimFirstPage)) != 0)
            return false;
        for (int fill = 0; fill < kSimPageSize && done < image.size();) {
            const int chunk = std::min({frameLen, kSimPageSize - fill, int(image.size()) - done});
            if (t.ask(kFnWritePage, writeBody(fill, image.mid(done, chunk))) != 0)
                return false;
            fill += chunk;
            done += chunk;
        }
        const uint8_t flag = done == image.size() ? 0xA7 : 0x00;
        if (t.ask(kFnClosePage, pageBody(flag, uint32_t(done), done / kSimPageSize + kSimFirstPage)) != 0)
            return false;
    }
    return true;
}

const QByteArray kPoll = fromHexLine("01 F0 00 00 64");
const QByteArray kIdentify = fromHexLine("01 F1 A7 2A 24");

} // namespace

class TstSimBoard : public QObject {
    Q_OBJECT
private slots:
    void burnLeavesImageInFlash_data();
    void burnLeavesImageInFlash();
    void pageOperationsRefused();
    void refusalsChangeNothing_data();
    void refusalsChangeNothing();
    void runningValuesAtReadTime();
    void faultOutcome_data();
    void faultOutcome();
    void streamResync_data();
    void streamResync();
    void noiseNeverStalls();
    void flakyOncePerFrame();
};

void TstSimBoard::burnLeavesImageInFlash_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("frameLen");
    QTest::addColumn<bool>("swap");   // swapAfterBurn
    QTest::newRow("one byte") << 1 << 512 << false;
    QTest::newRow("part of a page, 512") << 2500 << 512 << false;
    QTest::newRow("chunks across page ends, 200, then a new chip") << 5000 << 200 << true;
}

void TstSimBoard::burnLeavesImageInFlash()
{
    QFETCH(int, size);
    QFETCH(int, frameLen);
    QFETCH(bool, swap);
    SimOptions o;
    o.swapAfterBurn = swap;
    Bench t(o);
    const QByteArray id = t.identity();
    const QByteArray image = patterned(size, uint32_t(size));
    QVERIFY(burn(t, image, frameLen));
    QCOMPARE(t.board.imagesClosed, 1);
    QCOMPARE(t.board.finished.size(), 1);
    const SimFinishedImage done = t.board.finished[0];
    QCOMPARE(done.identity, id);
    QCOMPARE(done.flash.left(size), image);
    const int rest = kSimPageSize - 1 - (size - 1) % kSimPageSize;   // of the last page, erased
    QCOMPARE(done.flash.mid(size, rest), QByteArray(rest, char(0xFF)));
    if (!swap) {
        QCOMPARE(t.ask(kFnLinkPoll), 2);   // out of the loader, the new firmware runs
        return;
    }
    // The burned chip goes; after a silence the next one answers, blank, in
    // its loader and with an identity of its own.
    simRun(t.port, t.board, t.link, o.swapOffTicks);
    QCOMPARE(t.exchange(kFnIdentify), 2);
    simRun(t.port, t.board, t.link, o.swapGoneTicks);
    const QByteArray next = t.identity();
    QVERIFY(next.size() == 12 && next != id);
    QCOMPARE(t.ask(kFnLinkPoll), 1);
    QCOMPARE(simFlash(t.board, kSimFlashBase, size), QByteArray(size, char(0xFF)));
}

// Step by step from a running chip, as a real loader refuses page work.
void TstSimBoard::pageOperationsRefused()
{
    Bench t;
    const QByteArray chunk(16, char(0x5A));
    QCOMPARE(t.ask(kFnErasePage, pageBody(0, kSimFlashBase, 8)), kSimNotReady);   // not in the loader
    QCOMPARE(t.ask(kFnEnterDownload), 0);
    QCOMPARE(t.ask(kFnLinkPoll), 1);
    QCOMPARE(t.ask(kFnWritePage, writeBody(0, chunk)), kSimNotReady);   // no page erased yet

    // The same chunk twice is fine; other data over it needs an erase; a
    // chunk must stay inside its page.
    QCOMPARE(t.ask(kFnErasePage, pageBody(0, kSimInfoAddr, 9)), 0);
    QCOMPARE(simFlash(t.board, kSimInfoAddr, kSimPageSize), QByteArray(kSimPageSize, char(0xFF)));
    QCOMPARE(t.ask(kFnWritePage, writeBody(0, chunk)), 0);
    QCOMPARE(t.ask(kFnWritePage, writeBody(0, chunk)), 0);
    QCOMPARE(t.ask(kFnWritePage, writeBody(0, QByteArray(16, char(0xA5)))), kSimNotErased);
    QCOMPARE(simFlash(t.board, kSimInfoAddr, 16), chunk);
    QCOMPARE(t.ask(kFnWritePage, writeBody(1020, QByteArray(8, '\0'))), kSimBadAddress);

    // An unknown close flag is refused; after a close no page is open; a
    // closing frame repeated is answered, and the image counted once.
    QCOMPARE(t.ask(kFnClosePage, pageBody(0x55, 1024, 10)), kSimBadFlag);
    QCOMPARE(t.ask(kFnClosePage, pageBody(0x00, 2048, 10)), 0);
    QCOMPARE(t.ask(kFnWritePage, writeBody(0, chunk)), kSimNotReady);
    QCOMPARE(t.ask(kFnClosePage, pageBody(0xA7, 2048, 10)), 0);
    QCOMPARE(t.ask(kFnClosePage, pageBody(0xA7, 2048, 10)), 0);
    QCOMPARE(t.board.imagesClosed, 1);
}

void TstSimBoard::refusalsChangeNothing_data()
{
    QTest::addColumn<int>("function");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<int>("status");
    const int read = kFnReadMemory, erase = kFnErasePage, params = kFnWriteParams, bad = kSimBadAddress;
    const auto range = [](uint32_t at, int n) { return le32(at) + le16(uint16_t(n)); };
    const QByteArray zeros(96, '\0'), tooMany(kSimSettingsRoom + 1, '\0');
    QTest::newRow("read below the flash") << read << range(0x08001FFF, 2) << bad;
    QTest::newRow("read the last flash byte") << read << range(0x08011FFF, 1) << 0;
    QTest::newRow("read across the flash end") << read << range(0x08011FFF, 2) << bad;
    QTest::newRow("read no bytes at the RAM start") << read << range(kSimRamBase, 0) << 0;
    QTest::newRow("read across the RAM end") << read << range(0x20004FFF, 2) << bad;
    QTest::newRow("read at the top of the address space") << read << range(0xFFFFFFFF, 2) << bad;
    QTest::newRow("read the largest count") << read << range(kSimFlashBase, kSimMaxReadCount) << 0;
    QTest::newRow("read too many") << read << range(kSimFlashBase, kSimMaxReadCount + 1) << bad;
    QTest::newRow("erase misaligned") << erase << pageBody(0, kSimFlashBase + 512, 8) << bad;
    QTest::newRow("erase, wrong page number") << erase << pageBody(0, kSimFlashBase, 9) << bad;
    QTest::newRow("erase past the flash") << erase << pageBody(0, kSimFlashBase + kSimFlashSize, 72) << bad;
    QTest::newRow("erase wrapping round") << erase << pageBody(0, 0xFFFFFC00u, 8) << bad;
    QTest::newRow("update outside the RAM") << params << paramsBody(0x30000000, 0x00, zeros) << bad;
    QTest::newRow("save not from the working copy") << params << paramsBody(kSimWorkingAddr - 16, 0xAA, zeros) << bad;
    QTest::newRow("save past the settings pages") << params << paramsBody(kSimWorkingAddr, 0xAA, tooMany) << bad;
    QTest::newRow("unknown parameter flag") << params << paramsBody(kSimWorkingAddr, 0x55, zeros) << int(kSimBadFlag);
    QTest::newRow("wrong erase pattern") << int(kFnEraseParams) << fromHexLine("44 33 22 12") << int(kSimBadFlag);
}

// Bad addresses, counts and flags are refused and leave the chip as it was;
// reads up to the very edges are answered in full.
void TstSimBoard::refusalsChangeNothing()
{
    QFETCH(int, function);
    QFETCH(QByteArray, body);
    QFETCH(int, status);
    Bench t;
    QCOMPARE(t.ask(kFnEnterDownload), 0);   // page erases are only taken in the loader
    const SimChip before = t.board.chip;
    QCOMPARE(t.ask(uint8_t(function), body), status);
    if (status == 0)
        QCOMPARE(t.link.MBRxBuf.size(), 10 + getLe16(body, 4));
    else
        QVERIFY(t.board.chip.flash == before.flash && t.board.chip.ram == before.ram);
}

// The running values are those of the moment the read is heard.
void TstSimBoard::runningValuesAtReadTime()
{
    Bench t;
    qint64 heardAt = -1;
    t.board.onFrame = [&](const QByteArray &f, bool fromMaster) {
        if (fromMaster && uint8_t(f[1]) == kFnReadMemory)
            heardAt = t.board.tick;
    };
    const int n = int(SampleRunningValues(0).size());
    for (int i = 0; i < 3; ++i) {
        simRun(t.port, t.board, t.link, 40 * i);
        const QByteArray got = t.read(kSimRunningAddr, n);   // sets heardAt
        QCOMPARE(got, SampleRunningValues(heardAt * kSimMsPerTick));
    }
}

void TstSimBoard::faultOutcome_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<int>("function");
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("outcome");   // MBResult of each spoiled exchange
    QTest::addColumn<int>("status");    // its status byte when it got through; -1 not looked at
    QTest::addColumn<int>("next");      // MBResult of the exchange after them
    const int poll = kFnLinkPoll, id = kFnIdentify;
    QTest::newRow("drop") << "DropReply" << poll << 1 << 2 << -1 << 0;
    QTest::newRow("corrupt crc, twice") << "CorruptCrc" << poll << 2 << 4 << -1 << 0;
    // The late part of a split or delayed reply spoils the next exchange too.
    QTest::newRow("split short") << "SplitReply" << poll << 1 << 3 << -1 << 4;
    QTest::newRow("split long") << "SplitReply" << id << 1 << 4 << -1 << 4;
    QTest::newRow("delay") << "DelayReply" << poll << 1 << 2 << -1 << 4;
    QTest::newRow("wrong function") << "WrongFunction" << poll << 1 << 5 << -1 << 0;
    QTest::newRow("remove chip") << "RemoveChip" << id << 1 << 2 << -1 << 0;
    QTest::newRow("no identity") << "NoIdentity" << id << 1 << 0 << 0 << 0;
    QTest::newRow("refuse download") << "Refuse" << int(kFnEnterDownload) << 1 << 0 << int(kSimRefusedByFault) << 0;
    // Where success is not status 0, a refusal reads as status 0.
    QTest::newRow("refuse poll") << "Refuse" << poll << 1 << 0 << 0 << 0;
    QTest::newRow("refuse identify") << "Refuse" << id << 1 << 0 << 0 << 0;
}

void TstSimBoard::faultOutcome()
{
    QFETCH(QString, fault);
    QFETCH(int, function);
    QFETCH(int, count);
    QFETCH(int, outcome);
    QFETCH(int, status);
    QFETCH(int, next);
    Bench t;
    const SimFault f = simFaultFromName(fault);
    QCOMPARE(simFaultName(f), fault);
    simArmFault(t.board, f, count, function);
    QCOMPARE(t.ask(kFnDisplayAddress == function ? kFnLinkPoll : kFnDisplayAddress), 0);   // other functions pass
    for (int i = 0; i < count; ++i) {
        QCOMPARE(t.exchange(uint8_t(function)), outcome);
        if (status >= 0)
            QCOMPARE(t.status(), status);
    }
    QVERIFY(!t.board.chip.downloading);   // a refused 0x03 is not carried out
    // A late part lands while the line is idle, in front of the next reply.
    simRun(t.port, t.board, t.link, 40);
    QCOMPARE(t.exchange(uint8_t(function)), next);
    QCOMPARE(t.exchange(uint8_t(function)), 0);
    QVERIFY(t.board.faults.isEmpty());
}

void TstSimBoard::streamResync_data()
{
    QTest::addColumn<QList<QByteArray>>("pieces");   // a tick passes between pieces
    QTest::addColumn<QByteArray>("expected");
    const QByteArray pollReply = MBBuildFrame(kFnLinkPoll, QByteArray(1, '\2'));
    const QByteArray idReply = MBBuildFrame(kFnIdentify, '\1' + simDefaultIdentity());
    QList<QByteArray> bytewise;
    for (char c : kPoll)
        bytewise << QByteArray(1, c);
    const QByteArray bigWriteHead = fromHexLine("01 07 00 00 00 00 02");   // promises 512 data bytes

    QTest::newRow("byte by byte") << bytewise << pollReply;
    QTest::newRow("two in one piece") << QList<QByteArray>{kPoll + kIdentify} << pollReply + idReply;
    QTest::newRow("address bytes in front") << QList<QByteArray>{fromHexLine("01 01 01") + kPoll} << pollReply;
    QTest::newRow("unknown function") << QList<QByteArray>{fromHexLine("01 55 00") + kPoll} << pollReply;
    QTest::newRow("bad crc, then good") << QList<QByteArray>{fromHexLine("01 F0 00 64 00"), kPoll} << pollReply;
    QTest::newRow("impossible count") << QList<QByteArray>{fromHexLine("01 07 00 00 00 FF FF") + kPoll} << pollReply;
    QTest::newRow("half frame, gap, frame in pieces")
        << QList<QByteArray>{bigWriteHead, {}, {}, {}, {}, kIdentify.left(2), kIdentify.mid(2)} << idReply;
}

void TstSimBoard::streamResync()
{
    QFETCH(QList<QByteArray>, pieces);
    QFETCH(QByteArray, expected);
    SimBoard b;
    QByteArray out;
    for (const QByteArray &p : pieces) {
        simReceive(b, p);
        out += simTick(b);
    }
    for (int i = 0; i < 10; ++i)
        out += simTick(b);
    QCOMPARE(toHexLine(out), toHexLine(expected));
    QVERIFY(b.rx.isEmpty());
}

// Seeded noise, weighted to the address byte and known function codes, in
// pieces: after a quiet gap the board always hears a good frame again.
void TstSimBoard::noiseNeverStalls()
{
    SimBoard b;
    QRandomGenerator g(12345);
    const QByteArray pollReply = MBBuildFrame(kFnLinkPoll, QByteArray(1, '\2'));
    const uint8_t weighted[] = {0x01, 0x07, 0xF5};
    for (int round = 0; round < 300; ++round) {
        for (int pieces = int(g.bounded(1, 20)); pieces > 0; --pieces) {
            QByteArray piece(int(g.bounded(1, 64)), '\0');
            for (char &c : piece)
                c = char(g.bounded(8) < 3 ? weighted[g.bounded(3)] : g.bounded(256));
            simReceive(b, piece);
            simTick(b);
        }
        for (int i = 0; i <= b.opt.partialGapTicks; ++i)
            simTick(b);
        simSetMode(b, 2);   // a chance frame in the noise may have entered the loader
        simReceive(b, kPoll);
        QByteArray out;
        for (int i = 0; i < 40 && !out.endsWith(pollReply); ++i)
            out += simTick(b);
        QVERIFY2(out.endsWith(pollReply), qPrintable(QStringLiteral("round %1").arg(round)));
        simInit(b, b.opt);   // the noise may have burned or erased things
    }
}

// A flaky board spoils about its percent of the frames, however the line
// hands them over: a long frame in many small pieces is one throw.
void TstSimBoard::flakyOncePerFrame()
{
    SimBoard b;
    b.flakyPercent = 10;
    b.flakySeed = 7;
    const QByteArray write = MBBuildFrame(kFnWritePage, writeBody(0, QByteArray(512, '\x5A')));
    int lost = 0, bad = 0;
    const int frames = 400;
    for (int i = 0; i < frames; ++i) {
        for (int at = 0; at < write.size(); at += 8)
            simReceive(b, write.mid(at, 8));
        const QByteArray reply = simGiveOut(b);
        if (reply.isEmpty())
            ++lost;
        else if (!FrameCrcOk(reply))
            ++bad;
        else
            QCOMPARE(reply.size(), 5);
    }
    QCOMPARE(b.requests[kFnWritePage], frames);
    QVERIFY2(lost > 0 && bad > 0 && lost + bad >= frames / 20 && lost + bad <= frames / 5,
             qPrintable(QString("%1 lost, %2 spoiled").arg(lost).arg(bad)));
}

QTEST_GUILESS_MAIN(TstSimBoard)
#include "tst_simboard.moc"
