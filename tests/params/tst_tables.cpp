#include "paramtest.h"

#include <QRandomGenerator>
#include <QtTest>
#ifdef Q_OS_UNIX
#include <sys/stat.h>
#endif

using namespace pyro;

namespace {

const QString kHead = "40\\/44";

struct Loaded {
    GridModel grid;
    QList<ParamRow> rows;
    TableInfo info;
    TableDiag diag;
    int16_t result = -1;
};

void loadLines(Loaded &t, const QStringList &lines, const QByteArray &eol = "\r\n")
{
    QTemporaryDir dir;
    t.result = LoadProtocolTable(t.grid, writeTable(dir, "Config.For", lines, eol), t.rows, t.info, &t.diag);
}

// What every load leaves, good or bad: the rows stay one longer than the
// rows read, and the grid has a row for each.
void checkInvariants(const Loaded &t)
{
    QVERIFY(t.result == 0 || t.result == 1);
    if (t.result == 0) {
        QVERIFY(t.info.RowCount >= 1);
        QCOMPARE(t.rows.size(), t.info.RowCount + 1);
        QCOMPARE(t.grid.rows(), int(t.info.RowCount));
    }
}

} // namespace

class TstTables : public QObject {
    Q_OBJECT
private slots:
    void workedExample()
    {
        Loaded t;
        t.result = LoadProtocolTable(t.grid, PYRO_TEST_DATA "/params/worked.For", t.rows, t.info, &t.diag);
        QCOMPARE(t.result, int16_t(0));
        QCOMPARE(t.info.HeaderNumber, int16_t(40));
        QCOMPARE(t.info.BlockSize, int16_t(44));
        QCOMPARE(t.info.RowCount, int16_t(5));
        checkInvariants(t);
        QCOMPARE(t.grid.cols(), 4);
        QCOMPARE(QList<int>({t.grid.colWidth(0), t.grid.colWidth(1), t.grid.colWidth(2), t.grid.colWidth(3)}),
                 QList<int>({600, 2000, 4000, 2400}));
        QVERIFY(t.grid.mergeCol(1));
        QVERIFY(!t.grid.mergeCol(2));

        // Captions show their text, column 0 too; below it the row numbers.
        QCOMPARE(t.grid.text(0, 0), QString("No."));
        QCOMPARE(t.grid.rowHeight(0), 360);
        QCOMPARE(t.grid.cell(0, 2).alignment, int16_t(kAlignCenterCenter));
        QCOMPARE(QStringList({t.grid.text(3, 0), t.grid.text(3, 1), t.grid.text(4, 1), t.grid.text(2, 2)}),
                 QStringList({"3", "Motor", "Limit", "Direction"}));
        QCOMPARE(t.grid.cell(2, 2).alignment, int16_t(kAlignLeftCenter));
        for (int r = 1; r < 5; ++r)
            QVERIFY(t.grid.text(r, 3).isEmpty());   // values come from decoding

        // Addr, Width, Decimals, BitIndex, IsList, IsFloat, Scale, Labels, Values
        const QStringList want{"0 0 0 0 0 0 1  | ", "33 2 0 0 0 0 1 0||6000 | ", "35 1 0 0 1 0 1 Forward||Reverse | 0||1",
                               "37 4 0 3 1 0 1 Off||On | 0||1", "41 4 2 0 0 1 1 0||50 | "};
        for (int i = 0; i < 5; ++i) {
            const ParamRow &row = t.rows[i];
            QCOMPARE(row.Labels.size(), kLabelChars);
            QCOMPARE(QString("%1 %2 %3 %4 %5 %6 %7 %8 | %9").arg(row.Addr).arg(row.Width).arg(row.Decimals).arg(row.BitIndex)
                         .arg(row.IsList).arg(row.IsFloat).arg(row.Scale).arg(row.Labels.trimmed(), row.Values.trimmed()),
                     want[i]);
        }
    }

    void blockLine_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<int>("result");
        QTest::addColumn<int>("header");
        QTest::addColumn<int>("block");
        QTest::newRow("upper bounds") << "60\\/480" << 0 << 60 << 480;
        QTest::newRow("lower bounds") << "1\\/1" << 0 << 1 << 1;
        QTest::newRow("ties to even") << "40.5\\/43.5" << 0 << 40 << 44;
        QTest::newRow("more fields") << " 40 \\/44\\/x" << 0 << 40 << 44;
        // A rejected number stays in the info.
        QTest::newRow("header 61") << "61\\/44" << 1 << 61 << 44;
        QTest::newRow("block 481") << "40\\/481" << 1 << 40 << 481;
        QTest::newRow("header 0") << "0\\/44" << 1 << 0 << 44;
        QTest::newRow("block 0") << "40\\/0" << 1 << 40 << 0;
        QTest::newRow("trailing letter") << "12a\\/44" << 1 << 12 << 44;
        QTest::newRow("one field") << "40/44" << 1 << 0 << 0;
        QTest::newRow("empty field") << "40\\/" << 1 << 40 << 0;
        QTest::newRow("too big for 16 bits") << "40\\/99999" << 1 << 40 << 0;
    }

    void blockLine()
    {
        QFETCH(QString, line);
        Loaded t;
        loadLines(t, {line, kCols, kCaption, "End"});
        QTEST(int(t.result), "result");
        QTEST(int(t.info.HeaderNumber), "header");
        QTEST(int(t.info.BlockSize), "block");
        QCOMPARE(t.diag.line, t.result == 1 ? 1 : 0);
        checkInvariants(t);
    }

    void loadFailures_data()
    {
        QTest::addColumn<QStringList>("lines");
        QTest::addColumn<int>("line");
        QTest::addColumn<QString>("reasonHas");
        const QString row = rowLine("G", "I", paramCell(33, 1, 0, 0, 0, 0, 1, "0||1"));
        QTest::newRow("no rows") << QStringList{kHead, kCols, "End"} << 3 << "no row line";
        QTest::newRow("only short rows") << QStringList{kHead, kCols, "", "' motor", "End"} << 5 << "no row line";
        QTest::newRow("empty file") << QStringList{} << 1 << "empty";
        QTest::newRow("ends before line 2") << QStringList{kHead} << 2 << "line 2";
        QTest::newRow("parameter cell of 7") << QStringList{kHead, kCols, kCaption,
            rowLine("G", "I", "List:><33><2><0><0><0><0"), "End"} << 4 << "needs 9 or 10";
        QTest::newRow("width 300") << QStringList{kHead, kCols, kCaption,
            rowLine("G", "I", paramCell(33, 300, 0, 0, 0, 0, 1, "0||1")), "End"} << 4 << "Width";
        QTest::newRow("addr 40000") << QStringList{kHead, kCols, kCaption,
            rowLine("G", "I", paramCell(40000, 2, 0, 0, 0, 0, 1, "0||1")), "End"} << 4 << "Addr";
        QTest::newRow("scale 1e12") << QStringList{kHead, kCols, kCaption,
            rowLine("G", "I", "List:><33><2><0><0><0><0><1e12><0||1"), "End"} << 4 << "Scale";
        QTest::newRow("colour 1e20") << QStringList{kHead, kCols,
            plainCell("No.", 4, 0, 0) + "\\/" + "Group><4><1e20><0><360><10", "End"} << 3 << "fore colour";
        QTest::newRow("font size 1e300") << QStringList{kHead, kCols,
            "No.><4><0><0><360><1e300\\/Group><4><0><0><360><10", "End"} << 3 << "font size";
        QTest::newRow("too many columns") << QStringList{kHead, QString("100\\/").repeated(5000) + "1", kCaption}
            << 2 << "columns";
        // Half a megabyte of rows under a thousand columns would ask for
        // gigabytes of cells.
        QTest::newRow("too many cells") << QStringList{kHead, QString("100\\/").repeated(1000) + "1"} + QStringList(2000, row)
            << 1050 << "cells";
        QTest::newRow("too large") << QStringList(2 << 20, QString()) << 0 << "too large";
    }

    void loadFailures()
    {
        QFETCH(QStringList, lines);
        QFETCH(QString, reasonHas);
        Loaded t;
        loadLines(t, lines);
        QCOMPARE(t.result, int16_t(1));
        QTEST(t.diag.line, "line");
        QVERIFY2(t.diag.reason.contains(reasonHas), qPrintable(t.diag.reason));
    }

    void absentFileAndShortPath()
    {
        Loaded t;
        QCOMPARE(LoadProtocolTable(t.grid, "/nonexistent/Config.For", t.rows, t.info, &t.diag), int16_t(1));
        QVERIFY(t.diag.reason.contains("no such file"));
        QCOMPARE(LoadProtocolTable(t.grid, "a.F", t.rows, t.info, &t.diag), int16_t(1));
        QVERIFY(t.diag.reason.contains("4 characters"));
        QTemporaryDir dir;
        QCOMPARE(LoadProtocolTable(t.grid, dir.path(), t.rows, t.info, &t.diag), int16_t(1));   // a folder
#ifdef Q_OS_UNIX
        // A FIFO would block the start for ever if it were opened.
        const QString fifo = dir.filePath("Display.For");
        QCOMPARE(mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
        QCOMPARE(LoadProtocolTable(t.grid, fifo, t.rows, t.info, &t.diag), int16_t(1));
        QVERIFY2(t.diag.reason.contains("not a regular file"), qPrintable(t.diag.reason));
#endif
    }

    void shortLinesAndEnd()
    {
        const QString row = rowLine("G", "I", paramCell(33, 1, 0, 0, 0, 0, 1, "0||9"));
        // "End " and "end" are short lines, skipped; the real marker stops
        // reading, and what follows it is never looked at. 10 characters
        // make no row; 11 make one, empty and without a value; ten Chinese
        // characters are ten characters, not twenty bytes.
        Loaded t;
        loadLines(t, {kHead, kCols, kCaption, "End ", "0123456789", "01234567890", "end", "", "电机参数电机参数电机",
                      row, "End", row, "garbage"});
        QCOMPARE(t.result, int16_t(0));
        QCOMPARE(t.info.RowCount, int16_t(3));
        QCOMPARE(t.grid.text(1, 0), QString());
        QCOMPARE(t.rows[1].Addr, int16_t(0));
        QCOMPARE(t.grid.text(2, 0), QString("2"));
        QCOMPARE(t.rows[2].Addr, int16_t(33));
        checkInvariants(t);

        // Without "End" reading stops at the end of the file, with any line ends.
        for (const QByteArray &eol : {QByteArray("\r\n"), QByteArray("\n"), QByteArray("\r")}) {
            Loaded u;
            loadLines(u, {kHead, kCols, kCaption, row, row}, eol);
            QCOMPARE(u.result, int16_t(0));
            QCOMPARE(u.info.RowCount, int16_t(3));
        }
    }

    void cellRules()
    {
        Loaded t;
        const QString label61 = QString("A").repeated(59) + "BC";
        const QString group = "电机参数", item = "额定电流(A)℃±Ω";
        loadLines(t, {kHead, "600.5\\/1999.5\\/&H10\\/2400abc",
                      // GBK captions and labels come through as they were written
                      QStringList{plainCell("序号", 4), plainCell("分组", 4), plainCell("参数名称", 4), plainCell("参数值", 4)}.join("\\/"),
                      // column 0 shows the row number, whatever the cell says
                      QStringList{plainCell("x", 4), plainCell("G"), plainCell("I"), paramCell(33, 1, 0, 0, 0, 0, 1, "0||9")}.join("\\/"),
                      // a plain cell behind the parameter cell wipes the row
                      QStringList{plainCell("x"), plainCell("G"), paramCell(34, 1, 0, 0, 0, 0, 1, "0||9"), plainCell("late", 1, 255, 65280, 500, "12.5")}.join("\\/"),
                      // Labels cut at 60; Values only from exactly 10 subfields
                      rowLine("G", "I", paramCell(35, 1, 0, 0, 1, 0, 1, label61, "0||1")),
                      rowLine("G", "I", paramCell(36, 1, 0, 0, 1, 0, 1, "A||B", "0||1") + "><extra"),
                      // a cell of 5 subfields is ignored altogether
                      QStringList{plainCell("x"), "G><1><0><0><330", plainCell("I"), paramCell(37, 2, 0, 0, 0, 0, 3, "0||9")}.join("\\/"),
                      // cells beyond the columns paint nothing but still count
                      QStringList{plainCell("x"), plainCell("G"), plainCell("I"), plainCell("V"), paramCell(38, 2, 0, 0, 0, 0, 1, "0||9")}.join("\\/"),
                      // integer fields round ties to even, after the leading number
                      rowLine("G", "I", "List:><33.5><2.5><1.5><0><0><0><2.5><  7 pieces><0||1"),
                      rowLine(group, item, paramCell(39, 1, 0, 0, 1, 0, 1, "正转||反转", "0||1")),
                      "End"});
        QCOMPARE(t.result, int16_t(0));
        QCOMPARE(t.info.RowCount, int16_t(9));
        QCOMPARE(QList<int>({t.grid.colWidth(0), t.grid.colWidth(1), t.grid.colWidth(2), t.grid.colWidth(3)}),
                 QList<int>({600, 2000, 16, 2400}));
        QCOMPARE(t.grid.text(1, 0), QString("1"));
        QCOMPARE(t.rows[1].Addr, int16_t(33));

        QCOMPARE(t.rows[2].Addr, int16_t(0));
        QCOMPARE(t.rows[2].Scale, 1);
        QCOMPARE(t.rows[2].Labels, FixedText(""));
        QCOMPARE(t.grid.text(2, 3), QString("late"));
        QCOMPARE(t.grid.cell(2, 3).fore, qRgb(255, 0, 0));
        QCOMPARE(t.grid.cell(2, 3).back, qRgb(0, 255, 0));
        QCOMPARE(t.grid.cell(2, 3).fontSize, 12.5f);
        QCOMPARE(t.grid.rowHeight(2), 500);   // the last plain cell wins

        QCOMPARE(t.rows[3].Labels, label61.left(60));
        QCOMPARE(t.rows[3].Values, FixedText("0||1"));
        QCOMPARE(t.rows[4].Labels, FixedText("A||B"));
        QCOMPARE(t.rows[4].Values, FixedText(""));   // 11 subfields: unset

        QCOMPARE(t.grid.text(5, 1), QString());
        QCOMPARE(t.rows[5].Scale, 3);
        QCOMPARE(t.grid.cols(), 4);
        QCOMPARE(t.grid.text(6, 3), QString("V"));
        QCOMPARE(t.rows[6].Addr, int16_t(38));
        const ParamRow &r7 = t.rows[7];
        QCOMPARE(QList<int>({r7.Addr, r7.Width, r7.Decimals, r7.Scale}), QList<int>({34, 2, 2, 2}));
        QCOMPARE(QStringList({t.grid.text(0, 0), t.grid.text(8, 1), t.grid.text(8, 2)}), QStringList({"序号", group, item}));
        QCOMPARE(t.rows[8].Labels, FixedText("正转||反转"));
        checkInvariants(t);
    }

    void leadingNumber_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<double>("value");
        QTest::addColumn<bool>("numeric");
        QTest::newRow("blanks") << "  12  " << 12.0 << true;
        QTest::newRow("real tail") << " -3.5x" << -3.5 << false;
        QTest::newRow("none") << "abc" << 0.0 << false;
        QTest::newRow("empty") << "" << 0.0 << false;
        QTest::newRow("point first") << "+.5" << 0.5 << true;
        QTest::newRow("point alone") << "." << 0.0 << false;
        QTest::newRow("exponent") << "1e3" << 1000.0 << true;
        QTest::newRow("D exponent") << "1D2" << 100.0 << true;
        QTest::newRow("bare exponent") << "1.5e" << 1.5 << false;
        QTest::newRow("overflow") << "1e999" << qInf() << true;
        QTest::newRow("underflow") << "-1e-999" << 0.0 << true;
        QTest::newRow("hex") << "&h1f" << 31.0 << true;
        QTest::newRow("hex wide") << "&HFFFF" << 65535.0 << true;
        QTest::newRow("hex tail") << "&H1Fg" << 31.0 << false;
        QTest::newRow("octal stops at 8") << "&O178" << 15.0 << false;
        QTest::newRow("prefix alone") << "&H" << 0.0 << false;
        QTest::newRow("inner blank") << "1 2" << 1.0 << false;
        QTest::newRow("two points") << "1.2.3" << 1.2 << false;
        QTest::newRow("full-width digit") << "１" << 0.0 << false;
    }

    void leadingNumber()
    {
        QFETCH(QString, text);
        QTEST(LeadingNumber(text), "value");
        QTEST(IsNumericText(text), "numeric");
    }

    void loadParamTables()
    {
        ScriptedPrompter prompter;
        Params p;
        TableDiag diags[2];
        QTemporaryDir dir;
        writeTable(dir, "Config.For", {kHead, kCols, kCaption, rowLine("G", "I", paramCell(33, 2, 0, 0, 0, 0, 1, "0||9")), "End"});
        writeTable(dir, "Display.For", {"30\\/500", kCols, kCaption, "End"});
        LoadParamTables(p, dir.path(), &prompter, diags);
        QCOMPARE(p.SetImage.size(), 45);
        QCOMPARE(p.DisplayImage.size(), 73);   // refused: the first size stays
        QCOMPARE(prompter.shown, QStringList{"Hint！|Error loading parse the file"});
        QCOMPARE(diags[1].line, 1);
        QVERIFY(diags[0].reason.isEmpty());
    }

    // Broken files of every sort load or are refused by the rules; nothing
    // crashes, hangs, or leaves the rows and the grid out of step.
    void badInputNeverCrashes()
    {
        QRandomGenerator rng(20240611);
        const auto loadBytes = [&](const QByteArray &bytes) {
            Loaded t;
            t.result = LoadProtocolTableData(t.grid, bytes, t.rows, t.info, &t.diag);
            checkInvariants(t);
            // Decoding and encoding the table over a random block touch
            // nothing outside it.
            QByteArray block(qMax<int>(0, t.info.BlockSize) + 1, '\0');
            for (char &c : block)
                c = char(rng.bounded(256));
            DecodeBlock(t.grid, block, t.rows, t.info, nullptr);
            for (int r = 0; r < t.rows.size(); ++r)
                EncodeValue("1", block, t.rows, r, nullptr);
            if (block.size() != qMax<int>(0, t.info.BlockSize) + 1)
                return int16_t(-1);
            return t.result;
        };

        const QByteArray good = readAll(PYRO_DATA_DIR "/Config.For");
        QCOMPARE(loadBytes(good), int16_t(0));
        for (int i = 0; i < 300; ++i) {
            // Garbage, and the good file with bytes flipped, cut or doubled.
            QByteArray b = good;
            if (i % 3 == 0) {
                b = QByteArray(int(rng.bounded(4000)), '\0');
                for (char &c : b)
                    c = char(rng.bounded(256));
            } else if (i % 3 == 1) {
                for (int k = 0; k < 20; ++k)
                    b[rng.bounded(int(b.size()))] = char(rng.bounded(256));
            } else {
                b = b.left(rng.bounded(int(b.size()))) + b.mid(rng.bounded(int(b.size())));
            }
            QVERIFY(loadBytes(b) >= 0);
        }

        // A huge row line of one cell, of many cells, of many subfields.
        QByteArray head = "40\\/44\r\n600\\/2000\\/4000\\/2400\r\n";
        QCOMPARE(loadBytes(head + QByteArray(1000000, 'a') + "\r\nEnd\r\n"), int16_t(0));
        QCOMPARE(loadBytes(head + QByteArray("x><1><0><0><330><9\\/").repeated(50000) + "\r\n"), int16_t(0));
        QCOMPARE(loadBytes(head + QByteArray("><").repeated(400000) + "\r\n"), int16_t(0));
        // Binary zeros and a file of line ends only.
        QCOMPARE(loadBytes(QByteArray(1000, '\0')), int16_t(1));
        QCOMPARE(loadBytes(QByteArray(1000, '\n')), int16_t(1));
    }
};

QTEST_GUILESS_MAIN(TstTables)
#include "tst_tables.moc"
