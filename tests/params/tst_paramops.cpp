#include "fakeport.h"
#include "paramops.h"
#include "paramtest.h"
#include "portcontrol.h"

#include <QtTest>

using namespace pyro;

namespace {

// Eight bytes of running values: a word and a long in tenths.
const QStringList kDisplayTable{"30\\/8", kCols, kCaption,
                                rowLine("Run", "Speed", paramCell(1, 2, 0, 0, 0, 0, 1, "0||9999")),
                                rowLine("Run", "Voltage", paramCell(5, 4, 1, 0, 0, 0, 10, "0||999")), "End"};

// The worked example's image: speed 1500, Reverse, brake On, current 12.5.
QByteArray exampleImage()
{
    QByteArray img = stampedImage(44);
    putLe16(img, 32, 1500);
    img[34] = 1;
    putLe32(img, 36, 1u << 2);
    img.replace(40, 4, f32(12.5f));
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

QByteArray corrupt(QByteArray frame)
{
    frame[frame.size() - 1] = char(frame[frame.size() - 1] ^ 0x5A);
    return frame;
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
    QByteArray running = QByteArray::fromHex("DC05" "0000" "9D080000");   // 1500, 220.5 V
    QByteArray info;
    std::function<QByteArray(const QByteArray &)> answer;
    qint64 us = 0;

    explicit OpsBench(const QByteArray &settings = workedTable())
    {
        link.prompter = &prompter;
        AttachPort(link, &port);
        InitPortBoxes(link.view);
        link.view.ComboSet[0].text = QStringLiteral("/dev/fake0");
        load(0, settings);
        load(1, tableBytes(kDisplayTable));
        InstallParamOps(link, params, ops);
        link.clockUs = [this] { return us; };
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
            return readReply((at == kSettingsReadAddr ? flashSettings : at == kBitInfAddr ? info : running).left(n));
        }
        case kFnWriteParams:
        case kFnEraseParams:
            return statusReply(uint8_t(req[1]), 0);
        case kFnDisplayAddress:
            return MBBuildFrame(kFnDisplayAddress, le32(0x20001000));
        default:
            return {};
        }
    }
    void open() { Command2Click(link); }
    void tick()
    {
        us += 15000;   // the fast line's clock
        port.pump();
        MBTimTimer(link);
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
    // Requests a mode and runs until it has been entered and has ended.
    bool runMode(uint8_t mode)
    {
        link.ModeRequest = mode;
        bool entered = false;
        return runUntil([&] {
            entered = entered || link.LinkMode == mode;
            return entered && link.ModeRequest == 0;
        });
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
    void framesAndLimits_data()
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

    void framesAndLimits()
    {
        QFETCH(int, mode);
        QFETCH(QByteArray, frame);
        OpsBench b;
        b.answer = [](const QByteArray &) { return QByteArray(); };   // silence: the first frame stays on the line
        b.open();
        b.params.SetImage = exampleImage() + '\0';
        b.link.ModeRequest = uint8_t(mode);
        QVERIFY(b.runUntil([&] { return !b.opFrames().isEmpty(); }, 100));
        const QByteArray sent = b.opFrames().first();
        QTEST(int(b.link.MBQuietLimit), "quiet");
        QTEST(int(b.link.MBReplyLimit), "reply");
        QTEST(int(b.link.MBSendLimit), "sendLimit");
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

    // What each operation makes of good, refused, silent, short, long, corrupt
    // and foreign replies: the panel-2 text ("" = untouched), one try only, and
    // the monitor back on the line; watching goes on instead. The fast line
    // comes to the same.
    void replies_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<QByteArray>("reply");   // empty: the device stays silent
        QTest::addColumn<QString>("panel2");
        const QByteArray img = exampleImage();
        const QByteArray erased = statusReply(kFnEraseParams, 0), written = statusReply(kFnWriteParams, 0);
        QTest::newRow("erase good") << 2 << erased << "Erase the data successfully";
        QTest::newRow("erase refused") << 2 << statusReply(kFnEraseParams, 5) << "Erase data failed";
        QTest::newRow("erase no status") << 2 << MBBuildFrame(kFnEraseParams, {}) << "Erase data failed";
        QTest::newRow("erase corrupt") << 2 << corrupt(erased) << "Erase data failed!";
        QTest::newRow("read good") << 3 << readReply(img) << "Successful reading data set";
        QTest::newRow("read long") << 3 << readReply(img + QByteArray(300, '\x55')) << "Successful reading data set";
        QTest::newRow("read no data") << 3 << MBBuildFrame(kFnReadMemory, {}) << "Read the data validation is invalid";
        QTest::newRow("read silent") << 3 << QByteArray() << "Read the data failure";
        QTest::newRow("read foreign") << 3 << readReply(img, kFnLinkPoll) << "Read the data failure";
        QTest::newRow("update good") << 4 << written << "Update the set data successfully";
        QTest::newRow("update long") << 4 << MBBuildFrame(kFnWriteParams, QByteArray(600, '\0')) << "Update the set data successfully";
        QTest::newRow("update refused") << 4 << statusReply(kFnWriteParams, 5) << "Setting the update data failed";
        QTest::newRow("update silent") << 4 << QByteArray() << "Communication fails";
        QTest::newRow("save good") << 5 << written << "Save Settings data successfully";
        QTest::newRow("save refused") << 5 << statusReply(kFnWriteParams, 5) << "Save Settings data failed";
        QTest::newRow("save corrupt") << 5 << corrupt(written) << "Communication fails";
        QTest::newRow("info no data") << 6 << MBBuildFrame(kFnReadMemory, {}) << "";
        QTest::newRow("info long") << 6 << readReply(QByteArray(400, '\xB0')) << "";
        QTest::newRow("watch short") << 7 << MBBuildFrame(kFnReadMemory, QByteArray(3, '\0')) << "Successful reading data set";
        QTest::newRow("watch long") << 7 << readReply(QByteArray(500, '\x11')) << "Successful reading data set";
        QTest::newRow("watch corrupt") << 7 << QByteArray::fromHex("01F4000000000800AABBCCDDEEFF0011AABB") << "Read the data failure";
    }

    void replies()
    {
        QFETCH(int, mode);
        QFETCH(QByteArray, reply);
        QFETCH(QString, panel2);
        for (const bool fast : {false, true}) {
            OpsBench b;
            b.link.fastLine = fast;
            // A read must bring its image: the one in place is no good.
            b.params.SetImage = mode == 3 ? QByteArray(45, '\0') : exampleImage() + '\0';
            b.answer = [&](const QByteArray &req) {
                const uint8_t fn = uint8_t(req[1]);
                return fn == kFnLinkPoll || fn == kFnDisplayAddress ? b.standard(req) : reply;
            };
            b.open();
            b.link.view.SB[2] = "before";
            if (mode == 7) {
                // Watching reads on, without asking for the address again.
                b.link.ModeRequest = 7;
                QVERIFY(b.runUntil([&] { return b.opFrames().size() == 3; }));
                QCOMPARE(uint8_t(b.opFrames()[2][1]), kFnReadMemory);
                QCOMPARE(b.link.LinkMode, uint8_t(7));
                QCOMPARE(b.params.DisplayImage.size(), 9);
            } else {
                QVERIFY(b.runMode(uint8_t(mode)));
                QCOMPARE(b.opFrames().size(), 1);
                QCOMPARE(b.params.SetImage.size(), 45);
                QCOMPARE(b.ops.BitInfBytes.size(), kInfoSize);
                const int polls = int(b.port.written.size());
                b.ticks(10);
                QCOMPARE(b.link.LinkMode, uint8_t(0));
                QVERIFY(b.port.written.size() > polls);
            }
            QCOMPARE(b.link.view.SB[2], panel2.isEmpty() ? QString("before") : panel2);
        }
    }

    void readSettings()
    {
        OpsBench b;
        b.open();
        QVERIFY(b.runMode(3));
        QCOMPARE(b.params.SetImage.left(44), exampleImage());
        const GridModel &g = b.params.MSFG[0];
        const QStringList shown{g.text(1, 3), g.text(2, 3), g.text(3, 3), g.text(4, 3)};
        QCOMPARE(shown, (QStringList{"1500", "Reverse", "On", "12.50"}));
        QVERIFY(b.link.view.MenuImgEnabled[4]);   // a read alone counts as unsaved work
        b.link.view.MenuImgEnabled[4] = false;

        // Payload changed behind the stored CRC: the frame is good, the image
        // isn't. The grid keeps what it showed, the bad bytes stay.
        QByteArray bad = exampleImage();
        putLe16(bad, 32, 4321);
        b.flashSettings = bad;
        QVERIFY(b.runMode(3));
        QCOMPARE(b.link.view.SB[2], QString("Read the data validation is invalid"));
        QCOMPARE(g.text(1, 3), QString("1500"));
        QCOMPARE(b.params.SetImage.left(44), bad);
        QVERIFY(!b.link.view.MenuImgEnabled[4]);

        // 22 data bytes only: they go in, the rest stays as it was.
        const QByteArray before = b.params.SetImage;
        b.flashSettings = QByteArray(22, char(0x77));
        QVERIFY(b.runMode(3));
        QCOMPARE(b.link.view.SB[2], QString("Read the data validation is invalid"));
        QCOMPARE(b.params.SetImage.left(22), b.flashSettings);
        QCOMPARE(b.params.SetImage.mid(24), before.mid(24));   // 22, 23: the reply's CRC
    }

    // The edit goes out restamped, and only the cell last edited turns
    // black. The frames of update and save are checked byte by byte above.
    void update()
    {
        OpsBench b;
        b.open();
        QVERIFY(b.runMode(3));
        GridModel &g = b.params.MSFG[0];
        QVERIFY(EncodeValue("2000", b.params.SetImage, b.params.SetRows, 1, &b.prompter) == 0);
        g.setFore(1, 3, qRgb(255, 0, 0));
        g.setFore(2, 3, qRgb(255, 0, 0));
        QVERIFY(g.setCurrentCell(1, 3));
        QVERIFY(b.runMode(4));
        QCOMPARE(b.link.view.SB[2], QString("Update the set data successfully"));
        QCOMPARE(g.cell(1, 3).fore, qRgb(0, 0, 0));
        QCOMPARE(g.cell(2, 3).fore, qRgb(255, 0, 0));
        const QByteArray sent = b.opFrames().constLast().mid(kWriteDataAt, 44);
        QCOMPARE(getLe16(sent, 32), uint16_t(2000));
        QCOMPARE(CheckImage(sent, b.params.Tables[0]), int16_t(0));

        // A length field that doesn't fit the table: nothing is sent, and
        // the stale CRC is not restamped.
        const QByteArray good = b.params.SetImage;
        for (uint32_t len : {0u, 11u, 13u, 0xFFFFFFF4u}) {
            QByteArray img = good;
            putLe32(img, kImageLengthAt, len);
            img[kImageCrcHiAt] = char(img[kImageCrcHiAt] ^ 0xFF);
            b.params.SetImage = img;
            const qsizetype frames = b.opFrames().size();
            QVERIFY(b.runMode(4));
            QCOMPARE(b.link.view.SB[2], QString("Set the data validation is invalid"));
            QCOMPARE(b.opFrames().size(), frames);
            QCOMPARE(b.params.SetImage, img);
        }
    }

    void blockSize256()
    {
        OpsBench b(workedTable().replace("40\\/44", "40\\/256"));
        b.flashSettings = stampedImage(256, 3);
        b.open();
        QVERIFY(b.runMode(3));
        QCOMPARE(b.link.view.SB[2], QString("Successful reading data set"));
        QCOMPARE(b.params.MSFG[0].text(1, 3), QString("771"));
        QVERIFY(b.runMode(5));
        const QList<QByteArray> f = b.opFrames();
        QCOMPARE(f.size(), 2);
        QCOMPARE(toHexLine(f[0].left(8)), QByteArray("01 F4 00 28 00 08 00 01"));
        QCOMPARE(toHexLine(f[1].left(9)), QByteArray("01 F5 10 01 00 20 00 01 AA"));
        QCOMPARE(f[1].size(), 256 + 11);
    }

    void watch()
    {
        OpsBench b;
        // A device without a good address, silent or in turn with 0x20000000 or
        // less, is asked again and again, without a word and without reading.
        QList<uint32_t> addrs{0x20000000u, 0u, 0x80000001u, 0x1FFFFFFFu};
        int asked = 0;
        b.answer = [&](const QByteArray &req) -> QByteArray {
            if (uint8_t(req[1]) == kFnDisplayAddress) {
                ++asked;
                return addrs.isEmpty() ? QByteArray() : MBBuildFrame(kFnDisplayAddress, le32(addrs.takeFirst()));
            }
            return b.standard(req);
        };
        b.open();
        b.link.view.SB[2] = "quiet";
        b.link.ModeRequest = 7;
        QVERIFY(b.runUntil([&] { return asked == 6; }));
        b.ticks(300);
        QCOMPARE(int(b.opFrames().size()), asked);   // no read among them
        QCOMPARE(b.link.view.SB[2], QString("quiet"));
        QVERIFY(b.prompter.shown.isEmpty());
        QCOMPARE(b.link.ModeRequest, uint8_t(7));

        // 0x20000001 is taken, read from at once, and never asked for again.
        addrs = QList<uint32_t>(20, 0x20000001u);
        QVERIFY(b.runUntil([&] { return b.ops.displayPolls == 1; }));
        const int askedBefore = asked;
        QCOMPARE(b.ops.DisplayAddr, int32_t(0x20000001));
        const QByteArray read = b.opFrames().constLast();
        QCOMPARE(toHexLine(read.left(8)), QByteArray("01 F4 01 00 00 20 08 00"));
        QCOMPARE(b.link.view.SB[2], QString("Successful reading data set"));
        QCOMPARE(b.params.MSFG[1].text(1, 3), QString("1500"));
        QCOMPARE(b.params.MSFG[1].text(2, 3), QString("220.5"));
        QCOMPARE(b.params.DisplayImage.left(8), b.running);

        QVERIFY(b.runUntil([&] { return b.ops.displayPolls == 3; }));
        QCOMPARE(asked, askedBefore);
        QCOMPARE(b.link.ModeRequest, uint8_t(7));
    }

    void readRequestedWhileWatching()
    {
        OpsBench b;
        b.open();
        b.link.ModeRequest = 7;
        QVERIFY(b.runUntil([&] { return b.ops.displayPolls == 2 && b.link.StateWord == 3 && b.link.MBStep != 0; }));
        const QByteArray shown = b.params.DisplayImage;
        b.running = QByteArray(8, '\x42');   // what the displaced reply would bring
        MenuImgClick(b.ops, 1);
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

    void deviceInfo()
    {
        OpsBench b;
        BitInfRec want;
        want.DeviceId = 1234;
        want.OrderId = QStringLiteral("订单A-42");
        want.RemarkStamp = QStringLiteral("K700操作员");
        b.info = writeBitInfRec(want);

        int shown = 0;
        b.ops.showBitInfForm = [&](ParamOps &ops) {
            ++shown;
            QCOMPARE(ops.link->ModeRequest, uint8_t(6));
            // Ticks and steps that come while the window is open judge
            // nothing again and send nothing.
            const int sent = int(b.port.written.size());
            b.tick();
            for (int i = 0; i < 3; ++i)
                DeviceInfoStep(ops);
            QCOMPARE(b.port.written.size(), sent);
        };
        b.open();
        QVERIFY(b.runMode(6));
        QCOMPARE(shown, 1);
        QCOMPARE(b.ops.BitInf.DeviceId, int16_t(1234));
        QCOMPARE(b.ops.BitInf.RemarkStamp, want.RemarkStamp);
        QCOMPARE(b.link.view.NotesTxt[5].trimmed(), want.OrderId);

        // Fewer than 50 bytes: the missing ones stay as they were.
        b.info = b.info.left(12);
        QVERIFY(b.runMode(6));
        QCOMPARE(shown, 2);
        QCOMPARE(b.ops.BitInf.RemarkStamp, want.RemarkStamp);

        // A failure says nothing and shows nothing.
        b.answer = [&](const QByteArray &req) {
            return uint8_t(req[1]) == kFnLinkPoll ? b.standard(req) : QByteArray();
        };
        b.link.view.NotesTxt[5] = b.link.view.SB[2] = "keep";
        QVERIFY(b.runMode(6));
        QCOMPARE(shown, 2);
        QVERIFY(b.prompter.shown.isEmpty());
        QCOMPARE(b.link.view.NotesTxt[5], QString("keep"));
        QCOMPARE(b.link.view.SB[2], QString("keep"));
    }

    void menuButtons()
    {
        OpsBench b;
        // Port closed: erase hints in panel 1 and asks nothing.
        MenuImgClick(b.ops, 0);
        QCOMPARE(b.link.view.SB[1], QString("请先打开串口！"));
        QVERIFY(b.prompter.shown.isEmpty());
        QCOMPARE(b.link.ModeRequest, uint8_t(0));
        b.open();

        // No to the erase question leaves the request as it was.
        b.prompter.answers = {false};
        MenuImgClick(b.ops, 0);
        QCOMPARE(b.prompter.shown.size(), 1);
        QCOMPARE(b.link.ModeRequest, uint8_t(0));

        const struct { int button; uint8_t request; int front; } cases[] = {
            {0, 2, 0}, {1, 3, 0}, {2, 4, 0}, {3, 5, 0}, {5, 7, 1}, {6, 6, -1}};
        for (const auto &c : cases) {
            // A burn is never displaced, not even by a Yes to the erase.
            b.link.view.frontGrid = -1;
            b.link.ModeRequest = 1;
            MenuImgClick(b.ops, c.button);
            QCOMPARE(b.link.ModeRequest, uint8_t(1));
            QCOMPARE(b.link.view.frontGrid, -1);
            b.link.ModeRequest = 0;
            MenuImgClick(b.ops, c.button);
            QCOMPARE(b.link.ModeRequest, c.request);
            QCOMPARE(b.link.view.frontGrid, c.front);
        }
    }
};

QTEST_GUILESS_MAIN(TstParamOps)
#include "tst_paramops.moc"
