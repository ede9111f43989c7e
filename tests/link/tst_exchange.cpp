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
    void noTransmitNotice();
};

void TstExchange::outcomes_data()
{
    QTest::addColumn<QByteArray>("early");             // in the port as the frame goes out
    QTest::addColumn<QList<QByteArray>>("perTick");   // piece i comes just before tick i + 1
    QTest::addColumn<int>("endTick");                 // counted from the transmit-empty notice
    QTest::addColumn<int>("result");
    const QByteArray poll = MBBuildFrame(0xF0, QByteArray(1, '\2'));
    const auto at = [](int tick, const QByteArray &bytes) { return QList<QByteArray>(tick - 1) << bytes; };
    QList<QByteArray> trickle;   // a byte on each of ticks 1..19
    for (int t = 1; t <= 19; ++t)
        trickle << QByteArray(1, char(t));

    // Quiet limit 3, reply limit 20.
    QTest::newRow("good") << QByteArray() << at(1, poll) << 3 << 0;
    QTest::newRow("4 bytes good") << QByteArray() << at(1, MBBuildFrame(0xF0, {})) << 3 << 0;
    QTest::newRow("3 bytes") << QByteArray() << at(1, poll.left(3)) << 3 << 3;
    QTest::newRow("crc low byte first") << QByteArray() << at(1, fromHexLine("01 F0 00 64 00")) << 3 << 4;
    QTest::newRow("wrong function") << QByteArray() << at(1, MBBuildFrame(0xF1, {})) << 3 << 5;
    QTest::newRow("silent peer") << QByteArray() << QList<QByteArray>() << 20 << 2;
    // A pause of 3 ticks inside a reply cuts it; the rest stays in the port.
    QTest::newRow("split") << QByteArray() << (at(1, poll.left(3)) << QByteArray() << QByteArray() << poll.mid(3)) << 3 << 3;
    // Every byte restarts the quiet count, but the reply limit runs on.
    QTest::newRow("trickle") << QByteArray() << trickle << 20 << 2;
    QTest::newRow("just inside the limit") << QByteArray() << at(17, poll) << 19 << 0;
    // Bytes ahead of the notice are the start of the reply: nothing is
    // flushed, so a late reply to the last request spoils this one.
    QTest::newRow("bytes while sending") << poll.left(2) << at(1, poll.mid(2)) << 3 << 0;
    QTest::newRow("late reply in front") << poll << at(1, poll) << 3 << 4;
}

void TstExchange::outcomes()
{
    QFETCH(QByteArray, early);
    QFETCH(QList<QByteArray>, perTick);
    QFETCH(int, endTick);
    QFETCH(int, result);
    LinkBench b;
    b.open();
    QList<ExchangeRecord> seen;   // the observer a line monitor hangs on the engine
    b.link.onExchange = [&](const ExchangeRecord &r) { seen << r; };
    b.port.deliver(early);
    b.send(0xF0, QByteArray(1, '\0'), 3, 20, 20);
    MBExchangeTick(b.link);   // a tick while the frame is leaving
    QCOMPARE(b.link.MBResult, int16_t(0));   // 0 while under way: not yet success
    b.port.pump();            // transmit-empty notice
    QCOMPARE(runUntilIdle(b, 50, [&](int t) { b.port.deliver(perTick.value(t - 1)); }), endTick);
    QCOMPARE(int(b.link.MBResult), result);

    // A judged reply is all that came before its end; a timed-out exchange
    // reads nothing, and an idle engine reads nothing either.
    const QByteArray before = early + perTick.mid(0, endTick).join();
    const QByteArray after = perTick.mid(endTick).join();
    QCOMPARE(seen.size(), 2);
    QVERIFY(seen[0].direction == ExchangeRecord::Sent && seen[0].frame == b.link.MBTxBuf && seen[0].function == 0xF0);
    QVERIFY(seen[1].direction == ExchangeRecord::Received && seen[1].function == 0xF0);
    QCOMPARE(int(seen[1].outcome), result);
    QCOMPARE(seen[1].frame, result == 2 ? QByteArray() : before);
    b.port.deliver(after);
    MBExchangeTick(b.link);
    if (result == 2) {
        QCOMPARE(b.port.pending(), before + after);
    } else {
        QCOMPARE(b.link.MBRxBuf, before);
        QCOMPARE(b.port.pending(), after);
    }
}

void TstExchange::noTransmitNotice()
{
    // Held notice or a refused frame: outcome 1 on the send limit, and a
    // reply that came anyway is never waited for.
    for (const bool refuse : {false, true}) {
        LinkBench b;
        b.open();
        b.port.holdSendNotice = !refuse;
        b.port.refuseOutput = refuse;
        b.send(0xF1, QByteArray(1, char(0xA7)), 3, 5, 10);
        b.port.deliver(MBBuildFrame(0xF1, QByteArray(13, '\1')));
        QCOMPARE(runUntilIdle(b, 50), 10);
        QCOMPARE(b.link.MBResult, int16_t(1));
    }
}

QTEST_APPLESS_MAIN(TstExchange)
#include "tst_exchange.moc"
