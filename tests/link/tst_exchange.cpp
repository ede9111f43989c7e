#include "frame.h"
#include "linkbench.h"

#include <QtTest>

using namespace pyro;

// Runs the engine alone, tick by tick, and reports the tick on which the
// exchange ended (MBStep back to 0), or -1.
static int runUntilIdle(LinkBench &b, int maxTicks, const std::function<void(int)> &beforeTick = {})
{
    for (int t = 1; t <= maxTicks; ++t) {
        if (beforeTick)
            beforeTick(t);
        b.port.pump();
        MBExchangeTick(b.link);
        if (b.link.MBStep == 0)
            return t;
    }
    return -1;
}

class TstExchange : public QObject {
    Q_OBJECT
private slots:
    void outcomes_data();
    void outcomes();
    void splitLateAndEarlyBytes();
    void sendTimeoutAndRefusedFrame();
    void nothingFlushedAtSend();
};

void TstExchange::outcomes_data()
{
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<int>("result");
    QTest::addColumn<int>("endTick");
    // Reply given right after the transmit-empty notice; quiet limit 3.
    QTest::newRow("good identity") << MBBuildFrame(0xF1, fromHexLine("01 11 22 33 44 55 66 77 88 99 AA BB CC")) << 0 << 3;
    QTest::newRow("4 bytes good") << MBBuildFrame(0xF1, QByteArray()) << 0 << 3;
    QTest::newRow("3 bytes") << fromHexLine("01 F1 00") << 3 << 3;
    QTest::newRow("1 byte") << fromHexLine("7E") << 3 << 3;
    QTest::newRow("crc low byte first") << fromHexLine("01 F0 00 64 00") << 4 << 3;
    QTest::newRow("noise") << fromHexLine("FF FF FF FF FF FF") << 4 << 3;
    QTest::newRow("wrong function") << MBBuildFrame(0xF0, QByteArray(1, '\2')) << 5 << 3;
    QTest::newRow("silent peer") << QByteArray() << 2 << 5;
}

void TstExchange::outcomes()
{
    QFETCH(QByteArray, reply);
    QFETCH(int, result);
    QFETCH(int, endTick);
    LinkBench b;
    b.open();
    b.send(0xF1, QByteArray(1, char(0xA7)), 3, 5, 10);
    QCOMPARE(b.link.MBResult, int16_t(0));   // 0 while under way: not yet success
    QCOMPARE(b.link.MBStep, int16_t(1));
    b.port.pump();                            // transmit-empty notice
    QCOMPARE(b.link.MBStep, int16_t(2));
    b.port.deliver(reply);
    QCOMPARE(runUntilIdle(b, 50), endTick);
    QCOMPARE(int(b.link.MBResult), result);
    if (!reply.isEmpty())
        QCOMPARE(b.link.MBRxBuf, reply);
    QVERIFY(b.port.pending().isEmpty());
    QCOMPARE(b.link.MBWait, int16_t(0));
    QCOMPARE(b.link.MBQuiet, int16_t(0));
}

void TstExchange::splitLateAndEarlyBytes()
{
    const QByteArray reply = MBBuildFrame(0xF0, QByteArray(1, '\2'));
    {
        // A pause of 3 ticks inside the reply cuts it: the first part is
        // judged alone, the rest waits in the port for the next read.
        LinkBench b;
        b.open();
        b.send(0xF0, QByteArray(1, '\0'), 3, 20, 20);
        b.port.pump();
        b.port.deliver(reply.left(3));
        QCOMPARE(runUntilIdle(b, 50), 3);
        QCOMPARE(b.link.MBResult, int16_t(3));
        QCOMPARE(b.link.MBRxBuf, reply.left(3));
        b.port.deliver(reply.mid(3));
        MBExchangeTick(b.link);   // an idle engine reads nothing
        QCOMPARE(b.port.pending(), reply.mid(3));
    }
    {
        // Bytes that keep arriving push the read back; every byte restarts the
        // quiet count, but the reply limit runs on from the notice.
        LinkBench b;
        b.open();
        b.send(0xF0, QByteArray(1, '\0'), 3, 20, 20);
        b.port.pump();
        const int end = runUntilIdle(b, 50, [&](int t) { if (t <= 19) b.port.deliver(QByteArray(1, char(t))); });
        QCOMPARE(end, 20);
        QCOMPARE(b.link.MBResult, int16_t(2));
        QCOMPARE(b.port.pending().size(), 19);   // still in the port, unread
    }
    {
        // Bytes that come while the frame is still leaving count as the
        // start of the reply.
        LinkBench b;
        b.open();
        b.send(0xF0, QByteArray(1, '\0'), 3, 20, 20);
        b.port.deliver(reply.left(2));
        MBExchangeTick(b.link);
        QCOMPARE(b.link.MBStep, int16_t(1));
        b.port.pump();
        b.port.deliver(reply.mid(2));
        QCOMPARE(runUntilIdle(b, 50), 3);
        QCOMPARE(b.link.MBResult, int16_t(0));
        QCOMPARE(b.link.MBRxBuf, reply);
    }
    {
        // A reply that arrives just inside the limit is judged; an empty read
        // before it only restarts the quiet count.
        LinkBench b;
        b.open();
        b.send(0xF0, QByteArray(1, '\0'), 3, 20, 20);
        b.port.pump();
        QCOMPARE(runUntilIdle(b, 50, [&](int t) { if (t == 17) b.port.deliver(reply); }), 19);
        QCOMPARE(b.link.MBResult, int16_t(0));
    }
}

void TstExchange::sendTimeoutAndRefusedFrame()
{
    {
        // No transmit-empty notice: the reply is never waited for, even if
        // it has come.
        LinkBench b;
        b.open();
        b.port.holdSendNotice = true;
        b.send(0xF1, QByteArray(1, char(0xA7)), 3, 5, 10);
        b.port.deliver(MBBuildFrame(0xF1, QByteArray(13, '\1')));
        QCOMPARE(runUntilIdle(b, 50), 10);
        QCOMPARE(b.link.MBResult, int16_t(1));
    }
    {
        // A port that refuses the frame shows as outcome 1 too.
        LinkBench b;
        b.open();
        b.port.refuseOutput = true;
        b.send(0x03, QByteArray(1, '\0'), 3, 20, 100);
        QCOMPARE(runUntilIdle(b, 200), 100);
        QCOMPARE(b.link.MBResult, int16_t(1));
    }
}

void TstExchange::nothingFlushedAtSend()
{
    // A late reply to the last request sits in front of the next reply, and
    // the pair fails its CRC: the caller's retry clears the line.
    LinkBench b;
    b.open();
    const QByteArray late = MBBuildFrame(0xF0, QByteArray(1, '\2'));
    b.send(0xF0, QByteArray(1, '\0'), 3, 20, 20);
    b.port.pump();
    QCOMPARE(runUntilIdle(b, 50), 20);
    QCOMPARE(b.link.MBResult, int16_t(2));
    b.port.deliver(late);
    b.send(0xF0, QByteArray(1, '\0'), 3, 20, 20);
    QCOMPARE(b.port.pending(), late);
    b.port.pump();
    b.port.deliver(late);
    QCOMPARE(runUntilIdle(b, 50), 3);
    QCOMPARE(b.link.MBResult, int16_t(4));
    QCOMPARE(b.link.MBRxBuf, late + late);
}

QTEST_APPLESS_MAIN(TstExchange)
#include "tst_exchange.moc"
