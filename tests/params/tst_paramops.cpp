#include "fakeport.h"
#include "frame.h"
#include "link.h"
#include "paramops.h"
#include "params.h"
#include "portcontrol.h"
#include "simlink.h"

#include <QStringEncoder>
#include <QtTest>
#include <cstring>

using namespace pyro;

namespace {

// The worked example: four values behind the 32-byte header of a 44-byte block.
const char *const kSettingsTable =
    "40\\/44\r\n"
    "600\\/2000\\/4000\\/2400\r\n"
    "No.><4><0><16777215><360><10\\/Group><4><0><16777215><360><10\\/Item><4><0><16777215><360><10\\/Value><4><0><16777215><360><10\r\n"
    "1><4><0><16777215><330><10\\/Motor><1><0><16777215><330><10\\/Rated speed><1><0><16777215><330><10\\/List:><33><2><0><0><0><0><1><0||6000\r\n"
    "2><4><0><16777215><330><10\\/Motor><1><0><16777215><330><10\\/Direction><1><0><16777215><330><10\\/List:><35><1><0><0><1><0><1><Forward||Reverse><0||1\r\n"
    "3><4><0><16777215><330><10\\/Motor><1><0><16777215><330><10\\/Brake><1><0><16777215><330><10\\/List:><37><4><0><3><1><0><1><Off||On><0||1\r\n"
    "4><4><0><16777215><330><10\\/Limit><1><0><16777215><330><10\\/Current><1><0><16777215><330><10\\/List:><41><4><2><0><0><1><1><0||50\r\n"
    "End\r\n";

// Eight bytes of running values: a word and a long in tenths.
const char *const kDisplayTable =
    "30\\/8\r\n"
    "600\\/2000\\/4000\\/2400\r\n"
    "No.><4><0><16777215><360><10\\/Group><4><0><16777215><360><10\\/Item><4><0><16777215><360><10\\/Value><4><0><16777215><360><10\r\n"
    "1><4><0><16777215><330><10\\/Run><1><0><16777215><330><10\\/Speed><1><0><16777215><330><10\\/List:><1><2><0><0><0><0><1><0||9999\r\n"
    "2><4><0><16777215><330><10\\/Run><1><0><16777215><330><10\\/Voltage><1><0><16777215><330><10\\/List:><5><4><1><0><0><0><10><0||999\r\n"
    "End\r\n";

// A settings table of a given block size with one byte row at the payload's start.
QByteArray sizedTable(int blockSize)
{
    return QByteArray("40\\/") + QByteArray::number(blockSize)
        + "\r\n600\\/2000\\/4000\\/2400\r\n"
          "No.><4><0><16777215><360><10\\/Group><4><0><16777215><360><10\\/Item><4><0><16777215><360><10\\/Value><4><0><16777215><360><10\r\n"
          "1><4><0><16777215><330><10\\/Motor><1><0><16777215><330><10\\/Poles><1><0><16777215><330><10\\/List:><33><1><0><0><0><0><1><1||32\r\n"
          "End\r\n";
}

// A good settings image: header with its length, payload, stamped CRC.
QByteArray goodImage(int blockSize, uint8_t fill)
{
    QByteArray img(blockSize, char(fill));
    for (int i = 0; i < 20; ++i)
        img[i] = char(0xA0 + i);   // the device's own header bytes travel along
    putLe32(img, kImageLengthAt, uint32_t(blockSize - kImageHeaderSize));
    TableInfo info;
    info.BlockSize = int16_t(blockSize);
    StampImage(img, info);
    return img;
}

// The 44-byte example image: speed 1500, Reverse, brake On, current 12.5.
QByteArray exampleImage()
{
    QByteArray img = goodImage(44, 0);
    putLe16(img, 32, 1500);
    img[34] = 1;
    putLe32(img, 36, 1u << 2);
    float cur = 12.5f;
    uint32_t bits;
    std::memcpy(&bits, &cur, 4);
    putLe32(img, 40, bits);
    TableInfo info;
    info.BlockSize = 44;
    StampImage(img, info);
    return img;
}

QByteArray readReply(const QByteArray &data, uint8_t fn = kFnReadMemory)
{
    QByteArray body(6, '\0');
    putLe16(body, 4, uint16_t(data.size()));
    return MBBuildFrame(fn, body + data);
}

QByteArray statusReply(uint8_t fn, uint8_t status)
{
    return MBBuildFrame(fn, QByteArray(1, char(status)));
}

// A link on a fake port with a scripted device behind it. The device answers
// every frame at once through `answer`; the default plays a good board.
struct OpsBench {
    Link link;
    FakePort port;
    ScriptedPrompter prompter;
    Params params;
    ParamOps ops;

    QByteArray flashSettings = exampleImage();
    QByteArray running = QByteArray::fromHex("DC05" "00000000") + QByteArray(2, '\0');
    uint32_t displayAddr = 0x20001000;
    QByteArray info;
    std::function<QByteArray(const QByteArray &)> answer;

    explicit OpsBench(const QByteArray &settings = kSettingsTable, const QByteArray &display = kDisplayTable)
    {
        link.prompter = &prompter;
        AttachPort(link, &port);
        InitPortBoxes(link.view);
        link.view.ComboSet[0].text = QStringLiteral("/dev/fake0");
        load(0, settings);
        load(1, display);
        putLe32(running, 4, 2205);   // 220.5 V
        InstallParamOps(link, params, ops);
        answer = [this](const QByteArray &req) { return standard(req); };
        port.onOutput = [this](const QByteArray &req) {
            const QByteArray r = answer(req);
            if (!r.isEmpty())
                port.deliver(r);
        };
    }
    void load(int t, const QByteArray &text)
    {
        QVERIFY(LoadProtocolTableData(params.MSFG[t], text, params.rows(t), params.Tables[t]) == 0);
        params.block(t) = QByteArray(params.Tables[t].BlockSize + 1, '\0');
    }
    QByteArray standard(const QByteArray &req)
    {
        switch (uint8_t(req[1])) {
        case kFnLinkPoll:
            return statusReply(kFnLinkPoll, 2);
        case kFnReadMemory: {
            const uint32_t at = getLe32(req, 2);
            const int n = getLe16(req, 6);
            if (at == kSettingsReadAddr)
                return readReply(flashSettings.left(n));
            if (at == kBitInfAddr)
                return readReply(info.left(n));
            return readReply(running.left(n));
        }
        case kFnWriteParams:
            return statusReply(kFnWriteParams, 0);
        case kFnEraseParams:
            return statusReply(kFnEraseParams, 0);
        case kFnDisplayAddress:
            return MBBuildFrame(kFnDisplayAddress, le32(displayAddr));
        default:
            return {};
        }
    }
    void open() { Command2Click(link); }
    void tick()
    {
        port.pump();
        MBTimTimer(link);
    }
    // Requests a mode and runs until it has ended (or maxTicks pass).
    bool runMode(uint8_t mode, int maxTicks = 1000)
    {
        link.ModeRequest = mode;
        bool entered = false;
        for (int i = 0; i < maxTicks; ++i) {
            tick();
            entered = entered || link.LinkMode == mode;
            if (entered && link.ModeRequest == 0)
                return true;
        }
        return false;
    }
    void ticks(int n)
    {
        for (int i = 0; i < n; ++i)
            tick();
    }
    bool runUntil(const std::function<bool()> &cond, int maxTicks = 1000)
    {
        for (int i = 0; i < maxTicks && !cond(); ++i)
            tick();
        return cond();
    }
    // The frames of the operations, the monitor's polls left out.
    QList<QByteArray> opFrames() const
    {
        QList<QByteArray> out;
        for (const QByteArray &f : port.written)
            if (uint8_t(f[1]) != kFnLinkPoll)
                out << f;
        return out;
    }
};

} // namespace

class TstParamOps : public QObject {
    Q_OBJECT
private slots:
    void framesAndLimits_data();
    void framesAndLimits();
    void outcomes_data();
    void outcomes();
    void readGoodImageFillsGrid();
    void readBadImageKeepsGridAndBytes();
    void shortReadKeepsOldBytes();
    void updateRefusesWrongLength();
    void updateAndSaveDifferInFlagOnly();
    void blockSize256();
    void watchAddress();
    void watchKeepsPollingThroughFailures();
    void readRequestedWhileWatching();
    void strayStateWord_data();
    void strayStateWord();
    void deviceInfo();
    void deviceInfoFailureSaysNothing();
    void menuButtons();
    void badReplies_data();
    void badReplies();
    void againstSimulatedBoard();
};

// --- frames -----------------------------------------------------------------

void TstParamOps::framesAndLimits_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QByteArray>("frame");   // hex; "*" ends a prefix check
    QTest::addColumn<int>("quiet");
    QTest::addColumn<int>("reply");
    QTest::addColumn<int>("sendLimit");
    QTest::newRow("erase") << 2 << QByteArray("01 FE 44 33 22 11 4D 14") << 2 << 100 << 50;
    QTest::newRow("read settings, BlockSize 44") << 3 << QByteArray("01 F4 00 28 00 08 2C 00 0C C9") << 3 << 100 << 50;
    QTest::newRow("update") << 4 << QByteArray("01 F5 10 01 00 20 2C 00 00 *") << 3 << 100 << 500;
    QTest::newRow("save") << 5 << QByteArray("01 F5 10 01 00 20 2C 00 AA *") << 3 << 200 << 500;
    QTest::newRow("read information") << 6 << QByteArray("01 F4 00 24 00 08 32 00 AD D0") << 3 << 100 << 50;
    QTest::newRow("ask display address") << 7 << QByteArray("01 FF 00 F0 61") << 3 << 100 << 50;
}

void TstParamOps::framesAndLimits()
{
    QFETCH(int, mode);
    QFETCH(QByteArray, frame);
    QFETCH(int, quiet);
    QFETCH(int, reply);
    QFETCH(int, sendLimit);
    OpsBench b;
    b.answer = [](const QByteArray &) { return QByteArray(); };   // silence: the first frame stays on the line
    b.open();
    b.params.SetImage = exampleImage() + '\0';
    b.link.ModeRequest = uint8_t(mode);
    QVERIFY(b.runUntil([&] { return !b.opFrames().isEmpty(); }, 100));
    const QByteArray sent = b.opFrames().first();
    QCOMPARE(b.link.MBQuietLimit, int16_t(quiet));
    QCOMPARE(b.link.MBReplyLimit, int16_t(reply));
    QCOMPARE(b.link.MBSendLimit, int16_t(sendLimit));
    if (frame.endsWith('*')) {
        const QByteArray head = fromHexLine(frame.chopped(1).trimmed());
        QCOMPARE(toHexLine(sent.left(head.size())), toHexLine(head));
        // The freshly stamped image from index 9, then the frame's CRC.
        QCOMPARE(sent.size(), 44 + 11);
        QCOMPARE(sent.mid(kWriteDataAt, 44), exampleImage());
        QVERIFY(FrameCrcOk(sent));
    } else {
        QCOMPARE(toHexLine(sent), frame);
    }
}

// --- outcomes and panel-2 texts ---------------------------------------------

void TstParamOps::outcomes_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QString>("reply");   // "good", "status", "crc", "none"
    QTest::addColumn<QString>("panel2");
    QTest::newRow("erase good") << 2 << "good" << "Erase the data successfully";
    QTest::newRow("erase refused") << 2 << "status" << "Erase data failed";
    QTest::newRow("erase bad crc") << 2 << "crc" << "Erase data failed!";
    QTest::newRow("erase silent") << 2 << "none" << "Erase data failed!";
    QTest::newRow("read good") << 3 << "good" << "Successful reading data set";
    QTest::newRow("read bad crc") << 3 << "crc" << "Read the data failure";
    QTest::newRow("read silent") << 3 << "none" << "Read the data failure";
    QTest::newRow("update good") << 4 << "good" << "Update the set data successfully";
    QTest::newRow("update refused") << 4 << "status" << "Setting the update data failed";
    QTest::newRow("update silent") << 4 << "none" << "Communication fails";
    QTest::newRow("save good") << 5 << "good" << "Save Settings data successfully";
    QTest::newRow("save refused") << 5 << "status" << "Save Settings data failed";
    QTest::newRow("save bad crc") << 5 << "crc" << "Communication fails";
}

void TstParamOps::outcomes()
{
    QFETCH(int, mode);
    QFETCH(QString, reply);
    QFETCH(QString, panel2);
    OpsBench b;
    b.params.SetImage = exampleImage() + '\0';
    b.answer = [&](const QByteArray &req) -> QByteArray {
        if (uint8_t(req[1]) == kFnLinkPoll || reply == "good")
            return b.standard(req);
        if (reply == "status")
            return statusReply(uint8_t(req[1]), 0x05);
        if (reply == "crc") {
            QByteArray r = b.standard(req);
            r[r.size() - 1] = char(r[r.size() - 1] ^ 0x5A);
            return r;
        }
        return {};
    };
    b.open();
    b.link.view.SB[2] = "before";
    QVERIFY(b.runMode(uint8_t(mode)));
    QCOMPARE(b.link.view.SB[2], panel2);
    QCOMPARE(b.link.StateWord, int16_t(0));
    // Each operation tries once.
    QCOMPARE(b.opFrames().size(), 1);
    // The monitor takes the line back.
    const int polls = int(b.port.written.size());
    b.ticks(10);
    QCOMPARE(b.link.LinkMode, uint8_t(0));
    QVERIFY(b.port.written.size() > polls);
}

// --- read -------------------------------------------------------------------

void TstParamOps::readGoodImageFillsGrid()
{
    OpsBench b;
    b.open();
    QVERIFY(!b.link.view.MenuImgEnabled[4]);
    QVERIFY(b.runMode(3));
    QCOMPARE(b.params.SetImage.left(44), exampleImage());
    GridModel &g = b.params.MSFG[0];
    QCOMPARE(g.text(1, 3), QString("1500"));
    QCOMPARE(g.text(2, 3), QString("Reverse"));
    QCOMPARE(g.text(3, 3), QString("On"));
    QCOMPARE(g.text(4, 3), QString("12.50"));
    // A read alone counts as unsaved work.
    QVERIFY(b.link.view.MenuImgEnabled[4]);
}

void TstParamOps::readBadImageKeepsGridAndBytes()
{
    OpsBench b;
    b.open();
    QVERIFY(b.runMode(3));
    QCOMPARE(b.params.MSFG[0].text(1, 3), QString("1500"));
    b.link.view.MenuImgEnabled[4] = false;

    // Payload changed behind the stored CRC: the frame is good, the image isn't.
    QByteArray bad = exampleImage();
    putLe16(bad, 32, 4321);
    b.flashSettings = bad;
    QVERIFY(b.runMode(3));
    QCOMPARE(b.link.view.SB[2], QString("Read the data validation is invalid"));
    QCOMPARE(b.params.MSFG[0].text(1, 3), QString("1500"));
    QCOMPARE(b.params.SetImage.left(44), bad);
    QVERIFY(!b.link.view.MenuImgEnabled[4]);
}

void TstParamOps::shortReadKeepsOldBytes()
{
    OpsBench b;
    b.open();
    QVERIFY(b.runMode(3));
    const QByteArray before = b.params.SetImage;
    // 22 data bytes only, into the length field: they go in, the rest stays.
    const QByteArray head = QByteArray(22, char(0x77));
    b.answer = [&](const QByteArray &req) {
        return getLe32(req, 2) == kSettingsReadAddr ? readReply(head) : b.standard(req);
    };
    QVERIFY(b.runMode(3));
    QCOMPARE(b.link.view.SB[2], QString("Read the data validation is invalid"));
    QCOMPARE(b.params.SetImage.size(), before.size());
    // The reply's two CRC bytes stand where the data ran out.
    QCOMPARE(b.params.SetImage.left(22), head);
    QCOMPARE(b.params.SetImage.mid(24), before.mid(24));
}

// --- update and save --------------------------------------------------------

void TstParamOps::updateRefusesWrongLength()
{
    for (uint32_t len : {0u, 11u, 13u, 0xFFFFFFF4u}) {
        OpsBench b;
        b.open();
        QByteArray img = exampleImage() + '\0';
        putLe32(img, kImageLengthAt, len);
        img[28] = char(0x12);
        b.params.SetImage = img;
        QVERIFY(b.runMode(4));
        QCOMPARE(b.link.view.SB[2], QString("Set the data validation is invalid"));
        QVERIFY(b.opFrames().isEmpty());
        QCOMPARE(b.params.SetImage, img);
    }
}

void TstParamOps::updateAndSaveDifferInFlagOnly()
{
    OpsBench b;
    b.open();
    QVERIFY(b.runMode(3));
    GridModel &g = b.params.MSFG[0];
    // Two edited cells in red; the current one turns black after the write.
    QVERIFY(EncodeValue("2000", b.params.SetImage, b.params.SetRows, 1, &b.prompter) == 0);
    g.setText(1, 3, "2000");
    g.setFore(1, 3, qRgb(255, 0, 0));
    g.setFore(2, 3, qRgb(255, 0, 0));
    QVERIFY(g.setCurrentCell(1, 3));
    b.link.view.MenuImgEnabled[4] = false;

    QVERIFY(b.runMode(4));
    QCOMPARE(b.link.view.SB[2], QString("Update the set data successfully"));
    QCOMPARE(g.cell(1, 3).fore, qRgb(0, 0, 0));
    QCOMPARE(g.cell(2, 3).fore, qRgb(255, 0, 0));
    QVERIFY(!b.link.view.MenuImgEnabled[4]);
    QVERIFY(b.runMode(5));
    QCOMPARE(b.link.view.SB[2], QString("Save Settings data successfully"));

    const QList<QByteArray> f = b.opFrames();
    QCOMPARE(f.size(), 3);
    const QByteArray upd = f[1], sav = f[2];
    QCOMPARE(upd.size(), sav.size());
    // The stamped image carries the edit and a good CRC.
    QCOMPARE(getLe16(upd, kWriteDataAt + 32), uint16_t(2000));
    QCOMPARE(CheckImage(upd.mid(kWriteDataAt, 44), b.params.Tables[0]), int16_t(0));
    for (int i = 0; i < upd.size() - 2; ++i) {
        if (i != kWriteFlagAt)
            QCOMPARE(upd[i], sav[i]);
    }
    QCOMPARE(uint8_t(upd[kWriteFlagAt]), kWriteFlagUpdate);
    QCOMPARE(uint8_t(sav[kWriteFlagAt]), kWriteFlagSave);
    QVERIFY(upd.right(2) != sav.right(2));
}

void TstParamOps::blockSize256()
{
    OpsBench b(sizedTable(256));
    b.flashSettings = goodImage(256, 3);
    b.open();
    QVERIFY(b.runMode(3));
    QCOMPARE(b.link.view.SB[2], QString("Successful reading data set"));
    QCOMPARE(b.params.MSFG[0].text(1, 3), QString("3"));
    QVERIFY(b.runMode(5));
    const QList<QByteArray> f = b.opFrames();
    QCOMPARE(f.size(), 2);
    QCOMPARE(toHexLine(f[0].left(8)), QByteArray("01 F4 00 28 00 08 00 01"));
    QCOMPARE(toHexLine(f[1].left(9)), QByteArray("01 F5 10 01 00 20 00 01 AA"));
    QCOMPARE(f[1].size(), 256 + 11);
}

// --- watch ------------------------------------------------------------------

void TstParamOps::watchAddress()
{
    OpsBench b;
    QList<uint32_t> addrs{0x20000000u, 0u, 0x80000001u, 0x1FFFFFFFu, 0x20000001u};
    int asked = 0;
    b.answer = [&](const QByteArray &req) {
        if (uint8_t(req[1]) == kFnDisplayAddress) {
            const uint32_t a = addrs.value(asked++, 0x20000001u);
            return MBBuildFrame(kFnDisplayAddress, le32(a));
        }
        return b.standard(req);
    };
    b.open();
    b.link.view.SB[2] = "quiet";
    b.link.ModeRequest = 7;
    QVERIFY(b.runUntil([&] { return b.ops.displayPolls >= 3; }));
    // Asked again without a word until 0x20000001, then never again.
    QCOMPARE(asked, 5);
    QCOMPARE(b.ops.DisplayAddr, int32_t(0x20000001));
    const QList<QByteArray> f = b.opFrames();
    for (int i = 0; i < 5; ++i)
        QCOMPARE(toHexLine(f[i]), QByteArray("01 FF 00 F0 61"));
    QCOMPARE(toHexLine(f[5].left(8)), QByteArray("01 F4 01 00 00 20 08 00"));
    QCOMPARE(b.link.view.SB[2], QString("Successful reading data set"));
    QCOMPARE(b.params.MSFG[1].text(1, 3), QString("1500"));
    QCOMPARE(b.params.MSFG[1].text(2, 3), QString("220.5"));
    QCOMPARE(b.params.DisplayImage.left(8), b.running);
    // It never ends by itself.
    QCOMPARE(b.link.ModeRequest, uint8_t(7));
}

void TstParamOps::watchKeepsPollingThroughFailures()
{
    OpsBench b;
    int reads = 0;
    b.answer = [&](const QByteArray &req) -> QByteArray {
        if (uint8_t(req[1]) == kFnReadMemory && ++reads == 2)
            return readReply(QByteArray(8, '\x01')).left(9);   // cut short: CRC fails
        return b.standard(req);
    };
    b.open();
    b.link.ModeRequest = 7;
    QVERIFY(b.runUntil([&] { return reads == 2 && b.link.MBStep == 0; }));
    b.tick();
    QCOMPARE(b.link.view.SB[2], QString("Read the data failure"));
    QCOMPARE(b.ops.displayPolls, qint64(1));
    QVERIFY(b.runUntil([&] { return b.ops.displayPolls == 2; }));
    QCOMPARE(b.link.view.SB[2], QString("Successful reading data set"));
    // The address was asked once for the whole stay in the mode.
    int asks = 0;
    for (const QByteArray &f : b.opFrames())
        asks += uint8_t(f[1]) == kFnDisplayAddress;
    QCOMPARE(asks, 1);
}

void TstParamOps::readRequestedWhileWatching()
{
    OpsBench b;
    b.open();
    b.link.ModeRequest = 7;
    QVERIFY(b.runUntil([&] { return b.ops.displayPolls == 2 && b.link.StateWord == 3 && b.link.MBStep != 0; }));
    const QByteArray shown = b.params.DisplayImage;
    b.running = QByteArray(8, '\x42');   // what the displaced reply would bring
    MenuImgClick(b.ops, 1);
    QCOMPARE(b.ops.frontGrid, 0);
    // The running-values exchange ends; on that same tick the read goes out.
    bool sawHandover = false;
    for (int i = 0; i < 200 && !sawHandover; ++i) {
        const int before = int(b.port.written.size());
        const bool busy = b.link.MBStep != 0;
        b.tick();
        if (b.link.LinkMode == 3) {
            QVERIFY(busy);
            QCOMPARE(b.port.written.size(), before + 1);
            QCOMPARE(toHexLine(b.port.written.last().left(6)), QByteArray("01 F4 00 28 00 08"));
            sawHandover = true;
        }
    }
    QVERIFY(sawHandover);
    QCOMPARE(b.ops.displayPolls, qint64(2));
    QCOMPARE(b.params.DisplayImage, shown);
    QVERIFY(b.runUntil([&] { return b.link.ModeRequest == 0; }));
    QCOMPARE(b.link.view.SB[2], QString("Successful reading data set"));
}

// --- stray words ------------------------------------------------------------

void TstParamOps::strayStateWord_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<int>("stray");
    QTest::addColumn<int>("rest");
    for (int m = 2; m <= 6; ++m) {
        QTest::addRow("mode %d, 9", m) << m << 9 << 0;
        QTest::addRow("mode %d, -1", m) << m << -1 << 0;
    }
    QTest::newRow("mode 7, 4") << 7 << 4 << 2;
    QTest::newRow("mode 7, -3") << 7 << -3 << 2;
}

void TstParamOps::strayStateWord()
{
    QFETCH(int, mode);
    QFETCH(int, stray);
    QFETCH(int, rest);
    OpsBench b;
    b.open();
    b.link.LinkMode = b.link.ModeRequest = uint8_t(mode);
    b.link.StateWord = int16_t(stray);
    const int sent = int(b.port.written.size());
    b.tick();
    QCOMPARE(b.link.StateWord, int16_t(rest));
    QCOMPARE(b.port.written.size(), sent);
}

// --- device information -----------------------------------------------------

void TstParamOps::deviceInfo()
{
    OpsBench b;
    BitInfRec want;
    want.DeviceId = 1234;
    want.DeviceId2 = -1;
    want.DateUpdated = "261119";
    want.OrderId = QStringLiteral("订单A-42");
    want.RemarkStamp = QStringLiteral("K700操作员");
    b.info = writeBitInfRec(want);
    QCOMPARE(b.info.size(), kInfoSize);
    QCOMPARE(toHexLine(b.info.left(4)), QByteArray("D2 04 FF FF"));

    int shown = 0;
    b.ops.showBitInfForm = [&](ParamOps &ops) {
        ++shown;
        QCOMPARE(ops.link->StateWord, int16_t(2));
        QCOMPARE(ops.link->ModeRequest, uint8_t(6));
        // Ticks that come while the window is open judge nothing again.
        const int sent = int(b.port.written.size());
        b.tick();
        DeviceInfoStep(ops);
        DeviceInfoStep(ops);
        QCOMPARE(b.port.written.size(), sent);
    };
    b.open();
    MenuImgClick(b.ops, 6);
    QVERIFY(b.runMode(6));
    QCOMPARE(shown, 1);
    QCOMPARE(b.ops.BitInf.DeviceId, int16_t(1234));
    QCOMPARE(b.ops.BitInf.DateUpdated, QString("261119"));
    // GBK: the four Chinese characters take two bytes each, the rest blanks.
    QCOMPARE(b.ops.BitInf.OrderId, QStringLiteral("订单A-42").leftJustified(30 - 2, ' '));
    QCOMPARE(b.ops.BitInf.RemarkStamp, QStringLiteral("K700操作员"));
    QCOMPARE(b.link.view.NotesTxt[5], b.ops.BitInf.OrderId);
    QCOMPARE(writeBitInfRec(b.ops.BitInf), b.info);
    b.ticks(5);
    QCOMPARE(shown, 1);

    // A reply with fewer than 50 bytes: the missing ones are blanks, no more.
    b.info = b.info.left(12);
    QVERIFY(b.runMode(6));
    QCOMPARE(shown, 2);
    QCOMPARE(b.ops.BitInf.DeviceId, int16_t(1234));
}

void TstParamOps::deviceInfoFailureSaysNothing()
{
    OpsBench b;
    int shown = 0;
    b.ops.showBitInfForm = [&](ParamOps &) { ++shown; };
    b.answer = [&](const QByteArray &req) {
        return uint8_t(req[1]) == kFnLinkPoll ? b.standard(req) : QByteArray();
    };
    b.open();
    b.link.view.NotesTxt[5] = "keep";
    b.link.view.SB[2] = "keep";
    QVERIFY(b.runMode(6));
    QCOMPARE(shown, 0);
    QVERIFY(b.prompter.shown.isEmpty());
    QCOMPARE(b.link.view.NotesTxt[5], QString("keep"));
    QCOMPARE(b.link.view.SB[2], QString("keep"));
}

// --- the buttons ------------------------------------------------------------

void TstParamOps::menuButtons()
{
    OpsBench b;
    // Port closed: button 0 hints in panel 1 and asks nothing.
    MenuImgClick(b.ops, 0);
    QCOMPARE(b.link.view.SB[1], QString("请先打开串口！"));
    QVERIFY(b.prompter.shown.isEmpty());
    QCOMPARE(b.link.ModeRequest, uint8_t(0));
    // Button 1 with the port closed: the request waits for the port.
    MenuImgClick(b.ops, 1);
    QCOMPARE(b.link.ModeRequest, uint8_t(3));
    b.ticks(3);
    QVERIFY(b.port.written.isEmpty());
    b.open();
    QVERIFY(b.runUntil([&] { return b.link.ModeRequest == 0; }));
    QCOMPARE(b.opFrames().size(), 1);

    // No leaves the request as it was.
    b.link.ModeRequest = 0;
    b.prompter.answers = {false};
    MenuImgClick(b.ops, 0);
    QCOMPARE(b.prompter.shown.last(), QString("警告|确认擦除设置参数，恢复默认设置吗？"));
    QCOMPARE(b.link.ModeRequest, uint8_t(0));
    b.ops.frontGrid = 1;
    b.prompter.answers = {true};
    MenuImgClick(b.ops, 0);
    QCOMPARE(b.link.ModeRequest, uint8_t(2));
    QCOMPARE(b.ops.frontGrid, 0);

    const struct { int button; uint8_t request; int front; } cases[] = {
        {1, 3, 0}, {2, 4, 0}, {3, 5, 0}, {5, 7, 1}, {6, 6, -1}};
    for (const auto &c : cases) {
        b.ops.frontGrid = -1;
        b.link.ModeRequest = 0;
        MenuImgClick(b.ops, c.button);
        QCOMPARE(b.link.ModeRequest, c.request);
        QCOMPARE(b.ops.frontGrid, c.front);
    }

    // A burn is never displaced: button 0 still asks, its Yes does nothing.
    for (int i : {0, 1, 2, 3, 5, 6}) {
        b.link.ModeRequest = 1;
        b.ops.frontGrid = -1;
        const int asked = int(b.prompter.shown.size());
        MenuImgClick(b.ops, i);
        QCOMPARE(b.link.ModeRequest, uint8_t(1));
        QCOMPARE(b.ops.frontGrid, -1);
        QCOMPARE(int(b.prompter.shown.size()), asked + (i == 0 ? 1 : 0));
    }
}

// --- bad input --------------------------------------------------------------

void TstParamOps::badReplies_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<QString>("panel2");
    const QByteArray img = exampleImage();
    QTest::newRow("read: frame of four bytes") << 3 << MBBuildFrame(kFnReadMemory, {}) << "Read the data validation is invalid";
    QTest::newRow("read: header only") << 3 << readReply({}) << "Read the data validation is invalid";
    QTest::newRow("read: long") << 3 << readReply(img + QByteArray(300, '\x55')) << "Successful reading data set";
    QTest::newRow("read: three bytes") << 3 << QByteArray("\x01\xF4\x00", 3) << "Read the data failure";
    QTest::newRow("read: foreign function") << 3 << readReply(img, kFnLinkPoll) << "Read the data failure";
    QTest::newRow("read: garbage") << 3 << QByteArray(70, '\xFF') << "Read the data failure";
    QTest::newRow("erase: no status") << 2 << MBBuildFrame(kFnEraseParams, {}) << "Erase data failed";
    QTest::newRow("erase: foreign") << 2 << statusReply(kFnWriteParams, 0) << "Erase data failed!";
    QTest::newRow("update: no status") << 4 << MBBuildFrame(kFnWriteParams, {}) << "Setting the update data failed";
    QTest::newRow("update: long") << 4 << MBBuildFrame(kFnWriteParams, QByteArray(600, '\0')) << "Update the set data successfully";
    QTest::newRow("info: four bytes") << 6 << MBBuildFrame(kFnReadMemory, {}) << "";
    QTest::newRow("info: long") << 6 << readReply(QByteArray(400, '\xB0')) << "";
    QTest::newRow("watch: short") << 7 << MBBuildFrame(kFnReadMemory, QByteArray(3, '\0')) << "Successful reading data set";
    QTest::newRow("watch: long") << 7 << readReply(QByteArray(500, '\x11')) << "Successful reading data set";
    QTest::newRow("watch: corrupt") << 7 << QByteArray::fromHex("01F4000000000800AABBCCDDEEFF0011AABB") << "Read the data failure";
}

void TstParamOps::badReplies()
{
    QFETCH(int, mode);
    QFETCH(QByteArray, reply);
    QFETCH(QString, panel2);
    OpsBench b;
    b.params.SetImage = exampleImage() + '\0';
    b.answer = [&](const QByteArray &req) {
        const uint8_t fn = uint8_t(req[1]);
        if (fn == kFnLinkPoll || fn == kFnDisplayAddress)
            return b.standard(req);
        return reply;
    };
    b.open();
    if (mode == 3)
        b.params.SetImage = QByteArray(45, '\0');
    if (mode == 7) {
        b.link.ModeRequest = 7;
        QVERIFY(b.runUntil([&] { return b.opFrames().size() >= 4 && b.link.MBStep == 0; }));
        b.tick();
        QCOMPARE(b.link.LinkMode, uint8_t(7));
        QCOMPARE(b.params.DisplayImage.size(), 9);
    } else {
        QVERIFY(b.runMode(uint8_t(mode)));
        QCOMPARE(b.params.SetImage.size(), 45);
        QCOMPARE(b.ops.BitInfBytes.size(), kInfoSize);
    }
    if (!panel2.isEmpty())
        QCOMPARE(b.link.view.SB[2], panel2);
}

// --- the simulated board, in-process ---------------------------------------

void TstParamOps::againstSimulatedBoard()
{
    OpsBench b;
    Params &p = b.params;
    LoadParamTables(p, QStringLiteral(PYRO_DATA_DIR), &b.prompter);
    QVERIFY2(b.prompter.shown.isEmpty(), qPrintable(b.prompter.shown.join(';')));
    b.port.onOutput = nullptr;
    SimBoard board;
    attachSim(b.port, board);
    b.open();
    auto run = [&](uint8_t mode) {
        b.link.ModeRequest = mode;
        simRun(b.port, board, b.link, 100, [&] { return b.link.LinkMode == mode; });
        simRun(b.port, board, b.link, 1000, [&] { return b.link.ModeRequest == 0; });
        return b.link.ModeRequest == 0;
    };
    QVERIFY(run(3));
    QCOMPARE(b.link.view.SB[2], QString("Successful reading data set"));
    const QByteArray factory = p.SetImage;
    const QString shown = p.MSFG[0].text(2, 3);

    // Edit the second row, update: the working copy takes it, the flash not.
    const QString edited = QString::number(shown.toInt() == 4 ? 5 : 4);
    EncodeValue(edited, p.SetImage, p.SetRows, 2, &b.prompter);
    QVERIFY(run(4));
    QCOMPARE(b.link.view.SB[2], QString("Update the set data successfully"));
    QCOMPARE(simRam(board, kSettingsWriteAddr, p.Tables[0].BlockSize), p.SetImage.left(p.Tables[0].BlockSize));
    QVERIFY(run(3));
    QCOMPARE(p.MSFG[0].text(2, 3), shown);

    EncodeValue(edited, p.SetImage, p.SetRows, 2, &b.prompter);
    QVERIFY(run(5));
    QCOMPARE(b.link.view.SB[2], QString("Save Settings data successfully"));
    QVERIFY(run(3));
    QCOMPARE(p.MSFG[0].text(2, 3), edited);

    QVERIFY(run(2));
    QCOMPARE(b.link.view.SB[2], QString("Erase the data successfully"));
    QVERIFY(run(3));
    QCOMPARE(p.SetImage, factory);

    QVERIFY(run(6));
    QCOMPARE(b.ops.BitInf.RemarkStamp, QStringLiteral("K700操作员"));
    QCOMPARE(b.ops.BitInf.DeviceId, int16_t(-1));

    // Running values move while watched.
    b.link.ModeRequest = 7;
    simRun(b.port, board, b.link, 2000, [&] { return b.ops.displayPolls >= 20; });
    QCOMPARE(b.ops.displayPolls, qint64(20));
    QCOMPARE(b.ops.DisplayAddr, int32_t(kSimRunningAddr));
    QCOMPARE(b.link.view.SB[2], QString("Successful reading data set"));
    detachSim(b.port, board);
}

QTEST_GUILESS_MAIN(TstParamOps)
#include "tst_paramops.moc"
