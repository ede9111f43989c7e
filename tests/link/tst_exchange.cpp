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
    QTest::addColumn<int>("fastEnd");                 // endTick on the fast line: the same outcome
    QTest::addColumn<QByteArray>("request");          // function and body; empty: a poll
    // After a reply the fast line took, the next frame waits 3.5 characters
    // of start, data, parity and stop bits, in µs rounded up: 57600 8N1 is
    // 35 bits, 607.6 µs, so 608; 9600 8E1 is 38.5 bits, 4010.4 µs, so 4011.
    QTest::addColumn<QString>("line");                // baud and parity boxes; empty: 57600 None
    QTest::addColumn<int>("gapUs");                   // 0: no gap checked
    const QByteArray poll = MBBuildFrame(0xF0, QByteArray(1, '\2'));
    const auto at = [](int tick, const QByteArray &bytes) { return QList<QByteArray>(tick - 1) << bytes; };
    QList<QByteArray> trickle;   // a byte on each of ticks 1..19
    for (int t = 1; t <= 19; ++t)
        trickle << QByteArray(1, char(t));

    // Quiet limit 3, reply limit 20.
    // The fast line ends a whole good reply on its arrival; everything else
    // it leaves to the same quiet ticks.
    QTest::newRow("good") << QByteArray() << at(1, poll) << 3 << 0 << 1 << QByteArray() << QString() << 608;
    QTest::newRow("4 bytes good") << QByteArray() << at(1, MBBuildFrame(0xF0, {})) << 3 << 0 << 3 << QByteArray() << QString() << 0;
    QTest::newRow("3 bytes") << QByteArray() << at(1, poll.left(3)) << 3 << 3 << 3 << QByteArray() << QString() << 0;
    QTest::newRow("crc low byte first") << QByteArray() << at(1, fromHexLine("01 F0 00 64 00")) << 3 << 4 << 3 << QByteArray() << QString() << 0;
    QTest::newRow("wrong function") << QByteArray() << at(1, MBBuildFrame(0xF1, {})) << 3 << 5 << 3 << QByteArray() << QString() << 0;
    QTest::newRow("silent peer") << QByteArray() << QList<QByteArray>() << 20 << 2 << 20 << QByteArray() << QString() << 0;
    // A pause of 3 ticks inside a reply cuts it; the rest stays in the port.
    QTest::newRow("split") << QByteArray() << (at(1, poll.left(3)) << QByteArray() << QByteArray() << poll.mid(3)) << 3 << 3 << 3 << QByteArray() << QString() << 0;
    QTest::newRow("in two pieces") << QByteArray() << (at(1, poll.left(3)) << poll.mid(3)) << 4 << 0 << 2 << QByteArray() << QString() << 0;
    // Every byte restarts the quiet count, but the reply limit runs on.
    QTest::newRow("trickle") << QByteArray() << trickle << 20 << 2 << 20 << QByteArray() << QString() << 0;
    // A good frame with more behind it in the same read is no whole reply.
    QTest::newRow("babbler") << QByteArray() << (QList<QByteArray>{poll + "\x01"} + trickle) << 20 << 2 << 20 << QByteArray() << QString() << 0;
    QTest::newRow("just inside the limit") << QByteArray() << at(17, poll) << 19 << 0 << 17 << QByteArray() << QString() << 0;
    // Bytes ahead of the notice are the start of the reply: nothing is
    // flushed, so a late reply to the last request spoils this one.
    QTest::newRow("bytes while sending") << poll.left(2) << at(1, poll.mid(2)) << 3 << 0 << 3 << QByteArray() << QString() << 0;
    QTest::newRow("late reply in front") << poll << at(1, poll) << 3 << 4 << 3 << QByteArray() << QString() << 0;
    // A memory read: its length comes from the count the reply echoes.
    const QByteArray read4 = fromHexLine("F4 00 10 00 20 04 00");
    const QByteArray data4 = fromHexLine("00 00 00 00 04 00 0A 0B 0C 0D");
    QTest::newRow("memory read") << QByteArray() << at(2, MBBuildFrame(0xF4, data4)) << 4 << 0 << 2 << read4 << "9600 Even" << 4011;
    QByteArray lie = data4;
    lie[4] = 0x00, lie[5] = 0x04;   // says 1024 bytes follow
    QTest::newRow("lying length, more") << QByteArray() << at(1, MBBuildFrame(0xF4, lie)) << 3 << 0 << 3 << read4 << QString() << 0;
    QTest::newRow("lying length, fewer") << QByteArray() << at(1, MBBuildFrame(0xF4, data4.left(8))) << 3 << 0 << 3 << read4 << QString() << 0;
    QByteArray big = data4;
    big[4] = char(0xF8), big[5] = 0x03;   // 1016 asked and promised: 1026 bytes, past the bound
    QTest::newRow("past the bound") << QByteArray() << at(1, MBBuildFrame(0xF4, big)) << 3 << 0 << 3
                                    << QByteArray(read4).replace(5, 2, "\xF8\x03") << QString() << 0;
}

void TstExchange::outcomes()
{
    QFETCH(QByteArray, early);
    QFETCH(QList<QByteArray>, perTick);
    QFETCH(int, endTick);
    QFETCH(int, result);
    QFETCH(int, fastEnd);
    QFETCH(QByteArray, request);
    QFETCH(QString, line);
    QFETCH(int, gapUs);
    const int normalEnd = endTick;
    for (const bool fast : {false, true}) {
        LinkBench b;
        qint64 us = 1000000;
        b.link.clockUs = [&] { return us; };
        if (!line.isEmpty()) {
            b.link.view.ComboSet[1].text = line.section(' ', 0, 0);
            b.link.view.ComboSet[2].text = line.section(' ', 1, 1);
        }
        b.open();
        // No owner of the line: the fast line's own step does nothing.
        b.link.fastLine = fast;
        b.link.ModeRequest = b.link.LinkMode = 5;
        QList<ExchangeRecord> seen;   // the observer a line monitor hangs on the engine
        b.link.onExchange = [&](const ExchangeRecord &r) { seen << r; };
        if (fast)
            endTick = fastEnd;
        b.port.deliver(early);
        if (request.isEmpty())
            b.send(0xF0, QByteArray(1, '\0'), 3, 20, 20);
        else
            b.send(uint8_t(request[0]), request.mid(1), 3, 20, 20);
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
        QVERIFY(seen[0].direction == ExchangeRecord::Sent && seen[0].frame == b.link.MBTxBuf);
        QVERIFY(seen[1].direction == ExchangeRecord::Received && seen[1].function == seen[0].function);
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
        QCOMPARE(b.link.fastReplies, qint64(fast && fastEnd != normalEnd ? 1 : 0));
        if (!fast || gapUs == 0)
            continue;
        // A frame sent a µs before the gap's end is held, and goes at its end.
        const qsizetype sent = b.port.written.size();
        us += gapUs - 1;
        b.send(0xF0, QByteArray(1, '\0'), 3, 20, 20);
        MBExchangeTick(b.link);
        QCOMPARE(b.port.written.size(), sent);
        us += 1;
        MBExchangeTick(b.link);
        QCOMPARE(b.port.written.size(), sent + 1);
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
