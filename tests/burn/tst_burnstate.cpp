#include "burnbench.h"

#include <QtTest>

using namespace pyro;

namespace {

const QByteArray kIdA = QByteArray::fromHex("1112131415161718191A1B1C");
const QByteArray kIdB = QByteArray::fromHex("A1A2A3A4A5A6A7A8A9AAABAC");

// ">> request" / "<< reply" pairs.
QList<QPair<QByteArray, QByteArray>> readTranscript(const QString &path)
{
    QList<QPair<QByteArray, QByteArray>> r;
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return r;
    for (const QByteArray &line : f.readAll().split('\n')) {
        if (line.startsWith(">> "))
            r.append({fromHexLine(line.mid(3)), {}});
        else if (line.startsWith("<< ") && !r.isEmpty())
            r.last().second = fromHexLine(line.mid(3));
    }
    return r;
}

} // namespace

class TstBurnState : public QObject {
    Q_OBJECT
private slots:
    void goldenTranscript_data();
    void goldenTranscript();
    void wholeImage_data();
    void wholeImage();
    void faultsEndWithTheRightFlash_data();
    void faultsEndWithTheRightFlash();
    void identities_data();
    void identities();
    void cancels_data();
    void cancels();
    void rearmedWithinOneExchange_data();
    void rearmedWithinOneExchange();
    void oddFrameLengths();
};

void TstBurnState::goldenTranscript_data()
{
    QTest::addColumn<bool>("fast");
    QTest::newRow("normal") << false;
    QTest::newRow("fast line") << true;
}

// One chip of 2500 bytes at frame length 512: every frame byte for byte, in
// order, on the fast line as well.
void TstBurnState::goldenTranscript()
{
    QFETCH(bool, fast);
    const auto script = readTranscript(PYRO_TEST_DATA "/burn/golden-2500.txt");
    QCOMPARE(script.size(), 13);
    BurnBench b;
    b.link.fastLine = fast;
    int next = 0;
    QStringList bad;
    b.responder = [&](const QByteArray &req) -> QByteArray {
        if (next >= script.size() || req != script[next].first) {
            bad << QString("frame %1: sent %2").arg(next + 1).arg(QString(toHexLine(req)));
            return {};
        }
        return script[next++].second;
    };
    b.open();
    const QString path = PYRO_TEST_DATA "/burn/golden-2500.BIN";
    b.program(path);
    QVERIFY(b.runUntil([&] { return !b.burning() || !bad.isEmpty(); }, 2000));
    QVERIFY2(bad.isEmpty(), qPrintable(bad.join('\n')));
    QCOMPARE(next, script.size());
    QCOMPARE(b.logged("2026-11-23 09:30:00 Downloading the：1 (chip)\r\n"), 1);
    QVERIFY(b.link.view.RTB.endsWith(" Has been successfully burning：1 (chip) " + path + "\r\n"));
    QCOMPARE(b.link.BurnArmed, int16_t(0));
    QCOMPARE(b.link.BurnBegun, int16_t(1));     // a normal end keeps it
    QCOMPARE(b.link.view.SB[1], QString("Link normal-download mode"));
    QCOMPARE(b.link.fastReplies, fast ? qint64(script.size()) : 0);
}

void TstBurnState::wholeImage_data()
{
    QTest::addColumn<int>("len");
    QTest::addColumn<QString>("frameLen");
    QTest::addColumn<int>("keep");   // KeepInF: 0 clear, 1 set, 2 ticked once the burn runs
    QTest::newRow("5 pages at 16") << 5120 << "16" << 0;
    QTest::newRow("half a last page") << 4608 << "512" << 0;   // closed as page 12.5, to even
    QTest::newRow("smallest image") << 1074 << "512" << 0;
    QTest::newRow("largest image") << 32767 << "512" << 0;
    QTest::newRow("KeepInF") << 6000 << "512" << 1;
    // Nothing past the settings pages: the jump lands on the end, and the
    // image closes on an empty write into the page behind it.
    QTest::newRow("KeepInF, exactly 4096") << 4096 << "512" << 1;
    QTest::newRow("KeepInF, full last page") << 6144 << "128" << 1;
    QTest::newRow("KeepInF ticked on a short image") << 3000 << "512" << 2;
}

// Every page erased, written and closed once, the image closed with 0xA7 on
// its last page (a full one too); KeepInF leaves the settings pages as they were.
void TstBurnState::wholeImage()
{
    QFETCH(int, len);
    QFETCH(QString, frameLen);
    QFETCH(int, keep);
    BurnBench b(BurnBench::Simulated);
    SimBoard &board = *b.sim;
    const QByteArray settingsBefore = simFlash(board, 0x08002800, 2048);
    QVERIFY(settingsBefore != QByteArray(2048, char(0xFF)));
    b.link.view.ComboSet[5].text = frameLen;
    b.link.view.Check1[1] = keep == 1;
    b.start(len);
    b.link.view.Check1[1] = keep != 0;
    QVERIFY(b.finish(200000));

    // A short image is not followed into a jump past its end.
    const bool gap = keep != 0 && len >= 4096;
    QList<QByteArray> erases, closes;
    for (int at = 0; at < len; at += 1024) {
        if (gap && at == 2048)
            at = 4096;
        const int done = std::min(at + 1024, len);
        // The closing page number: bytes done / 1024 + 8, a half to the even page.
        const int page = done / 1024 + 8, part = done % 1024;
        const int closing = page + (part > 512 || (part == 512 && page % 2 == 1) ? 1 : 0);
        erases << MBBuildFrame(kFnErasePage, '\0' + le32(uint32_t(kFlashBase + at)) + char(at / 1024 + 8));
        closes << MBBuildFrame(kFnClosePage, char(done == len ? 0xA7 : 0x00) + le32(uint32_t(done)) + char(closing));
    }
    QCOMPARE(b.sentWith(kFnErasePage), erases);
    QCOMPARE(b.sentWith(kFnClosePage), closes);
    int empty = 0;
    for (const QByteArray &w : b.sentWith(kFnWritePage)) {
        QVERIFY(getLe16(w, 5) <= frameLen.toInt());
        empty += getLe16(w, 5) == 0;
    }
    QCOMPARE(empty, gap && len == 4096 ? 1 : 0);
    QCOMPARE(b.burn.ChipsDone, 1);
    QCOMPARE(board.imagesClosed, 1);
    const QByteArray img = b.stamped();
    if (gap) {
        QCOMPARE(simFlash(board, kFlashBase, 2048), img.left(2048));
        QCOMPARE(simFlash(board, 0x08002800, 2048), settingsBefore);
        QCOMPARE(simFlash(board, 0x08003000, len - 4096), img.mid(4096));
    } else {
        QCOMPARE(simFlash(board, kFlashBase, len), img);
    }
}

void TstBurnState::faultsEndWithTheRightFlash_data()
{
    QTest::addColumn<int>("fault");
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("function");      // -1: any
    QTest::addColumn<int>("atWrite");       // armed as this write goes out; 0: from the start
    QTest::addColumn<QByteArray>("garbage"); // bytes put in front of the reply instead of a fault
    QTest::addColumn<int>("starts");        // " Downloading the：1 (chip)" lines
    QTest::addColumn<QString>("pages");     // erases, writes and closes, when they matter
    const QByteArray noise = QByteArray(700, char(0xA5)).toHex();
    const struct { const char *name; SimFault f; int count, fn, at; const char *garbage; int starts; const char *pages; } rows[] = {
        {"lost write reply", SimFault::DropReply, 3, kFnWritePage, 0, "", 1, ""},
        {"lost erase reply", SimFault::DropReply, 2, kFnErasePage, 0, "", 1, ""},
        {"lost close reply", SimFault::DropReply, 2, kFnClosePage, 0, "", 1, ""},
        {"lost download reply", SimFault::DropReply, 1, kFnEnterDownload, 0, "", 1, ""},
        {"corrupt write reply", SimFault::CorruptCrc, 4, kFnWritePage, 0, "", 1, ""},
        {"corrupt identity", SimFault::CorruptCrc, 2, kFnIdentify, 0, "", 1, ""},
        {"refused erase", SimFault::Refuse, 3, kFnErasePage, 0, "", 1, ""},
        {"refused close", SimFault::Refuse, 2, kFnClosePage, 0, "", 1, ""},
        {"refused download", SimFault::Refuse, 2, kFnEnterDownload, 0, "", 1, ""},
        {"split write reply", SimFault::SplitReply, 2, kFnWritePage, 0, "", 1, ""},
        {"late write reply", SimFault::DelayReply, 2, kFnWritePage, 0, "", 1, ""},
        {"exception-style reply", SimFault::WrongFunction, 2, kFnWritePage, 0, "", 1, ""},
        {"silent identify", SimFault::RemoveChip, 3, kFnIdentify, 0, "", 1, ""},
        {"write not heard", SimFault::RemoveChip, 2, kFnWritePage, 0, "", 1, ""},
        // The page starts over from its erase, and from its first byte.
        {"refused write mid-page", SimFault::Refuse, 1, kFnWritePage, 4, "", 1,
         "E8 W0 W512 C9 E9 W0 W512 E9 W0 W512 C10 E10 W0 W512 C11"},
        // A good answer leaves the count at 1, so ten bad ones after it give
        // the chip up (found again, it starts from page 8) and nine do not.
        {"retry limit", SimFault::CorruptCrc, 10, kFnWritePage, 4, "", 2, ""},
        {"one short of the retry limit", SimFault::CorruptCrc, 9, kFnWritePage, 4, "", 1, ""},
        // Gone long enough to be forgotten, then back: burned anew.
        {"chip gone mid-page", SimFault::RemoveChip, 20, -1, 4, "", 2, ""},
        {"a stray frame", SimFault::None, 0, 0, 3, "01070000FFFF13", 1, ""},
        {"line noise", SimFault::None, 0, 0, 5, noise.constData(), 1, ""},
    };
    for (const auto &r : rows)
        QTest::newRow(r.name) << int(r.f) << r.count << r.fn << r.at << QByteArray::fromHex(r.garbage)
                              << r.starts << QString(r.pages);
}

// Whatever goes wrong on the line, the chip counted done holds the image; the
// fast line meets each fault with the same outcome and retry, frame for frame.
void TstBurnState::faultsEndWithTheRightFlash()
{
    QFETCH(int, fault);
    QFETCH(int, count);
    QFETCH(int, function);
    QFETCH(int, atWrite);
    QFETCH(QByteArray, garbage);
    QFETCH(int, starts);
    QFETCH(QString, pages);
    QList<QByteArray> normalFrames;
    for (const bool fast : {false, true}) {
        BurnBench b(BurnBench::Simulated);
        b.link.fastLine = fast;
        SimBoard &board = *b.sim;
        auto arm = [&] {
            if (garbage.isEmpty())
                simArmFault(board, SimFault(fault), count, function);
            else
                b.port.deliver(garbage);
        };
        if (atWrite == 0)
            arm();
        int writes = 0;
        b.port.onOutput = [&](const QByteArray &frame) {
            if (uint8_t(frame[1]) == kFnWritePage && ++writes == atWrite)
                arm();
            simReceive(board, frame);
        };
        b.start(3000);
        QVERIFY(b.finish());
        QCOMPARE(b.burn.ChipsDone, 1);
        QCOMPARE(board.imagesClosed, 1);
        QCOMPARE(b.logged(" Downloading the：1 (chip)"), starts);
        QCOMPARE(simFlash(board, kFlashBase, 3000), b.stamped());
        QStringList seq;
        bool entered = false;
        for (const QByteArray &f : b.port.written) {
            const uint8_t fn = uint8_t(f[1]);
            if (fn == kFnEnterDownload)
                entered = true;
            if (fn == kFnErasePage && std::exchange(entered, false))
                QCOMPARE(uint8_t(f[7]), uint8_t(8));   // every start of a chip is from page 8
            if (fn == kFnErasePage || fn == kFnClosePage)
                seq << QString("%1%2").arg(fn == kFnErasePage ? 'E' : 'C').arg(uint8_t(f[7]));
            else if (fn == kFnWritePage)
                seq << QString("W%1").arg(getLe16(f, 3));
        }
        if (!pages.isEmpty())
            QCOMPARE(seq.join(' '), pages);
        // The burn's frames; the monitor's polls after it follow the clock,
        // and so does the exchange a late reply lands in.
        QList<QByteArray> frames = b.port.written;
        frames.removeIf([](const QByteArray &f) { return uint8_t(f[1]) == kFnLinkPoll; });
        if (!fast)
            normalFrames = frames;
        else if (SimFault(fault) != SimFault::DelayReply)
            QCOMPARE(frames, normalFrames);
        QVERIFY(!fast || b.link.fastReplies > 0);
    }
}

void TstBurnState::identities_data()
{
    // One token per identify poll, the last repeated: A or B an identity, Z
    // all zeros, 0 status 0 (no identity), - silence, 4/7/16 a reply of that
    // many bytes.
    QTest::addColumn<QString>("script");
    QTest::addColumn<bool>("autoLoad");
    QTest::addColumn<int>("programs");    // clicks on Program, each once the last burn has ended
    QTest::addColumn<int>("downloads");   // chips started
    QTest::addColumn<int>("finished");
    QTest::newRow("same chip polled") << "A" << true << 1 << 1 << 1;
    QTest::newRow("four silent polls keep it") << "A A - - - - A" << true << 1 << 1 << 1;
    QTest::newRow("five silent polls forget it") << "A A - - - - - A" << true << 1 << 2 << 2;
    QTest::newRow("all-zero identity") << "Z" << true << 1 << 0 << 0;
    QTest::newRow("no identity, nothing begun") << "0" << false << 1 << 1 << 1;
    QTest::newRow("no identity after a normal end") << "A 0" << false << 2 << 1 << 1;
    QTest::newRow("silence clears BurnBegun") << "A 0 0 - - - - - 0" << false << 2 << 2 << 2;
    QTest::newRow("short replies polled again") << "4 7 16 4 A" << true << 1 << 1 << 1;
}

// The identity decides whether a chip is new: the chip just done is polled,
// not burned again, until five silent polls forget it (and BurnBegun).
void TstBurnState::identities()
{
    QFETCH(QString, script);
    QFETCH(bool, autoLoad);
    QFETCH(int, programs);
    QFETCH(int, downloads);
    QFETCH(int, finished);
    const QStringList tokens = script.split(' ');
    int polls = 0;
    BurnBench b;
    b.responder = [&](const QByteArray &r) -> QByteArray {
        if (uint8_t(r[1]) != kFnIdentify)
            return obligingDevice(r, kIdA);
        const QString t = tokens[std::min(polls++, int(tokens.size()) - 1)];
        if (t == "-")
            return {};
        if (t == "0")
            return MBBuildFrame(kFnIdentify, QByteArray(13, '\0'));
        if (const int body = t.toInt() - 4; body >= 0)   // a good CRC, too short for an identity
            return MBBuildFrame(kFnIdentify, body > 0 ? '\x01' + kIdB.left(body - 1) : QByteArray());
        return MBBuildFrame(kFnIdentify, '\x01' + (t == "A" ? kIdA : t == "B" ? kIdB : QByteArray(12, '\0')));
    };
    b.link.view.Check1[3] = autoLoad;
    const QString path = b.start(1500);
    for (int clicks = 1, i = 0; i < 20000 && polls < tokens.size() + 20; ++i) {
        if (b.idle()) {
            if (clicks++ == programs)
                break;
            b.program(path);
        }
        b.tick();
    }
    QCOMPARE(b.sent(kFnEnterDownload), downloads);
    QCOMPARE(b.logged(" Has been successfully burning："), finished);
}

void TstBurnState::cancels_data()
{
    QTest::addColumn<QString>("how");
    QTest::newRow("Stop") << "stop";
    QTest::newRow("port closed") << "close";
    QTest::newRow("FrameLen changed") << "combo";
    QTest::newRow("Load File") << "load";
    QTest::newRow("Load File that can't be read") << "unreadable";
}

// Every way a burn is cut short mid-page (AutoDetect's cancel is the
// supervisor tests'); a later Program starts from page 8 and counts chips
// from 1 again.
void TstBurnState::cancels()
{
    QFETCH(QString, how);
    BurnBench b(BurnBench::Simulated);
    SimBoard &board = *b.sim;
    const QString path = b.start(5000);
    QVERIFY(b.runUntil([&] { return b.sent(kFnWritePage) == 5; }, 2000));
    QCOMPARE(b.burn.BinDone, int16_t(2048));
    const int logBefore = int(b.link.view.RTB.size());
    const int erases = b.sent(kFnErasePage), from = int(b.port.written.size());

    if (how == "stop") {
        Command4Click(b.link, b.burn);
    } else if (how == "close") {
        Command2Click(b.link);
    } else if (how == "combo") {
        b.link.view.ComboSet[5].text = "256";
        ComboSetChange(b.link, 5);
    } else {
        b.prompter.files << (how == "load" ? path : b.dir.filePath("gone.BIN"));
        Command3Click(b.link, b.burn);
    }
    const QString added = b.link.view.RTB.mid(logBefore);
    QCOMPARE(b.link.view.Command4Caption, QString("Program"));
    QCOMPARE(b.link.ModeRequest, uint8_t(0));
    QCOMPARE(b.link.BurnArmed, int16_t(0));
    if (how == "load" || how == "unreadable") {
        QVERIFY(!added.contains("Cancel"));
        QCOMPARE(b.link.BurnBegun, int16_t(1));
    } else {
        QVERIFY(added.endsWith(" Cancel program\r\n"));
        QCOMPARE(b.link.BurnBegun, int16_t(0));
        QVERIFY(!b.link.view.PersLabVisible);
    }
    b.ticks(30);
    QCOMPARE(b.burn.BinDone, int16_t(2048));
    if (b.port.isOpen()) {
        QCOMPARE(b.link.LinkMode, uint8_t(0));
        QCOMPARE(uint8_t(b.port.written.last()[1]), kFnLinkPoll);
    } else {
        b.link.view.ComboSet[0].text = "/dev/fake0";
        b.open();
    }
    b.burn.ChipsDone = 7;
    Command4Click(b.link, b.burn);
    QVERIFY(b.finish());
    QCOMPARE(getLe32(b.sentWith(kFnErasePage).at(erases), 3), uint32_t(kFlashBase));
    QCOMPARE(b.burn.ChipsDone, 1);
    QCOMPARE(b.logged(" Downloading the：1 (chip)"), 2);
    QCOMPARE(simFlash(board, kFlashBase, 5000), b.stamped());
    for (const QByteArray &w : b.port.written.mid(from))
        if (uint8_t(w[1]) == kFnWritePage)
            QVERIFY(w.size() <= (how == "combo" ? 256 : 512) + 9);
}

void TstBurnState::rearmedWithinOneExchange_data()
{
    QTest::addColumn<QString>("how");
    QTest::addColumn<int>("len");     // of the new image
    QTest::newRow("Load File, Program") << "load" << 6000;
    QTest::newRow("Load File of a shorter image, Program") << "load" << 1500;
    QTest::newRow("Stop, file rebuilt, Program") << "stop" << 3000;
    QTest::newRow("FrameLen changed, port reopened, Program") << "combo" << 4000;
}

// Clicks that end a burn and arm a new one while one exchange is under way:
// the new burn starts afresh from page 8 with the new image, and the only chip
// reported done holds that image whole.
void TstBurnState::rearmedWithinOneExchange()
{
    QFETCH(QString, how);
    QFETCH(int, len);
    BurnBench b(BurnBench::Simulated);
    SimBoard &board = *b.sim;
    const QString first = b.start(5000);
    QVERIFY(b.runUntil([&] { return b.sent(kFnWritePage) == 5; }, 2000));
    QVERIFY(b.link.MBStep != 0);
    const int erases = b.sent(kFnErasePage);

    const QByteArray next = testImage(len, 99);
    QString path = first;
    if (how == "load") {
        path = b.file(next, "next.BIN");
        b.prompter.files << path;
        Command3Click(b.link, b.burn);
    } else if (how == "stop") {
        Command4Click(b.link, b.burn);
        b.file(next);
    } else {
        b.link.view.ComboSet[5].text = "256";
        ComboSetChange(b.link, 5);
        b.open();
        b.file(next);
    }
    Command4Click(b.link, b.burn);
    QVERIFY(b.burning());
    QVERIFY(b.finish());
    QCOMPARE(b.logged(" Has been successfully burning："), 1);
    QVERIFY(b.link.view.RTB.endsWith(" Has been successfully burning：1 (chip) " + path + "\r\n"));
    QCOMPARE(getLe32(b.sentWith(kFnErasePage).at(erases), 3), uint32_t(kFlashBase));
    QCOMPARE(b.stamped().size(), len);
    QCOMPARE(simFlash(board, kFlashBase, len), b.stamped());
}

// FrameLen values that don't divide a page, or none: the page restarts (or
// empty frames go) until Stop; nothing overruns, nothing is counted done.
void TstBurnState::oddFrameLengths()
{
    for (const char *text : {"300", "0", "abc", "99999"}) {
        BurnBench b(BurnBench::Simulated);
        b.link.view.ComboSet[5].text = text;
        b.start(3000);
        b.ticks(600);
        QVERIFY2(b.burning(), text);
        QCOMPARE(b.sent(kFnClosePage), 0);
        for (const QByteArray &w : b.sentWith(kFnWritePage))
            QCOMPARE(int(getLe16(w, 5)) + 9, int(w.size()));
        Command4Click(b.link, b.burn);
        QVERIFY(b.finish(200));
    }
    // The box is read as every typed number is: leading number, ties to even.
    const QList<QPair<QString, int>> texts{{" 128 bytes", 128}, {"&H200", 512}, {"12.5", 12}, {"-64", 0}, {"99999", 32767}};
    for (const auto &[text, len] : texts) {
        View v;
        v.ComboSet[5].text = text;
        QCOMPARE(ReadFrameLen(v), int16_t(len));
    }
}

QTEST_GUILESS_MAIN(TstBurnState)
#include "tst_burnstate.moc"
