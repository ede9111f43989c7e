#include "crc16.h"
#include "frame.h"

#include <QtTest>

using namespace pyro;

class TstFrame : public QObject {
    Q_OBJECT
private slots:
    void checkValues_data();
    void checkValues();
    void crcEdges();
    void littleEndianBounds();
};

void TstFrame::checkValues_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("frame");
    // function byte, body; then the CRC high byte first
    QTest::newRow("link poll") << QByteArray("F0 00") << QByteArray("01 F0 00 00 64");
    QTest::newRow("identify") << QByteArray("F1 A7") << QByteArray("01 F1 A7 2A 24");
    QTest::newRow("enter download") << QByteArray("03 00") << QByteArray("01 03 00 F0 20");
    QTest::newRow("erase params") << QByteArray("FE 44 33 22 11") << QByteArray("01 FE 44 33 22 11 4D 14");
}

void TstFrame::checkValues()
{
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, frame);
    const QByteArray b = fromHexLine(body);
    const QByteArray built = MBBuildFrame(uint8_t(b[0]), b.mid(1));
    QCOMPARE(toHexLine(built), frame);
    QVERIFY(FrameCrcOk(built));
    // Both CRC bytes count: one of them wrong is a bad frame.
    for (const int from : {1, 2}) {
        QByteArray bad = built;
        bad[bad.size() - from] = char(bad[bad.size() - from] ^ 0x01);
        QVERIFY(!FrameCrcOk(bad));
    }
}

void TstFrame::crcEdges()
{
    // Only the range asked for, cut at the buffer's end; nothing is 0xFFFF.
    QCOMPARE(CRC16(QByteArray("abc"), 0, 3).value(), uint16_t(0x5749));
    QCOMPARE(CRC16(QByteArray("xxabc"), 2, 3).value(), uint16_t(0x5749));
    QCOMPARE(CRC16(QByteArray("abc"), 0, 300).value(), uint16_t(0x5749));
    QCOMPARE(CRC16(QByteArray("abc"), 7, 3).value(), uint16_t(0xFFFF));
    QCOMPARE(CRC16(QByteArray("abc"), 0, 0).value(), uint16_t(0xFFFF));

    // Published Modbus order (low byte first) fails the check.
    QVERIFY(!FrameCrcOk(fromHexLine("01 F0 00 64 00")));
    QVERIFY(!FrameCrcOk(QByteArray("\x01", 1)));
}

void TstFrame::littleEndianBounds()
{
    QByteArray b(6, '\0');
    putLe32(b, 1, 0x08002400);
    QCOMPARE(toHexLine(b), QByteArray("00 00 24 00 08 00"));
    QCOMPARE(getLe32(b, 1), 0x08002400u);
    QCOMPARE(getLe16(b, 2), uint16_t(0x0024));
    putLe32(b, 4, 0xFFFFFFFF);   // would run past the end: dropped
    QCOMPARE(b[4], '\x08');
    QCOMPARE(getLe32(b, 3), 0u);
    QCOMPARE(getLe16(b, -1), uint16_t(0));
}

QTEST_APPLESS_MAIN(TstFrame)
#include "tst_frame.moc"
