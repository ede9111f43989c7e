#include "paramtest.h"

#include <QtTest>

using namespace pyro;

namespace {

// A value row at Addr 1: Width, IsFloat, BitIndex, IsList, Scale, Decimals,
// Labels, Values.
ParamRow makeRow(int width = 1, int isFloat = 0, int bit = 0, int isList = 0, int scale = 1, int decimals = 0,
                 const QString &labels = {}, const QString &values = {})
{
    ParamRow r;
    r.Addr = 1;
    r.Width = uint8_t(width);
    r.IsFloat = uint8_t(isFloat);
    r.BitIndex = uint8_t(bit);
    r.IsList = uint8_t(isList);
    r.Scale = scale;
    r.Decimals = uint8_t(decimals);
    r.Labels = FixedText(labels);
    r.Values = FixedText(values);
    return r;
}

ParamRow atAddr(ParamRow r, int addr)
{
    r.Addr = int16_t(addr);
    return r;
}

// A one-row table: row 0 the caption, row 1 the value at Addr 1 of a block
// of 8 bytes. The value cell starts out as "old".
struct OneRow {
    GridModel grid;
    QList<ParamRow> rows;
    TableInfo info;
    explicit OneRow(const ParamRow &r)
    {
        grid.clear(2, 4);
        grid.setText(1, kValueCol, "old");
        rows = {ParamRow(), r};
        info.BlockSize = 8;
        info.RowCount = 2;
    }
};

const QString kOld = "old";
const QString kMismatch = "警告！|解析协议表错误，列表和对应值不匹配。";

} // namespace

Q_DECLARE_METATYPE(pyro::ParamRow)

class TstCodec : public QObject {
    Q_OBJECT
private slots:
    void decode_data()
    {
        QTest::addColumn<ParamRow>("row");
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("shown");

        // byte: unsigned, divided by Scale, halves to even
        QTest::newRow("byte 200 / 3") << makeRow(1, 0, 0, 0, 3) << QByteArray("\xC8") << "67";
        QTest::newRow("byte 1 / 2") << makeRow(1, 0, 0, 0, 2) << QByteArray("\x01") << "0";
        QTest::newRow("byte 3 / 2") << makeRow(1, 0, 0, 0, 2) << QByteArray("\x03") << "2";
        QTest::newRow("byte scale 0") << makeRow(1, 0, 0, 0, 0) << QByteArray("\x05") << kOld;
        // word: signed 16-bit
        QTest::newRow("word -2") << makeRow(2) << le16(0xFFFE) << "-2";
        QTest::newRow("word / 10") << makeRow(2, 0, 0, 0, 10) << le16(482) << "48";
        QTest::newRow("word ignores list") << makeRow(2, 0, 0, 1, 1, 0, "A||B", "0||1") << le16(1) << "1";
        // long: through single precision, Decimals patterns
        QTest::newRow("long 123.45") << makeRow(4, 0, 0, 0, 100, 2) << le32(12345) << "123.45";
        QTest::newRow("long single") << makeRow(4, 0, 0, 0, 1, 0) << le32(16777217) << "16777216";
        QTest::newRow("long negative") << makeRow(4, 0, 0, 0, 100, 1) << le32(uint32_t(-150)) << "-1.5";
        QTest::newRow("long tie to even") << makeRow(4, 0, 0, 0, 1000, 2) << le32(125) << "0.12";
        QTest::newRow("long negative, rounds to zero") << makeRow(4, 0, 0, 0, 1000, 2) << le32(uint32_t(-1)) << "-0.00";
        QTest::newRow("float zero with sign bit") << makeRow(4, 1, 0, 0, 1, 2) << le32(0x80000000) << "0.00";
        QTest::newRow("long 6 decimals") << makeRow(4, 0, 0, 0, 1, 6) << le32(7) << kOld;
        // float: single, Decimals, or a list by the integer below it
        QTest::newRow("float 2 decimals") << makeRow(4, 1, 0, 0, 1, 2) << f32(3.14159f) << "3.14";
        QTest::newRow("float 2.5 to even") << makeRow(4, 1, 0, 0, 1, 0) << f32(2.5f) << "2";
        QTest::newRow("float scaled") << makeRow(4, 1, 0, 0, 10, 1) << f32(15.0f) << "1.5";
        QTest::newRow("float NaN") << makeRow(4, 1, 0, 0, 1, 2) << le32(0x7FC00000) << kOld;
        QTest::newRow("float list 2.9") << makeRow(4, 1, 0, 1, 1, 0, "A||B||C||D", "0||1||2||3") << f32(2.9f) << "C";
        QTest::newRow("float list negative") << makeRow(4, 1, 0, 1, 1, 0, "Neg||Zero", "-1||0") << f32(-0.5f) << "Neg";
        QTest::newRow("float list 2.50 piece") << makeRow(4, 1, 0, 1, 1, 0, "A||B", "1||2.50") << f32(2.0f) << "B";
        // lists: containment, first hit, trimmed label
        QTest::newRow("byte list") << makeRow(1, 0, 0, 1, 1, 0, "Forward||Reverse", "0||1") << QByteArray("\x01") << "Reverse";
        QTest::newRow("byte list 10 before 1") << makeRow(1, 0, 0, 1, 1, 0, "A||B", "10||1") << QByteArray("\x01") << "A";
        QTest::newRow("byte list no pick") << makeRow(1, 0, 0, 1, 1, 0, "A||B", "0||1") << QByteArray("\x07") << kOld;
        QTest::newRow("byte list scaled") << makeRow(1, 0, 0, 1, 10, 0, "A||B||C", "0||1||2") << QByteArray("\x14") << "C";
        QTest::newRow("float list 1e6") << makeRow(4, 1, 0, 1, 1, 0, "A||B", "0||1000000") << f32(1e6f) << "B";
        // bit: two labels by one bit, Values unused
        QTest::newRow("bit 1 is LSB") << makeRow(4, 0, 1, 1, 1, 0, "Off||On", "0||1") << le32(1) << "On";
        QTest::newRow("bit 32") << makeRow(4, 0, 32, 1, 1, 0, "Off||On", "0||1") << le32(0x80000000) << "On";
        QTest::newRow("bit 33") << makeRow(4, 0, 33, 1, 1, 0, "Off||On", "0||1") << le32(0xFFFFFFFF) << kOld;
        QTest::newRow("bit inverse values") << makeRow(4, 0, 1, 1, 1, 0, "Off||On", "1||0") << le32(0) << "Off";
        QTest::newRow("bit three labels") << makeRow(4, 0, 1, 1, 1, 0, "A||B||C", "0||1||2") << le32(1) << kOld;
        QTest::newRow("bit trailing blanks only") << makeRow(4, 0, 1, 0, 1, 0, "Off|| On", "") << le32(1) << " On";
        QTest::newRow("bit scaled") << makeRow(4, 0, 1, 0, 2, 0, "Off||On", "") << le32(2) << "On";
        // rows left alone
        QTest::newRow("width 3") << makeRow(3) << QByteArray("\x01\x02\x03") << kOld;
        QTest::newRow("IsFloat 2") << makeRow(4, 2) << le32(1) << kOld;
    }

    void decode()
    {
        QFETCH(ParamRow, row);
        QFETCH(QByteArray, bytes);
        QFETCH(QString, shown);
        OneRow t(row);
        QByteArray block(9, '\0');
        block.replace(0, bytes.size(), bytes);
        ScriptedPrompter prompter;
        QCOMPARE(DecodeBlock(t.grid, block, t.rows, t.info, &prompter), int16_t(0));
        QCOMPARE(t.grid.text(1, kValueCol), shown);
        QCOMPARE(prompter.shown, QStringList());
    }

    // Labels and Values that don't pair up: decoding stops at that row with
    // the message, leaving it and the rest as shown; editing it stores nothing.
    void listMismatch()
    {
        GridModel grid;
        grid.clear(4, 4);
        for (int r = 1; r < 4; ++r)
            grid.setText(r, kValueCol, "old");
        grid.setCurrentCell(2, 3);
        grid.setFore(2, 3, qRgb(250, 0, 0));
        TableInfo info;
        info.BlockSize = 8;
        info.RowCount = 4;
        QList<ParamRow> rows{ParamRow(), makeRow(), atAddr(makeRow(1, 0, 0, 1, 1, 0, "A||B||C", "0||1"), 2),
                             atAddr(makeRow(4, 0, 2, 1, 1, 0, "Off||On", "0"), 3)};
        QByteArray block("\x05\x01\x07\x00\x00\x00\x00\x00\x00", 9);
        const QByteArray stored = block;
        ScriptedPrompter prompter;
        QCOMPARE(DecodeBlock(grid, block, rows, info, &prompter), int16_t(1));
        QCOMPARE(EncodeValue("B", block, rows, 2, &prompter), int16_t(1));
        QCOMPARE(EncodeValue("On", block, rows, 3, &prompter), int16_t(1));
        QCOMPARE(EncodeValue("B", block, rows, 2, nullptr), int16_t(1));
        QCOMPARE(prompter.shown, QStringList(3, kMismatch));
        QCOMPARE(block, stored);
        QCOMPARE(grid.text(1, 3), QString("5"));
        QCOMPARE(grid.text(2, 3), QString("old"));
        QCOMPARE(grid.text(3, 3), QString("old"));
        QCOMPARE(grid.cell(2, 3).fore, qRgb(250, 0, 0));   // not reset

        // With the lists mended the walk runs through and blackens the
        // current cell only.
        grid.setFore(1, 3, qRgb(250, 0, 0));
        rows[2].Values = FixedText("0||1||2");
        rows[3] = atAddr(makeRow(), 3);
        QCOMPARE(DecodeBlock(grid, block, rows, info, &prompter), int16_t(0));
        QCOMPARE(grid.text(2, 3), QString("B"));
        QCOMPARE(grid.text(3, 3), QString("7"));
        QCOMPARE(grid.cell(2, 3).fore, qRgb(0, 0, 0));
        QCOMPARE(grid.cell(1, 3).fore, qRgb(250, 0, 0));
    }

    // A row is shown and stored only inside the first BlockSize bytes: one
    // that runs into the spare byte is neither, so no edit sends bytes that
    // a read never shows. Rows before 1, beyond RowCount or beyond the grid
    // are skipped; the rest are still decoded.
    void rowsAtTheBlockEdge()
    {
        GridModel grid;
        grid.clear(5, 4);
        for (int r = 0; r < 5; ++r)
            grid.setText(r, kValueCol, "old");
        TableInfo info;
        info.BlockSize = 44;
        info.RowCount = 4;
        QList<ParamRow> rows{atAddr(makeRow(2), 43), atAddr(makeRow(4), 42), atAddr(makeRow(1), 44), atAddr(makeRow(4), -5), makeRow()};
        QByteArray block(45, '\x01');
        QCOMPARE(DecodeBlock(grid, block, rows, info, nullptr), int16_t(0));
        const QStringList shown{grid.text(0, 3), grid.text(1, 3), grid.text(2, 3), grid.text(3, 3), grid.text(4, 3)};
        QCOMPARE(shown, (QStringList{"257", "old", "1", "old", "old"}));
        for (int r = 0; r < 4; ++r)
            QCOMPARE(EncodeValue("2", block, rows, r, nullptr), int16_t(0));
        // The word takes 42, 43, then the byte 43; the long at 41..44 stores
        // nothing, nor do rows that aren't there.
        QCOMPARE(EncodeValue("2", block, rows, -1, nullptr), int16_t(0));
        QCOMPARE(EncodeValue("2", block, rows, 5, nullptr), int16_t(0));
        QCOMPARE(block.toHex(' '), (QByteArray(42, '\x01') + "\x02\x02\x01").toHex(' '));
        // A block shorter than the table, and rows longer than the grid.
        info.RowCount = 5;
        grid.clear(2, 2);
        QCOMPARE(DecodeBlock(grid, QByteArray(3, '\x01'), rows, info, nullptr), int16_t(0));
        QCOMPARE(DecodeBlock(grid, QByteArray(), rows, info, nullptr), int16_t(0));
        info.RowCount = 100;   // more than the rows
        QCOMPARE(DecodeBlock(grid, block, rows, info, nullptr), int16_t(0));
    }

    void encode_data()
    {
        QTest::addColumn<ParamRow>("row");
        QTest::addColumn<QByteArray>("before");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QByteArray>("after");
        const QByteArray z4(4, '\0');
        const QByteArray ones = le32(0xFFFFFFFF);

        QTest::newRow("byte 1.5") << makeRow() << z4 << "1.5" << QByteArray("\x02\0\0\0", 4);
        QTest::newRow("byte 2.5") << makeRow() << z4 << "2.5" << QByteArray("\x02\0\0\0", 4);
        QTest::newRow("byte 255.5 too big") << makeRow() << z4 << "255.5" << z4;
        QTest::newRow("byte -1") << makeRow() << ones << "-1" << ones;
        QTest::newRow("byte no number") << makeRow() << ones << "abc" << QByteArray("\0\xFF\xFF\xFF", 4);
        QTest::newRow("byte only its byte") << makeRow() << ones << "7" << QByteArray("\x07\xFF\xFF\xFF", 4);
        QTest::newRow("word -2") << makeRow(2) << z4 << "-2" << QByteArray("\xFE\xFF\0\0", 4);
        QTest::newRow("word 70000") << makeRow(2) << z4 << "70000" << z4;
        QTest::newRow("word hex") << makeRow(2) << z4 << "&H1234" << QByteArray("\x34\x12\0\0", 4);
        QTest::newRow("long negative") << makeRow(4) << z4 << "-1" << ones;
        QTest::newRow("long 3e9") << makeRow(4) << z4 << "3e9" << z4;
        QTest::newRow("long scaled") << makeRow(4, 0, 0, 0, 100, 2) << z4 << "123.45" << le32(12345);
        QTest::newRow("word scaled") << makeRow(2, 0, 0, 0, 10) << z4 << "48.2" << le16(482) + QByteArray(2, '\0');
        QTest::newRow("byte scale 0") << makeRow(1, 0, 0, 0, 0) << z4 << "5" << z4;
        QTest::newRow("float single") << makeRow(4, 1) << z4 << "0.1" << le32(0x3DCCCCCD);
        QTest::newRow("float scaled") << makeRow(4, 1, 0, 0, 10) << z4 << "1.5" << f32(15.0f);
        QTest::newRow("float 1e39") << makeRow(4, 1) << z4 << "1e39" << z4;
        QTest::newRow("byte list any case") << makeRow(1, 0, 0, 1, 1, 0, "Forward||Reverse", "0||1") << z4 << "REV" << QByteArray("\x01\0\0\0", 4);
        QTest::newRow("byte list first hit") << makeRow(1, 0, 0, 1, 1, 0, "On||Off", "5||6") << z4 << "O" << QByteArray("\x05\0\0\0", 4);
        // A list stores the piece of Values at the pick as it stands, whatever its Scale.
        QTest::newRow("byte list scaled") << makeRow(1, 0, 0, 1, 10, 0, "A||B||C", "0||1||2") << z4 << "C" << QByteArray("\x02\0\0\0", 4);
        QTest::newRow("float list scaled") << makeRow(4, 1, 0, 1, 4, 0, "Hall||Encoder", "0||1.5") << z4 << "encoder" << f32(1.5f);
        QTest::newRow("byte list chinese") << makeRow(1, 0, 0, 1, 1, 0, "正转||反转", "0||1") << z4 << "反转" << QByteArray("\x01\0\0\0", 4);
        QTest::newRow("byte list unknown") << makeRow(1, 0, 0, 1, 1, 0, "Forward||Reverse", "0||1") << ones << "Up" << ones;
        // bit: one bit changes, the others stay
        QTest::newRow("bit set") << makeRow(4, 0, 3, 1, 1, 0, "Off||On", "0||1") << le32(1) << "On" << le32(5);
        QTest::newRow("bit clear") << makeRow(4, 0, 3, 1, 1, 0, "Off||On", "0||1") << ones << "Off" << le32(0xFFFFFFFB);
        QTest::newRow("bit already on") << makeRow(4, 0, 3, 1, 1, 0, "Off||On", "0||1") << ones << "On" << ones;
        QTest::newRow("bit 1 is LSB") << makeRow(4, 0, 1, 1, 1, 0, "Off||On", "0||1") << z4 << "On" << le32(1);
        QTest::newRow("bit 32") << makeRow(4, 0, 32, 1, 1, 0, "Off||On", "0||1") << ones << "Off" << le32(0x7FFFFFFF);
        QTest::newRow("bit by Values") << makeRow(4, 0, 1, 1, 1, 0, "Off||On", "1||0") << z4 << "Off" << le32(1);
        QTest::newRow("bit n 2") << makeRow(4, 0, 1, 1, 1, 0, "Off||On", "2||0") << z4 << "Off" << z4;
        QTest::newRow("bit ignores scale") << makeRow(4, 0, 2, 1, 7, 0, "Off||On", "0||1") << z4 << "On" << le32(2);
        // left alone
        QTest::newRow("width 3") << makeRow(3) << z4 << "5" << z4;
        QTest::newRow("IsFloat 2") << makeRow(4, 2) << z4 << "5" << z4;
    }

    void encode()
    {
        QFETCH(ParamRow, row);
        QFETCH(QByteArray, before);
        QFETCH(QString, text);
        QFETCH(QByteArray, after);
        // The value sits at index 32, behind a header whose CRC bytes the
        // codec must leave stale.
        QByteArray image = QByteArray(32, '\x11') + before + QByteArray(4, '\x11');
        const QByteArray want = QByteArray(32, '\x11') + after + QByteArray(4, '\x11');
        ScriptedPrompter prompter;
        QCOMPARE(EncodeValue(text, image, {ParamRow(), atAddr(row, 33)}, 1, &prompter), int16_t(0));
        QCOMPARE(image.toHex(' '), want.toHex(' '));
        QCOMPARE(prompter.shown, QStringList());
    }

    // What is typed comes back as the same text after a read: scaled rows,
    // decimals, and GBK labels.
    void encodeThenDecodeRoundTrips_data()
    {
        QTest::addColumn<ParamRow>("row");
        QTest::addColumn<QString>("text");
        QTest::newRow("long 0.1 A") << makeRow(4, 0, 0, 0, 10, 1) << "25.5";
        QTest::newRow("long ms as s") << makeRow(4, 0, 0, 0, 1000, 2) << "2.50";
        QTest::newRow("float") << makeRow(4, 1, 0, 0, 1, 4) << "0.0850";
        QTest::newRow("float list") << makeRow(4, 1, 0, 1, 1, 0, "霍尔||编码器||无感", "0||1||2") << "无感";
        QTest::newRow("bit") << makeRow(4, 0, 5, 1, 1, 0, "关闭||开启", "0||1") << "开启";
    }

    void encodeThenDecodeRoundTrips()
    {
        QFETCH(ParamRow, row);
        QFETCH(QString, text);
        OneRow t(row);
        QByteArray block(9, '\0');
        QCOMPARE(EncodeValue(text, block, t.rows, 1, nullptr), int16_t(0));
        QCOMPARE(DecodeBlock(t.grid, block, t.rows, t.info, nullptr), int16_t(0));
        QCOMPARE(t.grid.text(1, kValueCol), text);
    }
};

QTEST_GUILESS_MAIN(TstCodec)
#include "tst_codec.moc"
