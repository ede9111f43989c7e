#include "paramtest.h"

#include <QtTest>

using namespace pyro;

namespace {

TableInfo table(int blockSize)
{
    TableInfo t;
    t.HeaderNumber = 40;
    t.BlockSize = int16_t(blockSize);
    return t;
}

// An image of blockSize bytes plus the spare one, the header's own bytes
// filled with a pattern, the length field set to length.
QByteArray image(int blockSize, qint32 length)
{
    QByteArray b(blockSize + 1, '\0');
    for (int i = 0; i < b.size(); ++i)
        b[i] = char(i * 7 + 3);
    putLe32(b, kImageLengthAt, uint32_t(length));
    return b;
}

} // namespace

class TstImage : public QObject {
    Q_OBJECT
private slots:
    void crcOfAbcStandsHighByteFirst()
    {
        QByteArray b = image(35, 3);
        b.replace(32, 3, "abc");                // CRC-16/MODBUS("abc") = 0x5749
        QCOMPARE(StampImage(b, table(35)), int16_t(0));
        QCOMPARE(uint8_t(b[28]), uint8_t(0x57));
        QCOMPARE(uint8_t(b[29]), uint8_t(0x49));
        QCOMPARE(uint8_t(b[30]), uint8_t(0));
        QCOMPARE(uint8_t(b[31]), uint8_t(0));
        QCOMPARE(CheckImage(b, table(35)), int16_t(0));
        b[33] = 'B';
        QCOMPARE(CheckImage(b, table(35)), int16_t(1));
    }

    void lengthField_data()
    {
        QTest::addColumn<int>("blockSize");
        QTest::addColumn<int>("length");
        QTest::addColumn<int>("result");
        QTest::newRow("full 480") << 480 << 448 << 0;
        QTest::newRow("smallest") << 33 << 1 << 0;
        QTest::newRow("worked 44") << 44 << 12 << 0;
        QTest::newRow("one short") << 480 << 447 << 1;
        QTest::newRow("one long") << 480 << 449 << 1;
        QTest::newRow("zero agrees with 32") << 32 << 0 << 1;
        QTest::newRow("block below header") << 20 << -12 << 1;
        QTest::newRow("negative") << 44 << -1 << 1;
        QTest::newRow("whole block") << 44 << 44 << 1;
    }

    // CheckImage and StampImage agree on the length rule; a refused stamp
    // writes nothing, a good one fixes the CRC and nothing but 28..31.
    void lengthField()
    {
        QFETCH(int, blockSize);
        QFETCH(int, length);
        QFETCH(int, result);
        const TableInfo t = table(blockSize);
        QByteArray b = image(qMax(blockSize, 32), length);
        const QByteArray before = b;
        QCOMPARE(int(StampImage(b, t)), result);
        if (result == 1) {
            QCOMPARE(b, before);
            QCOMPARE(int(CheckImage(b, t)), 1);
            return;
        }
        QCOMPARE(int(CheckImage(b, t)), 0);
        QCOMPARE(b.size(), before.size());
        for (int i = 0; i < b.size(); ++i)
            if (i < 28 || i > 31)
                QCOMPARE(b[i], before[i]);
    }

    void wrongLengthWithRightCrcIsBad()
    {
        QByteArray b = image(44, 12);
        QCOMPARE(StampImage(b, table(44)), int16_t(0));
        putLe32(b, kImageLengthAt, 11);
        QCOMPARE(CheckImage(b, table(44)), int16_t(1));
        // The same bytes under a table of the matching size: the CRC over 11
        // bytes differs, so it is still bad.
        QCOMPARE(CheckImage(b, table(43)), int16_t(1));
    }

    void swappedCrcBytesAreBad()
    {
        QByteArray b = image(44, 12);
        QCOMPARE(StampImage(b, table(44)), int16_t(0));
        QVERIFY(b[28] != b[29]);
        std::swap(b[28], b[29]);
        QCOMPARE(CheckImage(b, table(44)), int16_t(1));
    }

    void padIsIgnoredThenZeroed()
    {
        QByteArray b = image(44, 12);
        QCOMPARE(StampImage(b, table(44)), int16_t(0));
        b[30] = char(0xAB);
        b[31] = char(0xCD);
        QCOMPARE(CheckImage(b, table(44)), int16_t(0));
        QCOMPARE(StampImage(b, table(44)), int16_t(0));
        QCOMPARE(b.mid(30, 2), QByteArray(2, '\0'));
    }

    void opaqueHeaderAndSpareByteTravelUnchanged()
    {
        QByteArray b = image(480, 448);
        const QByteArray before = b;
        for (int i = 0; i < 5; ++i) {
            CheckImage(b, table(480));
            StampImage(b, table(480));
            b[100] = char(i);                   // an edit in between
        }
        QCOMPARE(b.left(20), before.left(20));
        QCOMPARE(b.mid(20, 4), before.mid(20, 4));
        QCOMPARE(b.mid(24, 4), before.mid(24, 4));
        QCOMPARE(b.size(), 481);
        // The spare byte behind the block is no part of the payload.
        QCOMPARE(StampImage(b, table(480)), int16_t(0));
        b[480] = char(~b[480]);
        QCOMPARE(CheckImage(b, table(480)), int16_t(0));
    }

    void shortArraysAreBadNotRead()
    {
        const TableInfo t = table(44);
        for (int n : {0, 1, 20, 24, 31, 32, 43}) {
            QByteArray b = image(44, 12).left(n);
            const QByteArray before = b;
            QCOMPARE(CheckImage(b, t), int16_t(1));
            QCOMPARE(StampImage(b, t), int16_t(1));
            QCOMPARE(b, before);
        }
        QByteArray exact = image(44, 12).left(44);   // no spare byte: still good
        QCOMPARE(StampImage(exact, t), int16_t(0));
        QCOMPARE(CheckImage(exact, t), int16_t(0));
    }
};

QTEST_GUILESS_MAIN(TstImage)
#include "tst_image.moc"
