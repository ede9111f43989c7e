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
    Bench(const Bench &) = delete;

    int exchange(uint8_t fn, const QByteArray &body, int quiet = 3, int reply = 20, int send = 20)
    {
        MBBuildFrame(link, fn, body);
        MBSend(link, int16_t(quiet), int16_t(reply), int16_t(send));
        return simRunExchange(port, board, link);
    }
    QByteArray rx() const { return link.MBRxBuf; }
    uint8_t status() const { return link.MBRxBuf.size() > 2 ? uint8_t(link.MBRxBuf[2]) : 0xFF; }

    // 0xF4: the data bytes of the reply, or empty with the status on refusal.
    QByteArray read(uint32_t address, int count)
    {
        if (exchange(kFnReadMemory, le32(address) + le16(uint16_t(count)), 3, 100, 50) != 0)
            return "no reply";
        return rx().mid(8, rx().size() - 10);
    }
    int writeParams(uint32_t address, uint8_t flag, const QByteArray &data)
    {
        return exchange(kFnWriteParams, le32(address) + le16(uint16_t(data.size())) + char(flag) + data, 3, 200, 500);
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

// A settings block with the 32-byte header: length at 20, CRC of the payload at 28.
QByteArray settingsBlock(int size, uint32_t seed)
{
    QByteArray b = patterned(size, seed);
    putLe32(b, 20, uint32_t(size - 32));
    return b;
}

QByteArray pageBody(uint8_t flag, uint32_t value, uint8_t pageNo)
{
    return QByteArray(1, char(flag)) + le32(value) + char(pageNo);
}

// The burn's wire sequence for one chip; true when every step answered status 0.
bool burn(Bench &t, const QByteArray &image, int frameLen)
{
    if (t.exchange(kFnEnterDownload, QByteArray(1, '\0'), 3, 20, 100) != 0 || t.status() != 0)
        return false;
    int done = 0;
    while (done < image.size()) {
        const uint8_t pageNo = uint8_t(done / kSimPageSize + kSimFirstPage);
        if (t.exchange(kFnErasePage, pageBody(0, kSimFlashBase + uint32_t(done), pageNo), 3, 20, 100) != 0
            || t.status() != 0)
            return false;
        int fill = 0;
        while (fill < kSimPageSize && done + fill < image.size()) {
            const int chunk = std::min({frameLen, kSimPageSize - fill, int(image.size()) - done - fill});
            const QByteArray body = QByteArray(1, '\0') + le16(uint16_t(fill)) + le16(uint16_t(chunk))
                + image.mid(done + fill, chunk);
            if (t.exchange(kFnWritePage, body, 3, 20, 100) != 0 || t.status() != 0)
                return false;
            fill += chunk;
        }
        done += fill;
        const uint8_t flag = done == image.size() ? 0xA7 : 0x00;
        const QByteArray close = pageBody(flag, uint32_t(done), uint8_t(done / kSimPageSize + kSimFirstPage));
        if (t.exchange(kFnClosePage, close, 3, 20, 100) != 0 || t.status() != 0)
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
    void linkMonitorSeesMode_data();
    void linkMonitorSeesMode();
    void identify();
    void burnLeavesImageInFlash_data();
    void burnLeavesImageInFlash();
    void pageOperationsRefused();
    void memoryReads();
    void readsOutOfRangeRefused_data();
    void readsOutOfRangeRefused();
    void parameterWriteSaveErase();
    void faultOutcome_data();
    void faultOutcome();
    void faultCountAndFunction();
    void silentAndSwap();
    void swapAfterBurn();
    void streamResync_data();
    void streamResync();
    void noiseNeverStalls();
    void pacing();
};

void TstSimBoard::linkMonitorSeesMode_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QString>("text");
    QTest::newRow("loader") << 1 << "Link normal-download mode";
    QTest::newRow("running") << 2 << "Link normal-run mode";
    QTest::newRow("stopped") << 3 << "Link normal-stop mode";
}

void TstSimBoard::linkMonitorSeesMode()
{
    QFETCH(int, mode);
    QFETCH(QString, text);
    SimOptions o;
    o.mode = uint8_t(mode);
    Bench t(o);
    t.link.ModeRequest = t.link.LinkMode = 0;
    simRun(t.port, t.board, t.link, 200, [&] { return t.link.view.SB[1] == text; });
    QCOMPARE(t.link.view.SB[1], text);
    QVERIFY(t.board.requests[kFnLinkPoll] >= 1);

    // A board gone quiet: six failed polls.
    simSetSilent(t.board, true);
    simRun(t.port, t.board, t.link, 400, [&] { return t.link.view.SB[1] != text; });
    QCOMPARE(t.link.view.SB[1], QStringLiteral("Link failure！"));
}

void TstSimBoard::identify()
{
    SimOptions o;
    o.identity = fromHexLine("11 22 33 44 55 66 77 88 99 AA BB CC");
    Bench t(o);
    QCOMPARE(t.exchange(kFnIdentify, QByteArray(1, char(0xA7)), 3, 5, 10), 0);
    QCOMPARE(t.rx().size(), 17);
    QVERIFY(t.status() != 0);
    QCOMPARE(t.rx().mid(3, 12), o.identity);

    // A chip that answers without an identity, once.
    simArmFault(t.board, SimFault::NoIdentity);
    QCOMPARE(t.exchange(kFnIdentify, QByteArray(1, char(0xA7)), 3, 5, 10), 0);
    QCOMPARE(t.status(), uint8_t(0));
    QCOMPARE(t.exchange(kFnIdentify, QByteArray(1, char(0xA7)), 3, 5, 10), 0);
    QVERIFY(t.status() != 0);

    // The built-in identity when none is given.
    Bench d;
    QCOMPARE(d.exchange(kFnIdentify, QByteArray(1, char(0xA7)), 3, 5, 10), 0);
    QCOMPARE(d.rx().mid(3, 12), simDefaultIdentity());
}

void TstSimBoard::burnLeavesImageInFlash_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("frameLen");
    QTest::newRow("2500 bytes, 512") << 2500 << 512;
    QTest::newRow("whole pages, 512") << 3072 << 512;
    QTest::newRow("one byte") << 1 << 512;
    QTest::newRow("chunks across page ends, 200") << 5000 << 200;
    QTest::newRow("largest image, 512") << 32767 << 512;
}

void TstSimBoard::burnLeavesImageInFlash()
{
    QFETCH(int, size);
    QFETCH(int, frameLen);
    Bench t;
    const QByteArray image = patterned(size, uint32_t(size));
    const QByteArray idBefore = t.board.chip.identity;
    QVERIFY(burn(t, image, frameLen));
    QCOMPARE(simFlash(t.board, kSimFlashBase, size), image);
    // The rest of the last page is erased.
    const int pageEnd = (size + kSimPageSize - 1) / kSimPageSize * kSimPageSize;
    QCOMPARE(simFlash(t.board, kSimFlashBase + uint32_t(size), pageEnd - size), QByteArray(pageEnd - size, char(0xFF)));
    QCOMPARE(t.board.imagesClosed, 1);
    QCOMPARE(t.board.finished.size(), 1);
    QCOMPARE(t.board.finished[0].flash.left(size), image);
    QCOMPARE(t.board.finished[0].identity, idBefore);
    QCOMPARE(t.board.finished[0].bytesDone, uint32_t(size));
    // Out of the loader, the new firmware runs.
    QCOMPARE(t.exchange(kFnLinkPoll, QByteArray(1, '\0')), 0);
    QCOMPARE(t.status(), uint8_t(2));
}

void TstSimBoard::pageOperationsRefused()
{
    Bench t;
    const QByteArray chunk(16, char(0x5A));
    const QByteArray write0 = QByteArray(1, '\0') + le16(0) + le16(16) + chunk;

    // Page work outside the loader's download state.
    QCOMPARE(t.exchange(kFnErasePage, pageBody(0, kSimFlashBase, 8)), 0);
    QCOMPARE(t.status(), kSimNotReady);
    QCOMPARE(t.exchange(kFnEnterDownload, QByteArray(1, '\0')), 0);
    QCOMPARE(t.status(), uint8_t(0));
    QCOMPARE(t.exchange(kFnLinkPoll, QByteArray(1, '\0')), 0);
    QCOMPARE(t.status(), uint8_t(1));
    QCOMPARE(t.exchange(kFnWritePage, write0), 0);
    QCOMPARE(t.status(), kSimNotReady);   // no page erased yet

    // Bad pages: misaligned, wrong number, below and past the flash.
    QCOMPARE(t.exchange(kFnErasePage, pageBody(0, kSimFlashBase + 512, 8)), 0);
    QCOMPARE(t.status(), kSimBadAddress);
    QCOMPARE(t.exchange(kFnErasePage, pageBody(0, kSimFlashBase, 9)), 0);
    QCOMPARE(t.status(), kSimBadAddress);
    QCOMPARE(t.exchange(kFnErasePage, pageBody(0, kSimFlashBase - kSimPageSize, 7)), 0);
    QCOMPARE(t.status(), kSimBadAddress);
    QCOMPARE(t.exchange(kFnErasePage, pageBody(0, kSimFlashBase + kSimFlashSize, 72)), 0);
    QCOMPARE(t.status(), kSimBadAddress);
    QCOMPARE(t.exchange(kFnErasePage, pageBody(0, 0xFFFFFC00u, 8)), 0);
    QCOMPARE(t.status(), kSimBadAddress);

    // The info page erased and written; the same chunk twice is fine, other
    // data over it needs an erase, and a chunk must stay inside the page.
    QCOMPARE(t.exchange(kFnErasePage, pageBody(0, kSimInfoAddr, 9)), 0);
    QCOMPARE(t.status(), uint8_t(0));
    QCOMPARE(simFlash(t.board, kSimInfoAddr, kSimPageSize), QByteArray(kSimPageSize, char(0xFF)));
    QCOMPARE(t.exchange(kFnWritePage, write0), 0);
    QCOMPARE(t.status(), uint8_t(0));
    QCOMPARE(t.exchange(kFnWritePage, write0), 0);
    QCOMPARE(t.status(), uint8_t(0));
    const QByteArray other = QByteArray(1, '\0') + le16(0) + le16(16) + QByteArray(16, char(0xA5));
    QCOMPARE(t.exchange(kFnWritePage, other), 0);
    QCOMPARE(t.status(), kSimNotErased);
    QCOMPARE(simFlash(t.board, kSimInfoAddr, 16), chunk);
    const QByteArray over = QByteArray(1, '\0') + le16(1020) + le16(8) + QByteArray(8, '\0');
    QCOMPARE(t.exchange(kFnWritePage, over), 0);
    QCOMPARE(t.status(), kSimBadAddress);

    // Close: an unknown flag is refused; after a close no page is open.
    QCOMPARE(t.exchange(kFnClosePage, pageBody(0x55, 1024, 10)), 0);
    QCOMPARE(t.status(), kSimBadFlag);
    QCOMPARE(t.exchange(kFnClosePage, pageBody(0x00, 2048, 10)), 0);
    QCOMPARE(t.status(), uint8_t(0));
    QCOMPARE(t.exchange(kFnWritePage, write0), 0);
    QCOMPARE(t.status(), kSimNotReady);
    QCOMPARE(t.board.imagesClosed, 0);

    // A closing frame repeated after the image closed is answered, counted once.
    QCOMPARE(t.exchange(kFnClosePage, pageBody(0xA7, 2048, 10)), 0);
    QCOMPARE(t.exchange(kFnClosePage, pageBody(0xA7, 2048, 10)), 0);
    QCOMPARE(t.status(), uint8_t(0));
    QCOMPARE(t.board.imagesClosed, 1);
}

void TstSimBoard::memoryReads()
{
    Bench t;
    QCOMPARE(t.read(kSimSettingsAddr, int(SampleSettingsBlock().size())), SampleSettingsBlock());
    QCOMPARE(t.read(kSimWorkingAddr, int(SampleSettingsBlock().size())), SampleSettingsBlock());
    QCOMPARE(t.rx().mid(2, 6), QByteArray(1, '\0') + QByteArray(3, '\0') + le16(uint16_t(SampleSettingsBlock().size())));

    // The information block, as the 0xF4 of the device information read asks.
    QCOMPARE(t.exchange(kFnReadMemory, fromHexLine("00 24 00 08 32 00"), 3, 100, 50), 0);
    QCOMPARE(t.link.MBTxBuf, fromHexLine("01 F4 00 24 00 08 32 00 AD D0"));
    const QByteArray info = t.rx().mid(8, 50);
    QCOMPARE(info.size(), 50);
    QCOMPARE(getLe16(info, 0), uint16_t(0xFFFF));            // DeviceId -1
    QCOMPARE(info.mid(40, 10), QByteArray("K700\xB2\xD9\xD7\xF7\xD4\xB1"));   // "K700操作员" in GBK
    QCOMPARE(info.mid(10, 30).trimmed(), QByteArray("SIM-000001"));

    // The running values: where 0xFF says, as they stand at the time of the read.
    QCOMPARE(t.exchange(kFnDisplayAddress, QByteArray(1, '\0'), 3, 100, 50), 0);
    QCOMPARE(t.rx().size(), 8);
    const uint32_t at = getLe32(t.rx(), 2);
    QVERIFY(qint32(at) > 0x20000000);
    qint64 heardAt = -1;
    t.board.onFrame = [&](const QByteArray &f, bool fromMaster) {
        if (fromMaster && f.size() > 1 && uint8_t(f[1]) == kFnReadMemory)
            heardAt = t.board.tick;
    };
    const int n = std::max(16, int(SampleRunningValues(0).size()));
    for (int i = 0; i < 3; ++i) {
        simRun(t.port, t.board, t.link, 40 * i);
        const QByteArray got = t.read(at, n);
        QCOMPARE(got.size(), n);
        QCOMPARE(got.left(SampleRunningValues(0).size()), SampleRunningValues(heardAt * kSimMsPerTick).left(n));
    }
}

void TstSimBoard::readsOutOfRangeRefused_data()
{
    QTest::addColumn<quint32>("address");
    QTest::addColumn<int>("count");
    QTest::addColumn<bool>("good");
    QTest::newRow("address 0") << 0u << 4 << false;
    QTest::newRow("the loader's pages") << 0x08001000u << 16 << false;
    QTest::newRow("across the flash start") << 0x08001FFFu << 2 << false;
    QTest::newRow("last flash byte") << 0x08011FFFu << 1 << true;
    QTest::newRow("across the flash end") << 0x08011FFFu << 2 << false;
    QTest::newRow("first RAM byte, none") << 0x20000000u << 0 << true;
    QTest::newRow("across the RAM end") << 0x20004FFFu << 2 << false;
    QTest::newRow("past the RAM") << 0x20005000u << 1 << false;
    QTest::newRow("top of the address space") << 0xFFFFFFFFu << 2 << false;
    QTest::newRow("count too large") << kSimFlashBase << 5000 << false;
    QTest::newRow("largest count") << kSimFlashBase << kSimMaxReadCount << true;
}

void TstSimBoard::readsOutOfRangeRefused()
{
    QFETCH(quint32, address);
    QFETCH(int, count);
    QFETCH(bool, good);
    Bench t;
    const QByteArray data = t.read(address, count);
    QCOMPARE(t.status(), good ? uint8_t(0) : uint8_t(kSimBadAddress));
    QCOMPARE(data.size(), good ? count : 0);
}

void TstSimBoard::parameterWriteSaveErase()
{
    SimOptions o;
    o.factorySettings = settingsBlock(96, 1);
    Bench t(o);
    const QByteArray factory = o.factorySettings;
    const QByteArray edited = settingsBlock(96, 2);
    QCOMPARE(t.read(kSimSettingsAddr, 96), factory);

    // Update: the working copy only.
    QCOMPARE(t.writeParams(kSimWorkingAddr, 0x00, edited), 0);
    QCOMPARE(t.status(), uint8_t(0));
    QCOMPARE(t.read(kSimWorkingAddr, 96), edited);
    QCOMPARE(t.read(kSimSettingsAddr, 96), factory);

    // Save: into the flash page as well.
    const QByteArray saved = settingsBlock(96, 3);
    QCOMPARE(t.writeParams(kSimWorkingAddr, 0xAA, saved), 0);
    QCOMPARE(t.status(), uint8_t(0));
    QCOMPARE(t.read(kSimWorkingAddr, 96), saved);
    QCOMPARE(t.read(kSimSettingsAddr, 96), saved);

    // Refusals leave everything as it was.
    QCOMPARE(t.writeParams(kSimWorkingAddr, 0x55, edited), 0);
    QCOMPARE(t.status(), kSimBadFlag);
    QCOMPARE(t.writeParams(0x30000000, 0x00, edited), 0);
    QCOMPARE(t.status(), kSimBadAddress);
    QCOMPARE(t.writeParams(kSimWorkingAddr - 16, 0xAA, edited), 0);   // a save must start at the working copy
    QCOMPARE(t.status(), kSimBadAddress);
    QCOMPARE(t.writeParams(kSimWorkingAddr, 0xAA, QByteArray(kSimSettingsRoom + 1, '\0')), 0);
    QCOMPARE(t.status(), kSimBadAddress);
    QCOMPARE(t.exchange(kFnEraseParams, fromHexLine("44 33 22 12"), 2, 100, 50), 0);
    QCOMPARE(t.status(), kSimBadFlag);
    QCOMPARE(t.read(kSimWorkingAddr, 96), saved);
    QCOMPARE(t.read(kSimSettingsAddr, 96), saved);

    // Erase: the factory block back in both places.
    QCOMPARE(t.exchange(kFnEraseParams, fromHexLine("44 33 22 11"), 2, 100, 50), 0);
    QCOMPARE(t.link.MBTxBuf, fromHexLine("01 FE 44 33 22 11 4D 14"));
    QCOMPARE(t.status(), uint8_t(0));
    QCOMPARE(t.read(kSimWorkingAddr, 96), factory);
    QCOMPARE(t.read(kSimSettingsAddr, 96), factory);
}

void TstSimBoard::faultOutcome_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<int>("function");
    QTest::addColumn<QList<int>>("outcomes");   // accepted outcomes of the spoiled exchange
    QTest::addColumn<int>("next");              // outcome of the exchange after it
    const int poll = kFnLinkPoll, id = kFnIdentify;
    QTest::newRow("drop") << "DropReply" << poll << QList<int>{2} << 0;
    QTest::newRow("corrupt crc") << "CorruptCrc" << poll << QList<int>{4} << 0;
    QTest::newRow("split short") << "SplitReply" << poll << QList<int>{3} << 4;
    QTest::newRow("split long") << "SplitReply" << id << QList<int>{4} << 4;
    QTest::newRow("wrong function") << "WrongFunction" << poll << QList<int>{5} << 0;
    QTest::newRow("delay") << "DelayReply" << poll << QList<int>{2} << 4;
    QTest::newRow("remove chip") << "RemoveChip" << id << QList<int>{2} << 0;
    QTest::newRow("refuse") << "Refuse" << int(kFnEnterDownload) << QList<int>{0} << 0;
}

void TstSimBoard::faultOutcome()
{
    QFETCH(QString, fault);
    QFETCH(int, function);
    QFETCH(QList<int>, outcomes);
    QFETCH(int, next);
    Bench t;
    const SimFault f = simFaultFromName(fault);
    QVERIFY(f != SimFault::None);
    QCOMPARE(simFaultName(f), fault);
    simArmFault(t.board, f, 1, function);
    const QByteArray body(1, function == kFnIdentify ? char(0xA7) : '\0');
    const int got = t.exchange(uint8_t(function), body);
    QVERIFY2(outcomes.contains(got), qPrintable(QStringLiteral("outcome %1").arg(got)));
    if (f == SimFault::Refuse) {
        QCOMPARE(t.status(), kSimRefusedByFault);
        QCOMPARE(t.board.chip.downloading, false);   // refused means not done
    }
    // A late part lands in the port while the line is idle, in front of the next reply.
    simRun(t.port, t.board, t.link, 40);
    QCOMPARE(t.exchange(uint8_t(function), body), next);
    // Whatever was left on the line has been read with that; the line is clean.
    QCOMPARE(t.exchange(uint8_t(function), body), 0);
    QVERIFY(t.board.faults.isEmpty());
}

void TstSimBoard::faultCountAndFunction()
{
    Bench t;
    QCOMPARE(simFaultFromName(QStringLiteral("dropreply")), SimFault::DropReply);
    QCOMPARE(simFaultFromName(QStringLiteral("Explode")), SimFault::None);

    // Two replies to 0x07 only; the poll in between is not spoiled.
    simArmFault(t.board, SimFault::DropReply, 2, kFnWritePage);
    const QByteArray write = QByteArray(1, '\0') + le16(0) + le16(1) + QByteArray(1, '\0');
    QCOMPARE(t.exchange(kFnWritePage, write), 2);
    QCOMPARE(t.exchange(kFnLinkPoll, QByteArray(1, '\0')), 0);
    QCOMPARE(t.exchange(kFnWritePage, write), 2);
    QCOMPARE(t.exchange(kFnWritePage, write), 0);

    // Until cleared.
    simArmFault(t.board, SimFault::CorruptCrc, -1);
    for (int i = 0; i < 4; ++i)
        QCOMPARE(t.exchange(kFnLinkPoll, QByteArray(1, '\0')), 4);
    simClearFaults(t.board);
    QCOMPARE(t.exchange(kFnLinkPoll, QByteArray(1, '\0')), 0);

    // Refuse on the functions whose success is not status 0.
    simArmFault(t.board, SimFault::Refuse, 3);
    QCOMPARE(t.exchange(kFnLinkPoll, QByteArray(1, '\0')), 0);
    QCOMPARE(t.status(), uint8_t(0));
    QCOMPARE(t.exchange(kFnIdentify, QByteArray(1, char(0xA7)), 3, 5, 10), 0);
    QCOMPARE(t.status(), uint8_t(0));
    QCOMPARE(t.exchange(kFnDisplayAddress, QByteArray(1, '\0')), 0);
    QCOMPARE(getLe32(t.rx(), 2), 0u);
}

void TstSimBoard::silentAndSwap()
{
    Bench t;
    simSetSilent(t.board, true);
    QCOMPARE(t.exchange(kFnLinkPoll, QByteArray(1, '\0')), 2);
    simSetSilent(t.board, false);
    QCOMPARE(t.exchange(kFnLinkPoll, QByteArray(1, '\0')), 0);
    QCOMPARE(t.status(), uint8_t(2));

    const QByteArray id = fromHexLine("A0 A1 A2 A3 A4 A5 A6 A7 A8 A9 AA AB");
    simSwapChip(t.board, id);
    QCOMPARE(t.exchange(kFnIdentify, QByteArray(1, char(0xA7)), 3, 5, 10), 0);
    QCOMPARE(t.rx().mid(3, 12), id);
    QCOMPARE(t.exchange(kFnLinkPoll, QByteArray(1, '\0')), 0);
    QCOMPARE(t.status(), uint8_t(1));
    QCOMPARE(t.read(kSimSettingsAddr, 64), QByteArray(64, char(0xFF)));   // blank
    QCOMPARE(t.read(kSimInfoAddr, 50), QByteArray(50, char(0xFF)));

    // Swaps without an identity give a new one each time.
    simSwapChip(t.board);
    const QByteArray a = t.board.chip.identity;
    simSwapChip(t.board);
    QVERIFY(a != t.board.chip.identity && a != id);
    QCOMPARE(a.size(), 12);
}

void TstSimBoard::swapAfterBurn()
{
    SimOptions o;
    o.swapAfterBurn = true;
    Bench t(o);
    int hooked = 0;
    t.board.onImageClosed = [&](const SimFinishedImage &) { ++hooked; };
    const QByteArray image = patterned(1500, 7);
    QList<QByteArray> ids;
    for (int chip = 0; chip < 3; ++chip) {
        QCOMPARE(t.exchange(kFnIdentify, QByteArray(1, char(0xA7)), 3, 5, 10), 0);
        ids << t.rx().mid(3, 12);
        QVERIFY(burn(t, image, 512));
        // The finished chip goes, then after a silence the next one answers.
        simRun(t.port, t.board, t.link, o.swapOffTicks);
        QCOMPARE(t.exchange(kFnIdentify, QByteArray(1, char(0xA7)), 3, 5, 10), 2);
        simRun(t.port, t.board, t.link, o.swapGoneTicks);
        QCOMPARE(t.exchange(kFnIdentify, QByteArray(1, char(0xA7)), 3, 5, 10), 0);
        QVERIFY(t.rx().mid(3, 12) != ids.last());
        QCOMPARE(simFlash(t.board, kSimFlashBase, 1500), QByteArray(1500, char(0xFF)));
    }
    QCOMPARE(t.board.imagesClosed, 3);
    QCOMPARE(hooked, 3);
    QCOMPARE(t.board.finished.size(), 3);
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(t.board.finished[i].identity, ids[i]);
        QCOMPARE(t.board.finished[i].flash.left(1500), image);
    }
    QVERIFY(ids[0] != ids[1] && ids[1] != ids[2] && ids[0] != ids[2]);
}

void TstSimBoard::streamResync_data()
{
    QTest::addColumn<QList<QByteArray>>("pieces");   // a tick passes between pieces
    QTest::addColumn<QByteArray>("expected");
    const QByteArray pollReply = MBBuildFrame(kFnLinkPoll, QByteArray(1, '\2'));
    const QByteArray idReply = MBBuildFrame(kFnIdentify, QByteArray(1, '\1') + simDefaultIdentity());
    QList<QByteArray> bytewise;
    for (char c : kPoll)
        bytewise << QByteArray(1, c);
    const QByteArray bigWriteHead = fromHexLine("01 07 00 00 00 00 02");   // promises 512 data bytes

    QTest::newRow("whole") << QList<QByteArray>{kPoll} << pollReply;
    QTest::newRow("byte by byte") << bytewise << pollReply;
    QTest::newRow("two in one piece") << QList<QByteArray>{kPoll + kIdentify} << pollReply + idReply;
    QTest::newRow("garbage in front") << QList<QByteArray>{fromHexLine("FF 00 13 37") + kPoll} << pollReply;
    QTest::newRow("address bytes in front") << QList<QByteArray>{fromHexLine("01 01 01") + kPoll} << pollReply;
    QTest::newRow("unknown function") << QList<QByteArray>{fromHexLine("01 55 00") + kPoll} << pollReply;
    QTest::newRow("bad crc, then good")
        << QList<QByteArray>{fromHexLine("01 F0 00 64 00"), kPoll} << pollReply;
    QTest::newRow("impossible count") << QList<QByteArray>{fromHexLine("01 07 00 00 00 FF FF") + kPoll} << pollReply;
    QTest::newRow("half frame then a gap")
        << QList<QByteArray>{bigWriteHead, {}, {}, {}, {}, kPoll} << pollReply;
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

void TstSimBoard::noiseNeverStalls()
{
    SimBoard b;
    QRandomGenerator g(12345);
    const QByteArray pollReply = MBBuildFrame(kFnLinkPoll, QByteArray(1, '\2'));
    for (int round = 0; round < 300; ++round) {
        // Noise weighted to the address byte and known function codes, in pieces.
        QByteArray noise(int(g.bounded(1, 700)), '\0');
        for (char &c : noise) {
            const int pick = int(g.bounded(8));
            c = char(pick == 0 ? 0x01 : pick == 1 ? 0x07 : pick == 2 ? 0xF5 : g.bounded(256));
        }
        for (int at = 0; at < noise.size();) {
            const int n = int(g.bounded(1, 64));
            simReceive(b, noise.mid(at, n));
            simTick(b);
            at += n;
        }
        // After a quiet gap the board hears a good frame again.
        QByteArray out;
        for (int i = 0; i < b.opt.partialGapTicks + 1; ++i)
            simTick(b);
        simSetMode(b, 2);   // a chance frame in the noise may have entered the loader
        simReceive(b, kPoll);
        for (int i = 0; i < 40 && !out.endsWith(pollReply); ++i)
            out += simTick(b);
        QVERIFY2(out.endsWith(pollReply), qPrintable(QStringLiteral("round %1").arg(round)));
        simInit(b, b.opt);   // noise may have burned or erased things; start clean
    }
}

void TstSimBoard::pacing()
{
    SimOptions o;
    o.bytesPerTick = 4;
    SimBoard b(o);
    simReceive(b, kIdentify);
    QList<int> sizes;
    QByteArray all;
    for (int i = 0; i < 10; ++i) {
        const QByteArray got = simTick(b);
        sizes << int(got.size());
        all += got;
    }
    QCOMPARE(sizes, (QList<int>{4, 4, 4, 4, 1, 0, 0, 0, 0, 0}));
    QCOMPARE(all, MBBuildFrame(kFnIdentify, QByteArray(1, '\1') + simDefaultIdentity()));
}

QTEST_GUILESS_MAIN(TstSimBoard)
#include "tst_simboard.moc"
