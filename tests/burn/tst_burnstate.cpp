#include "burnbench.h"
#include "infoblock.h"

#include <QtTest>

using namespace pyro;

namespace {

const QByteArray kIdA = QByteArray::fromHex("1112131415161718191A1B1C");
const QByteArray kIdB = QByteArray::fromHex("A1A2A3A4A5A6A7A8A9AAABAC");

struct Exchange {
    QByteArray request, reply;
};

// ">> 01 F1 A7 2A 24" / "<< ..." pairs.
QList<Exchange> readTranscript(const QString &path)
{
    QList<Exchange> r;
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return r;
    for (const QByteArray &line : f.readAll().split('\n')) {
        if (line.startsWith(">> "))
            r << Exchange{fromHexLine(line.mid(3)), {}};
        else if (line.startsWith("<< ") && !r.isEmpty())
            r.last().reply = fromHexLine(line.mid(3));
    }
    return r;
}

int countLines(const QString &log, const QString &message)
{
    return int(log.count(message));
}

QByteArray stampedImage(BurnBench &b)
{
    return b.burn.BinData.left(b.burn.BinLen);
}

} // namespace

class TstBurnState : public QObject {
    Q_OBJECT
private slots:
    void goldenTranscript();
    void imageEndingOnFullPage_data();
    void imageEndingOnFullPage();
    void keepInF();
    void retriesEndWithTheRightFlash_data();
    void retriesEndWithTheRightFlash();
    void refusedWriteRestartsThePage();
    void retryLimitStartsTheChipAgain();
    void identityCases();
    void noIdentity();
    void shortIdentityReplies();
    void cancels_data();
    void cancels();
    void vanishingChipAndGarbage();
    void oddFrameLengths();
    void autoLoadThreeChipsInProcess();
};

// One chip of 2500 bytes at frame length 512: every frame byte for byte, in order.
void TstBurnState::goldenTranscript()
{
    const QList<Exchange> script = readTranscript(PYRO_TEST_DATA "/burn/golden-2500.txt");
    QCOMPARE(script.size(), 13);
    BurnBench b;
    int next = 0;
    QStringList mismatches;
    b.responder = [&](const QByteArray &req) -> QByteArray {
        if (next >= script.size()) {
            mismatches << "unexpected " + toHexLine(req);
            return {};
        }
        const Exchange &ex = script[next++];
        if (req != ex.request)
            mismatches << QString("frame %1: sent %2, expected %3").arg(next).arg(toHexLine(req), toHexLine(ex.request));
        return ex.reply;
    };
    b.open();
    const QString path = PYRO_TEST_DATA "/burn/golden-2500.BIN";
    b.program(path);
    QCOMPARE(b.link.ModeRequest, uint8_t(1));
    QVERIFY(b.burning());
    QVERIFY(b.runUntil([&] { return !b.burning() || !mismatches.isEmpty(); }, 2000));
    QVERIFY2(mismatches.isEmpty(), qPrintable(mismatches.join('\n')));
    QCOMPARE(next, script.size());
    QCOMPARE(b.sentWith(kFnWritePage).first().size(), 521);

    const QString log = b.link.view.RTB;
    QCOMPARE(countLines(log, "2026-11-23 09:30:00 Downloading the：1 (chip)\r\n"), 1);
    QCOMPARE(countLines(log, " Has been successfully burning：1 (chip) " + path + "\r\n"), 1);
    QCOMPARE(countLines(log, " Connecting the next chip..."), 0);
    QCOMPARE(b.link.BurnArmed, int16_t(0));
    QCOMPARE(b.link.BurnBegun, int16_t(1));     // a normal end keeps it
    QCOMPARE(b.link.view.InfLab, path);
    QVERIFY(b.link.view.PersLabVisible);
    QCOMPARE(b.link.view.PersLabWidth, 8500 - 20);
    // The monitor takes the line back.
    b.ticks(10);
    QCOMPARE(b.link.LinkMode, uint8_t(0));
    QCOMPARE(uint8_t(b.port.written.last()[1]), kFnLinkPoll);
}

void TstBurnState::imageEndingOnFullPage_data()
{
    QTest::addColumn<int>("len");
    QTest::addColumn<QString>("frameLen");
    QTest::newRow("2 pages at 512") << 2048 << "512";
    QTest::newRow("3 pages at 256") << 3072 << "256";
    QTest::newRow("5 pages at 16") << 5120 << "16";
    QTest::newRow("smallest image") << 1074 << "512";
    QTest::newRow("largest image") << 32767 << "512";
}

// The last write fills its page and ends the image at once: one close, 0xA7.
void TstBurnState::imageEndingOnFullPage()
{
    QFETCH(int, len);
    QFETCH(QString, frameLen);
    QTemporaryDir dir;
    BurnBench b;
    SimBoard board;
    b.useSim(board);
    b.link.view.ComboSet[5].text = frameLen;
    b.open();
    b.program(writeFile(dir, "image.BIN", testImage(len)));
    QVERIFY(b.runUntil([&] { return b.idle(); }, 200000));

    const int pages = (len + 1023) / 1024;
    const QList<QByteArray> closes = b.sentWith(kFnClosePage);
    QCOMPARE(closes.size(), pages);
    for (int i = 0; i < pages; ++i) {
        const QByteArray &c = closes[i];
        const bool last = i == pages - 1;
        QCOMPARE(uint8_t(c[2]), uint8_t(last ? 0xA7 : 0x00));
        const int done = last ? len : (i + 1) * 1024;
        QCOMPARE(int(getLe32(c, 3)), done);
        QCOMPARE(int(uint8_t(c[7])), int(RoundHalfEven(done / 1024.0 + 8)));
    }
    for (const QByteArray &w : b.sentWith(kFnWritePage))
        QVERIFY(getLe16(w, 5) > 0 && getLe16(w, 5) <= frameLen.toInt());
    QCOMPARE(b.burn.ChipsDone, 1);
    QCOMPARE(board.imagesClosed, 1);
    QCOMPARE(simFlash(board, 0x08002000, len), stampedImage(b));
}

// KeepInF: the settings pages are neither erased nor written, and the chip keeps them.
void TstBurnState::keepInF()
{
    QTemporaryDir dir;
    BurnBench b;
    SimBoard board;
    b.useSim(board);
    const QByteArray settingsBefore = simFlash(board, 0x08002800, 2048);
    QVERIFY(settingsBefore != QByteArray(2048, char(0xFF)));
    b.link.view.Check1[1] = true;
    b.open();
    const int len = 6000;
    b.program(writeFile(dir, "image.BIN", testImage(len)));
    QVERIFY(b.runUntil([&] { return b.idle(); }, 20000));

    QList<uint32_t> erased;
    for (const QByteArray &e : b.sentWith(kFnErasePage))
        erased << getLe32(e, 3);
    QCOMPARE(erased, (QList<uint32_t>{0x08002000, 0x08002400, 0x08003000, 0x08003400}));
    const QByteArray img = stampedImage(b);
    QCOMPARE(simFlash(board, 0x08002000, 2048), img.left(2048));
    QCOMPARE(simFlash(board, 0x08002800, 2048), settingsBefore);
    QCOMPARE(simFlash(board, 0x08003000, len - 4096), img.mid(4096));
    // The first close after the gap counts from 4096: page 13 follows.
    QCOMPARE(getLe32(b.sentWith(kFnClosePage)[2], 3), 5120u);

    // An image that would end inside the gap is refused before it starts.
    BurnBench c;
    c.link.view.Check1[1] = true;
    c.responder = [](const QByteArray &r) { return obligingDevice(r, kIdA); };
    c.open();
    c.program(writeFile(dir, "short.BIN", testImage(4095)));
    QVERIFY(!c.burning());
    QVERIFY(c.link.view.RTB.contains(" File open error \r\n"));
    QVERIFY(c.link.view.RTB.contains(" KeepInF needs an image of at least 4096(Byte)"));
    // The box ticked during a burn of a short image is not followed past its end.
    c.link.view.Check1[1] = false;
    c.program(writeFile(dir, "short.BIN", testImage(3000)));
    QVERIFY(c.burning());
    c.link.view.Check1[1] = true;
    QVERIFY(c.runUntil([&] { return c.idle(); }, 2000));
    QCOMPARE(c.sentWith(kFnErasePage).size(), 3);
}

void TstBurnState::retriesEndWithTheRightFlash_data()
{
    QTest::addColumn<int>("fault");
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("function");
    const struct { const char *name; SimFault f; int count; int fn; } rows[] = {
        {"lost write reply", SimFault::DropReply, 3, kFnWritePage},
        {"lost erase reply", SimFault::DropReply, 2, kFnErasePage},
        {"lost close reply", SimFault::DropReply, 2, kFnClosePage},
        {"lost download reply", SimFault::DropReply, 1, kFnEnterDownload},
        {"corrupt write reply", SimFault::CorruptCrc, 4, kFnWritePage},
        {"corrupt close reply", SimFault::CorruptCrc, 3, kFnClosePage},
        {"corrupt identity", SimFault::CorruptCrc, 2, kFnIdentify},
        {"refused erase", SimFault::Refuse, 3, kFnErasePage},
        {"refused close", SimFault::Refuse, 2, kFnClosePage},
        {"refused download", SimFault::Refuse, 2, kFnEnterDownload},
        {"split write reply", SimFault::SplitReply, 2, kFnWritePage},
        {"late write reply", SimFault::DelayReply, 2, kFnWritePage},
        {"late close reply", SimFault::DelayReply, 1, kFnClosePage},
        {"exception-style reply", SimFault::WrongFunction, 2, kFnWritePage},
        {"silent identify", SimFault::RemoveChip, 3, kFnIdentify},
        {"write not heard", SimFault::RemoveChip, 2, kFnWritePage},
    };
    for (const auto &r : rows)
        QTest::newRow(r.name) << int(r.f) << r.count << r.fn;
}

void TstBurnState::retriesEndWithTheRightFlash()
{
    QFETCH(int, fault);
    QFETCH(int, count);
    QFETCH(int, function);
    QTemporaryDir dir;
    BurnBench b;
    SimBoard board;
    b.useSim(board);
    simArmFault(board, SimFault(fault), count, function);
    b.open();
    const int len = 5000;
    b.program(writeFile(dir, "image.BIN", testImage(len)));
    QVERIFY(b.runUntil([&] { return b.idle(); }, 20000));
    QCOMPARE(b.burn.ChipsDone, 1);
    QCOMPARE(board.imagesClosed, 1);
    QCOMPARE(countLines(b.link.view.RTB, " Downloading the：1 (chip)"), 1);
    QCOMPARE(simFlash(board, 0x08002000, len), stampedImage(b));
}

// A write the chip refuses: the page is erased again and written from its start.
void TstBurnState::refusedWriteRestartsThePage()
{
    QTemporaryDir dir;
    BurnBench b;
    SimBoard board;
    b.useSim(board);
    b.open();
    const int len = 3000;
    b.program(writeFile(dir, "image.BIN", testImage(len)));
    // Refuse the second write of the second page.
    int writes = 0;
    b.port.onOutput = [&](const QByteArray &frame) {
        if (uint8_t(frame[1]) == kFnWritePage && ++writes == 4)
            simArmFault(board, SimFault::Refuse, 1, kFnWritePage);
        simReceive(board, frame);
    };
    QVERIFY(b.runUntil([&] { return b.idle(); }, 20000));
    QStringList seq;
    for (const QByteArray &f : b.port.written) {
        const uint8_t fn = uint8_t(f[1]);
        if (fn == kFnErasePage)
            seq << QString("E%1").arg(uint8_t(f[7]));
        else if (fn == kFnWritePage)
            seq << QString("W%1").arg(getLe16(f, 3));
        else if (fn == kFnClosePage)
            seq << QString("C%1").arg(uint8_t(f[7]));
    }
    QCOMPARE(seq.join(' '), QString("E8 W0 W512 C9 E9 W0 W512 E9 W0 W512 C10 E10 W0 W512 C11"));
    QCOMPARE(simFlash(board, 0x08002000, len), stampedImage(b));
}

// Eleven bad answers in a row give the chip up; it is found again and burned from page 8.
void TstBurnState::retryLimitStartsTheChipAgain()
{
    QTemporaryDir dir;
    BurnBench b;
    SimBoard board;
    b.useSim(board);
    b.open();
    const int len = 2500;
    b.program(writeFile(dir, "image.BIN", testImage(len)));
    QVERIFY(b.runUntil([&] { return b.sentWith(kFnWritePage).size() == 3; }, 2000));
    simArmFault(board, SimFault::CorruptCrc, 11, kFnWritePage);
    QVERIFY(b.runUntil([&] { return b.idle(); }, 20000));
    QCOMPARE(b.sentWith(kFnEnterDownload).size(), 2);
    QCOMPARE(countLines(b.link.view.RTB, " Downloading the：1 (chip)"), 2);
    QCOMPARE(b.sentWith(kFnIdentify).size(), 2);
    QCOMPARE(b.burn.ChipsDone, 1);
    QCOMPARE(simFlash(board, 0x08002000, len), stampedImage(b));
}

// The identity decides: the chip just done is polled, not burned again; five
// silent polls forget it; an all-zero identity is never new.
void TstBurnState::identityCases()
{
    QTemporaryDir dir;
    const QString path = writeFile(dir, "image.BIN", testImage(1500));
    BurnBench b;
    QByteArray id = kIdA;
    bool silent = false;
    b.responder = [&](const QByteArray &r) { return silent ? QByteArray() : obligingDevice(r, id); };
    b.link.view.Check1[3] = true;
    b.open();
    b.program(path);
    QVERIFY(b.runUntil([&] { return b.burn.ChipsDone == 1; }, 2000));
    QVERIFY(b.link.view.RTB.contains(" Connecting the next chip...\r\n"));
    QCOMPARE(b.burn.LastChipId, b.burn.ChipId);

    // The same chip stays: polled, nothing else.
    const int before = int(b.port.written.size());
    b.ticks(300);
    QVERIFY(b.port.written.size() > before + 20);
    for (int i = before; i < b.port.written.size(); ++i)
        QCOMPARE(uint8_t(b.port.written[i][1]), kFnIdentify);
    QVERIFY(b.burning());

    // Four silent polls and the chip is back: still the chip done.
    auto silentPolls = [&](int n) {
        silent = true;
        const int polls = int(b.sentWith(kFnIdentify).size());
        b.runUntil([&] { return b.sentWith(kFnIdentify).size() == polls + n && b.link.MBStep == 0 && b.link.StateWord == 1; }, 500);
        silent = false;
    };
    silentPolls(4);
    QVERIFY(b.link.view.PersLabVisible);
    b.ticks(100);
    QCOMPARE(b.burn.ChipsDone, 1);
    QCOMPARE(b.sentWith(kFnEnterDownload).size(), 1);

    // Five: the chip is forgotten, the bar hidden, and the same chip counts as new.
    silentPolls(5);
    QVERIFY(!b.link.view.PersLabVisible);
    QCOMPARE(b.link.BurnBegun, int16_t(0));
    QCOMPARE(b.burn.LastChipId, ChipIdent{});
    QVERIFY(b.runUntil([&] { return b.burn.ChipsDone == 2; }, 2000));
    QVERIFY(b.link.view.RTB.contains(" Downloading the：2 (chip)"));

    // Another chip is burned at once.
    id = kIdB;
    QVERIFY(b.runUntil([&] { return b.burn.ChipsDone == 3; }, 2000));
    QCOMPARE(b.sentWith(kFnEnterDownload).size(), 3);
    b.link.view.Check1[3] = false;
    id = kIdA;
    QVERIFY(b.runUntil([&] { return b.idle(); }, 2000));
    QCOMPARE(b.burn.ChipsDone, 4);

    // A chip whose identity is all zeros equals the zero LastChipId: polled for ever.
    BurnBench z;
    z.responder = [](const QByteArray &r) { return obligingDevice(r, QByteArray(12, '\0')); };
    z.open();
    z.program(path);
    z.ticks(500);
    QVERIFY(z.burning());
    QVERIFY(z.sentWith(kFnIdentify).size() > 50);
    QCOMPARE(z.sentWith(kFnEnterDownload).size(), 0);
    Command4Click(z.link, z.burn);   // Stop
    QVERIFY(z.runUntil([&] { return z.idle(); }, 100));
    QVERIFY(z.link.view.RTB.endsWith(" Cancel program\r\n"));
}

// A chip that answers without identity: burned if no burn has begun, else polled on.
void TstBurnState::noIdentity()
{
    QTemporaryDir dir;
    const QString path = writeFile(dir, "image.BIN", testImage(1500));
    BurnBench b;
    bool answerNoId = true, silent = false;
    b.responder = [&](const QByteArray &r) -> QByteArray {
        if (silent)
            return {};
        if (answerNoId && uint8_t(r[1]) == kFnIdentify)
            return MBBuildFrame(kFnIdentify, QByteArray(13, '\0'));
        return obligingDevice(r, kIdA);
    };
    b.open();
    b.program(path);
    // One poll, six ticks weighing its answer, then the burn.
    QVERIFY(b.runUntil([&] { return b.sentWith(kFnEnterDownload).size() == 1; }, 200));
    QCOMPARE(b.sentWith(kFnIdentify).size(), 1);
    QVERIFY(b.runUntil([&] { return b.idle(); }, 2000));
    QCOMPARE(b.link.BurnBegun, int16_t(1));

    // Next burn: BurnBegun is still set, the chip without identity is polled on.
    b.program(path);
    b.ticks(400);
    QVERIFY(b.burning());
    QCOMPARE(b.sentWith(kFnEnterDownload).size(), 1);
    QVERIFY(b.sentWith(kFnIdentify).size() > 10);
    // Five silent polls clear the flag; the next no-identity answer is burned.
    silent = true;
    QVERIFY(b.runUntil([&] { return b.link.BurnBegun == 0; }, 500));
    silent = false;
    QVERIFY(b.runUntil([&] { return b.idle(); }, 2000));
    QCOMPARE(b.sentWith(kFnEnterDownload).size(), 2);
    QCOMPARE(b.burn.ChipsDone, 1);
}

// Identity replies too short to hold an identity are polled again, never read past.
void TstBurnState::shortIdentityReplies()
{
    QTemporaryDir dir;
    BurnBench b;
    int shortOnes = 6;
    b.responder = [&](const QByteArray &r) -> QByteArray {
        if (uint8_t(r[1]) == kFnIdentify && shortOnes > 0) {
            --shortOnes;
            // 4 bytes (the status is the CRC's high byte), then 7, then 16.
            const int body = shortOnes % 3 == 0 ? 0 : shortOnes % 3 == 1 ? 3 : 12;
            return body == 0 ? MBBuildFrame(kFnIdentify, QByteArray()).left(4)
                             : MBBuildFrame(kFnIdentify, QByteArray(1, '\x01') + kIdB.left(body - 1));
        }
        return obligingDevice(r, kIdA);
    };
    b.open();
    b.program(writeFile(dir, "image.BIN", testImage(1500)));
    QVERIFY(b.runUntil([&] { return b.idle(); }, 2000));
    QCOMPARE(b.sentWith(kFnIdentify).size(), 7);
    QCOMPARE(b.sentWith(kFnEnterDownload).size(), 1);
    QCOMPARE(QByteArray(reinterpret_cast<const char *>(b.burn.ChipId.data()), 12), kIdA);
}

void TstBurnState::cancels_data()
{
    QTest::addColumn<QString>("how");
    QTest::newRow("Stop") << "stop";
    QTest::newRow("port closed") << "close";
    QTest::newRow("FrameLen changed") << "combo";
    QTest::newRow("AutoDetect") << "detect";
    QTest::newRow("Load File") << "load";
}

// Every way a burn is cut short mid-page; a later Program starts from page 8
// and counts chips from 1 again.
void TstBurnState::cancels()
{
    QFETCH(QString, how);
    QTemporaryDir dir;
    const QString path = writeFile(dir, "image.BIN", testImage(5000));
    BurnBench b;
    SimBoard board;
    b.useSim(board);
    b.open();
    b.program(path);
    QVERIFY(b.runUntil([&] { return b.sentWith(kFnWritePage).size() == 5; }, 2000));
    const int16_t done = b.burn.BinDone;
    QCOMPARE(done, int16_t(2048));
    const int logBefore = int(b.link.view.RTB.size());

    if (how == "stop") {
        Command4Click(b.link, b.burn);
    } else if (how == "close") {
        Command2Click(b.link);
    } else if (how == "combo") {
        b.link.view.ComboSet[5].text = "256";
        ComboSetChange(b.link, 5);
    } else if (how == "detect") {
        AutoDetect(b.link, {});
    } else {
        b.prompter.files << path;
        Command3Click(b.link, b.burn);
    }
    const QString added = b.link.view.RTB.mid(logBefore);
    QCOMPARE(b.link.view.Command4Caption, QString("Program"));
    QCOMPARE(b.link.ModeRequest, uint8_t(0));
    QCOMPARE(b.link.BurnArmed, int16_t(0));
    if (how == "load") {
        QVERIFY(!added.contains("Cancel"));
        QCOMPARE(b.link.BurnBegun, int16_t(1));
    } else {
        QVERIFY(added.contains(how == "detect" ? " Cancel burning\r\n" : " Cancel program\r\n"));
        QCOMPARE(b.link.BurnBegun, int16_t(0));
    }
    QVERIFY(!b.link.view.PersLabVisible);
    b.ticks(30);
    QCOMPARE(b.burn.BinDone, done);
    if (how == "stop" || how == "load") {
        QCOMPARE(b.link.LinkMode, uint8_t(0));
        QCOMPARE(uint8_t(b.port.written.last()[1]), kFnLinkPoll);
    } else {
        QVERIFY(!b.port.isOpen());
        if (how == "detect")
            b.link.view.ComboSet[0].text = "/dev/fake0";
        b.open();
    }
    const int from = int(b.port.written.size());
    b.burn.ChipsDone = 7;
    b.link.view.Command4Enabled = true;
    Command4Click(b.link, b.burn);
    QVERIFY(b.runUntil([&] { return b.idle(); }, 20000));
    const QList<QByteArray> after = b.port.written.mid(from);
    auto firstErase = std::find_if(after.begin(), after.end(), [](const QByteArray &f) { return uint8_t(f[1]) == kFnErasePage; });
    QVERIFY(firstErase != after.end());
    QCOMPARE(getLe32(*firstErase, 3), 0x08002000u);
    QCOMPARE(b.burn.ChipsDone, 1);
    QVERIFY(b.link.view.RTB.mid(logBefore).contains(" Downloading the：1 (chip)"));
    QCOMPARE(simFlash(board, 0x08002000, 5000), stampedImage(b));
    if (how == "combo") {
        for (const QByteArray &w : after)
            if (uint8_t(w[1]) == kFnWritePage)
                QVERIFY(w.size() <= 256 + 9);
    }
}

// A chip that goes silent mid-page, and garbage on the line: retries, never a
// chip counted done with the wrong flash.
void TstBurnState::vanishingChipAndGarbage()
{
    QTemporaryDir dir;
    const int len = 4000;
    const QString path = writeFile(dir, "image.BIN", testImage(len));
    BurnBench b;
    SimBoard board;
    b.useSim(board);
    b.open();
    b.program(path);
    QVERIFY(b.runUntil([&] { return b.sentWith(kFnWritePage).size() == 3; }, 2000));
    simSetSilent(board, true);
    // Eleven unanswered writes, then identify polls until five silent ones forget the chip.
    QVERIFY(b.runUntil([&] { return b.link.BurnBegun == 0; }, 5000));
    QCOMPARE(b.burn.ChipsDone, 0);
    QVERIFY(b.burning());
    QVERIFY(!b.link.view.RTB.contains("successfully"));
    simSetSilent(board, false);
    QVERIFY(b.runUntil([&] { return b.sentWith(kFnEnterDownload).size() == 2; }, 2000));

    // Bytes of nothing in particular land in front of replies, twice.
    const int writes = int(b.sentWith(kFnWritePage).size());
    QVERIFY(b.runUntil([&] { return b.sentWith(kFnWritePage).size() == writes + 2; }, 2000));
    b.port.deliver(QByteArray::fromHex("01070000FFFF13"));
    QVERIFY(b.runUntil([&] { return b.sentWith(kFnWritePage).size() == writes + 4; }, 2000));
    b.port.deliver(QByteArray(700, char(0xA5)));
    QVERIFY(b.runUntil([&] { return b.idle(); }, 20000));
    QCOMPARE(b.burn.ChipsDone, 1);
    QCOMPARE(board.imagesClosed, 1);
    QCOMPARE(simFlash(board, 0x08002000, len), stampedImage(b));
}

// FrameLen values that don't divide a page, or none: the page restarts (or
// empty frames go) until Stop; nothing overruns, nothing is counted done.
void TstBurnState::oddFrameLengths()
{
    QTemporaryDir dir;
    const QString path = writeFile(dir, "image.BIN", testImage(3000));
    for (const QString &text : {QString("300"), QString("0"), QString("abc"), QString("99999")}) {
        BurnBench b;
        SimBoard board;
        b.useSim(board);
        b.link.view.ComboSet[5].text = text;
        b.open();
        b.program(path);
        b.ticks(600);
        QVERIFY2(b.burning(), qPrintable(text));
        QCOMPARE(b.sentWith(kFnClosePage).size(), 0);
        QCOMPARE(b.burn.ChipsDone, 0);
        for (const QByteArray &w : b.sentWith(kFnWritePage))
            QCOMPARE(int(getLe16(w, 5)) + 9, int(w.size()));
        Command4Click(b.link, b.burn);
        QVERIFY(b.runUntil([&] { return b.idle(); }, 200));
    }
    QCOMPARE(ReadFrameLen(View{}), int16_t(0));
    View v;
    v.ComboSet[5].text = " 128 bytes";
    QCOMPARE(ReadFrameLen(v), int16_t(128));
}

// AutoLoad with chips swapped after each burn: three chips, each with the image.
void TstBurnState::autoLoadThreeChipsInProcess()
{
    QTemporaryDir dir;
    const int len = 7000;
    SimOptions opt;
    opt.swapAfterBurn = true;
    SimBoard board(opt);
    BurnBench b;
    b.useSim(board);
    b.link.view.Check1[3] = true;
    b.open();
    b.program(writeFile(dir, "image.BIN", testImage(len)));
    QVERIFY(b.runUntil([&] { return b.burn.ChipsDone == 3; }, 50000));
    Command4Click(b.link, b.burn);
    QCOMPARE(board.finished.size(), 3);
    QSet<QByteArray> ids;
    for (const SimFinishedImage &f : board.finished) {
        ids << f.identity;
        QCOMPARE(f.flash.left(len), stampedImage(b));
    }
    QCOMPARE(ids.size(), 3);
    for (int i = 1; i <= 3; ++i) {
        QCOMPARE(countLines(b.link.view.RTB, QString(" Downloading the：%1 (chip)").arg(i)), 1);
        QCOMPARE(countLines(b.link.view.RTB, QString(" Has been successfully burning：%1 (chip)").arg(i)), 1);
    }
}

QTEST_GUILESS_MAIN(TstBurnState)
#include "tst_burnstate.moc"
