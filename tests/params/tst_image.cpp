#include "paramtest.h"

#include <QtTest>

using namespace pyro;

namespace {

TableInfo table(int blockSize)
{
    TableInfo t;
    t.BlockSize = int16_t(blockSize);
    return t;
}

// size bytes, the header's own bytes filled with a pattern, the length
// field set to length.
QByteArray image(int size, qint32 length)
{
    QByteArray b(size, '\0');
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
        QByteArray b = image(36, 3);
        b.replace(32, 3, "abc");                // CRC-16/MODBUS("abc") = 0x5749
        QCOMPARE(StampImage(b, table(35)), int16_t(0));
        QCOMPARE(b.mid(28, 4), QByteArray("\x57\x49\0\0", 4));
        QCOMPARE(CheckImage(b, table(35)), int16_t(0));
    }

    void lengthField_data()
    {
        QTest::addColumn<int>("blockSize");
        QTest::addColumn<int>("size");           // of the array
        QTest::addColumn<int>("length");
        QTest::addColumn<int>("result");
        QTest::newRow("full 480") << 480 << 481 << 448 << 0;
        QTest::newRow("smallest") << 33 << 34 << 1 << 0;
        QTest::newRow("no spare byte") << 44 << 44 << 12 << 0;
        QTest::newRow("one short") << 480 << 481 << 447 << 1;
        QTest::newRow("one long") << 480 << 481 << 449 << 1;
        QTest::newRow("zero agrees with 32") << 32 << 33 << 0 << 1;
        QTest::newRow("block below header") << 20 << 33 << -12 << 1;
        QTest::newRow("negative") << 44 << 45 << -1 << 1;
        QTest::newRow("whole block") << 44 << 45 << 44 << 1;
        // An array cut short is bad, not read past its end.
        for (int n : {0, 20, 24, 31, 32, 43})
            QTest::addRow("array of %d", n) << 44 << n << 12 << 1;
    }

    // CheckImage and StampImage agree on the length rule; a refused stamp
    // writes nothing, a good one fixes the CRC and nothing but 28..31: the
    // device's own header bytes travel unchanged.
    void lengthField()
    {
        QFETCH(int, blockSize);
        QFETCH(int, size);
        QFETCH(int, length);
        QFETCH(int, result);
        const TableInfo t = table(blockSize);
        QByteArray b = image(qMax(size, 24), length).left(size);
        const QByteArray before = b;
        QCOMPARE(int(StampImage(b, t)), result);
        QCOMPARE(int(CheckImage(b, t)), result);
        for (int i = 0; i < b.size(); ++i)
            if (result == 1 || i < 28 || i > 31)
                QCOMPARE(b[i], before[i]);
    }

    // A stamped 44-byte image, changed after the stamp, under a table of
    // the given size.
    void tampered_data()
    {
        QTest::addColumn<int>("at");             // byte to change
        QTest::addColumn<int>("value");          // -1: swap 28 and 29
        QTest::addColumn<int>("blockSize");
        QTest::addColumn<int>("result");
        QTest::newRow("payload byte") << 33 << int('B') << 44 << 1;
        QTest::newRow("wrong length, right CRC") << int(kImageLengthAt) << 11 << 44 << 1;
        // the CRC over 11 bytes differs, so the matching table doesn't help
        QTest::newRow("length for a 43-byte table") << int(kImageLengthAt) << 11 << 43 << 1;
        QTest::newRow("CRC bytes swapped") << int(kImageCrcHiAt) << -1 << 44 << 1;
        QTest::newRow("pad is not looked at") << int(kImagePadAt) << 0xAB << 44 << 0;
        QTest::newRow("spare byte is no payload") << 44 << 0x5A << 44 << 0;
    }

    void tampered()
    {
        QFETCH(int, at);
        QFETCH(int, value);
        QFETCH(int, blockSize);
        QByteArray b = image(45, 12);
        QCOMPARE(StampImage(b, table(44)), int16_t(0));
        QVERIFY(b[28] != b[29]);
        if (value == -1)
            std::swap(b[28], b[29]);
        else
            b[at] = char(value);
        QTEST(int(CheckImage(b, table(blockSize))), "result");
        if (CheckImage(b, table(44)) == 0) {   // stamped again, the pad is zero
            QCOMPARE(StampImage(b, table(44)), int16_t(0));
            QCOMPARE(b.mid(kImagePadAt, 2), QByteArray(2, '\0'));
        }
    }
};

QTEST_GUILESS_MAIN(TstImage)
#include "tst_image.moc"
