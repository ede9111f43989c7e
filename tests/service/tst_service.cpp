// The service bench's core: settings files out and back, comparisons, the
// table's defaults, the grid's undo and the port probe, all without widgets.
#include "../params/paramtest.h"
#include "../projectdb/dbfixture.h"
#include "fakeport.h"
#include "frame.h"
#include "gridundo.h"
#include "image.h"
#include "itemstore.h"
#include "portprobe.h"
#include "samplevalues.h"
#include "settingsfile.h"
#include "simboard.h"
#include "simlink.h"

#include <QtTest>

using namespace pyro;

namespace {

bool loadSettings(Params &p, const QString &path)
{
    if (LoadProtocolTable(p.MSFG[0], path, p.SetRows, p.Tables[0]) != 0)
        return false;
    p.SetImage = QByteArray(p.Tables[0].BlockSize + 1, '\0');
    return true;
}

// Every kind of row the codec knows, with scales that don't divide evenly:
// a byte shown /3, a word /2, a long /100 with decimals, a float list, bits
// whose Values run backwards, a byte list.
QStringList scaledTable()
{
    return {"40\\/64", kCols, kCaption,
            rowLine("A", "Byte /3", paramCell(33, 1, 0, 0, 0, 0, 3, "0||85")),
            rowLine("A", "Word /2(V)", paramCell(34, 2, 0, 0, 0, 0, 2, "0||16000")),
            rowLine("A", "Long /100(A)", paramCell(36, 4, 2, 0, 0, 0, 100, "0||20000")),
            rowLine("B", "Float(℃)", paramCell(40, 4, 3, 0, 0, 1, 1, "0||100")),
            rowLine("B", "Float list", paramCell(44, 4, 0, 0, 1, 1, 1, "Low||Mid||High", "0||1||2")),
            rowLine("B", "Bit 1", paramCell(49, 4, 0, 1, 1, 0, 1, "Off||On", "1||0")),
            rowLine("B", "Bit 5", paramCell(49, 4, 0, 5, 1, 0, 1, "Off||On", "0||1")),
            rowLine("C", "Mode", paramCell(53, 1, 0, 0, 1, 0, 1, "Auto||Hand||Test", "0||1||2")),
            rowLine("C", "Spacer", plainCell("-")),
            "End"};
}

QByteArray scaledBlock()
{
    QByteArray b = stampedImage(64, 0);
    b[32] = char(200);                       // shows 67: 200 / 3 rounded
    putLe16(b, 33, 2469);                    // shows 1234 (1234.5 to even)
    putLe32(b, 35, 1234567);                 // shows 12345.67
    b.replace(39, 4, f32(23.456789f));       // shows 23.457
    b.replace(43, 4, f32(2.75f));            // the list shows High (floor 2)
    putLe32(b, 48, 0xF0F0F0E0u);             // bits 1 and 5 clear, the rest busy
    b[52] = char(1);
    b[60] = char(0x5A);                      // no row holds this byte
    TableInfo info;
    info.BlockSize = 64;
    StampImage(b, info);
    return b;
}

// The block again with every row's stored number moved elsewhere, the bytes
// no row holds left alone.
QByteArray shaken(const Params &p, QByteArray b)
{
    for (const SettingRow &s : SettingRows(p)) {
        const QString now = ValueAt(p, s, b).stored;
        const QString other = s.kind == ValueKind::Bit ? (now == "0" ? "1" : "0")
                            : s.isList ? (now == "0" ? "1" : "0")
                                       : (now == "3" ? "5" : "3");
        PutStored(p, s, other, b);
    }
    StampImage(b, p.Tables[0]);
    return b;
}

} // namespace

class TstService : public QObject {
    Q_OBJECT
    QTemporaryDir dir;

    // The sample tables and a block of each that the board could hold.
    void tables(QString &path, QByteArray &block, const QString &which)
    {
        if (which == "demo") {
            path = PYRO_DATA_DIR "/Config.For";
            block = SampleSettingsBlock();
        } else if (which == "worked") {
            path = PYRO_TEST_DATA "/params/worked.For";
            block = stampedImage(44, 0);
            putLe16(block, 32, 4321);
            block[34] = 1;
            putLe32(block, 36, 0x00000004u);   // bit 3: On
            block.replace(40, 4, f32(12.345678f));
            TableInfo info;
            info.BlockSize = 44;
            StampImage(block, info);
        } else {
            path = writeTable(dir, "Scaled.For", scaledTable());
            block = scaledBlock();
        }
    }

private slots:
    void roundTrip_data()
    {
        QTest::addColumn<QString>("which");
        QTest::addColumn<int>("format");
        for (const char *t : {"demo", "worked", "scaled"}) {
            QTest::addRow("%s json", t) << t << int(SettingsFormat::Json);
            QTest::addRow("%s csv", t) << t << int(SettingsFormat::Csv);
        }
    }

    // A block written out and read back onto one whose every row holds
    // something else comes back byte for byte; onto a blank one, row for row.
    void roundTrip()
    {
        QFETCH(QString, which);
        QFETCH(int, format);
        QString path;
        QByteArray block;
        tables(path, block, which);
        Params p;
        QVERIFY(loadSettings(p, path));
        QVERIFY(GoodBlock(p, block));
        const QByteArray text = ExportSettings(p, block, SettingsFormat(format), "board");
        const QByteArray other = shaken(p, block);
        for (const RowCompare &c : CompareBlocks(p, {block, other}))
            QVERIFY2(c.differs, qPrintable(c.row.caption));

        QByteArray back;
        ImportDiag diag;
        QVERIFY2(ImportSettings(p, text, other, back, diag), qPrintable(diag.text()));
        QCOMPARE(back.toHex(), block.toHex());

        QVERIFY2(ImportSettings(p, text, QByteArray(), back, diag), qPrintable(diag.text()));
        for (const RowCompare &c : CompareBlocks(p, {block, back}))
            QVERIFY2(!c.differs, qPrintable(c.row.caption));
        QVERIFY(GoodBlock(p, back));
    }

    // What a person reads: caption, group, the grid's text, the unit.
    void readable()
    {
        Params p;
        QVERIFY(loadSettings(p, PYRO_DATA_DIR "/Config.For"));
        const QString json = QString::fromUtf8(ExportSettings(p, SampleSettingsBlock(), SettingsFormat::Json, "board"));
        QVERIFY(json.contains("\"group\": \"电机参数\", \"caption\": \"额定电流(A)\", \"value\": \"25.5\", \"unit\": \"A\", \"stored\": \"255\""));
        QVERIFY(json.contains("\"blockSize\": 256"));
        const QString csv = QString::fromUtf8(ExportSettings(p, SampleSettingsBlock(), SettingsFormat::Csv, "board"));
        QVERIFY(csv.contains("\n4,电机参数,额定电流(A),25.5,A,255\n"));
        QCOMPARE(UnitOf("过温阈值(℃)"), QString("℃"));
        QCOMPARE(UnitOf("电机类型"), QString());
        QCOMPARE(UnitOf("速度（rpm）"), QString("rpm"));
    }

    // Every refusal names its line and reason, and leaves the block alone.
    void refused_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<int>("line");
        QTest::addColumn<QString>("reason");
        Params p;
        QVERIFY(loadSettings(p, PYRO_TEST_DATA "/params/worked.For"));
        const QByteArray json = ExportSettings(p, stampedImage(44), SettingsFormat::Json, "x");
        const QByteArray csv = ExportSettings(p, stampedImage(44), SettingsFormat::Csv, "x");
        // Rows of the worked table stand on lines 7..10 of the JSON and 8..11 of the CSV.
        auto edit = [](QByteArray b, const char *from, const char *to) { return b.replace(from, to); };
        QTest::newRow("out of range") << edit(json, "\"value\": \"0\", \"unit\": \"\", \"stored\": \"0\"}",
                                              "\"value\": \"6001\", \"unit\": \"\", \"stored\": \"\"}")
                                      << 7 << "row 'Motor/Rated speed': 设置超出范围，有效范围：0-6000";
        QTest::newRow("not a label") << edit(json, "\"Forward\"", "\"Sideways\"") << 8 << "row 'Motor/Direction': 'Sideways' is not one of: Forward, Reverse";
        QTest::newRow("not a number") << edit(csv, ",Current,0.00,", ",Current,12a,") << 11 << "row 'Limit/Current': '12a' is not a number";
        QTest::newRow("unknown row") << edit(csv, ",Brake,", ",Clutch,") << 10 << "unknown row 'Motor/Clutch'";
        QTest::newRow("duplicate row") << edit(csv, "2,Motor,Direction", "1,Motor,Rated speed") << 9 << "row 'Motor/Rated speed' again (first on line 8)";
        QTest::newRow("json cut short") << json.left(json.size() - 20) << 10 << "the file ends too soon (cut short?)";
        QTest::newRow("csv cut short") << csv.left(csv.lastIndexOf("4,Limit")) << 0 << "row 'Limit/Current' is missing (cut short?)";
        QTest::newRow("csv cut mid-line") << csv.left(csv.lastIndexOf(",0.00")) << 11 << "3 fields, a row has 6 (cut short?)";
        QStringEncoder gbk("GBK");
        QTest::newRow("GBK") << edit(csv, ",Motor,Brake,", QByteArray(",Motor,") + QByteArray(gbk.encode(QString("刹车"))) + ",")
                             << 10 << "not UTF-8 text (saved in another encoding?)";
        QTest::newRow("UTF-16") << QByteArray("\xFF\xFE{\0", 4) << 1 << "UTF-16 text: settings files are UTF-8";
        QTest::newRow("other table") << edit(json, "\"blockSize\": 44", "\"blockSize\": 256") << 0
                                     << "the file is for another table: its block has 256 bytes, this table's 44";
        QTest::newRow("empty") << QByteArray("\n \n") << 0 << "the file is empty";
        QTest::newRow("no settings file") << QByteArray("a,b,c\n1,2,3\n") << 1 << "not a settings file (the first line is not 'pyrolink-settings,1')";
    }

    void refused()
    {
        QFETCH(QByteArray, file);
        Params p;
        QVERIFY(loadSettings(p, PYRO_TEST_DATA "/params/worked.For"));
        const QByteArray base = stampedImage(44, 7);
        QByteArray block = base;
        ImportDiag diag;
        QVERIFY(!ImportSettings(p, file, base, block, diag));
        QCOMPARE(block, base);
        QTEST(diag.line, "line");
        QTEST(diag.reason, "reason");
    }

    // A table whose meaning changed (a range, a place) is another table, even
    // at the same block size; a changed colour is not.
    void tableIdentity()
    {
        Params a, b, c;
        QVERIFY(loadSettings(a, PYRO_TEST_DATA "/params/worked.For"));
        QStringList lines = QString::fromLatin1(workedTable()).split("\r\n", Qt::SkipEmptyParts);
        QStringList recoloured = lines, moved = lines;
        recoloured[4].replace("16777215", "255");
        moved[3].replace("<0||6000", "<0||7000");
        QVERIFY(loadSettings(b, writeTable(dir, "Recoloured.For", recoloured)));
        QVERIFY(loadSettings(c, writeTable(dir, "Moved.For", moved)));
        QCOMPARE(IdentifyTable(b).layout, IdentifyTable(a).layout);
        QVERIFY(IdentifyTable(c).layout != IdentifyTable(a).layout);
        QByteArray out;
        ImportDiag diag;
        QVERIFY(!ImportSettings(c, ExportSettings(a, stampedImage(44), SettingsFormat::Csv, "x"), {}, out, diag));
        QVERIFY(diag.reason.startsWith("the file is for another table: its rows differ"));
    }

    // Exactly the rows whose stored numbers differ, whatever the grid shows.
    void compare()
    {
        Params p;
        QVERIFY(loadSettings(p, writeTable(dir, "Scaled.For", scaledTable())));
        const QByteArray a = scaledBlock();
        QByteArray b = a;
        b[32] = char(201);                    // still shows 67
        putLe32(b, 48, getLe32(b, 48) | 0x10); // Bit 5 on
        b[60] = 0;                            // no row's byte: no row differs
        QStringList differ;
        for (const RowCompare &c : CompareBlocks(p, {a, b, QByteArray()})) {
            if (c.differs)
                differ << c.row.caption;
            QVERIFY(!c.values[2].hasShown && c.values[2].stored.isEmpty());
        }
        QCOMPARE(differ, (QStringList{"Byte /3", "Bit 5"}));
    }

    // Defaults: first choices and low ends, in a good block.
    void defaults()
    {
        Params p;
        QVERIFY(loadSettings(p, PYRO_DATA_DIR "/Config.For"));
        const QByteArray d = DefaultsBlock(p);
        QVERIFY(GoodBlock(p, d));
        for (const SettingRow &s : SettingRows(p)) {
            const SettingValue v = ValueAt(p, s, d);
            const QStringList pieces = SplitList(p.SetRows[s.row].Labels);
            QVERIFY2(v.hasShown, qPrintable(s.caption));
            if (s.isList)
                QCOMPARE(v.shown, pieces[0].trimmed());
            else
                QCOMPARE(LeadingNumber(v.shown), LeadingNumber(pieces[0]));
        }
    }

    // The block of an item, read and written by its path; only the block changes.
    void itemStore()
    {
        DbFixture fx;
        const QString db = fx.fresh();
        fx.addTop();
        fx.addTop();
        fx.select(3);
        BeginRename(fx.db);
        QCOMPARE(RenameNode(fx.db, "Board 3"), 0);
        QByteArray block = stampedImage(44, 9), back;
        QString error;
        QVERIFY(!ReadItemSettings(db, "Nothing", "", 44, &back, &error));
        QCOMPARE(error, QString("no item 'Nothing' in %1").arg(db));
        QVERIFY2(WriteItemSettings(db, "Board 3", "", block, &error), qPrintable(error));
        QVERIFY(ReadItemSettings(db, "Board 3", "", 44, &back, &error));
        QCOMPARE(back, block);
        QVERIFY(ReadItemSettingsByKey(db, NodeKeyText(3), 44, &back, &error));
        QCOMPARE(back, block);
        QVERIFY(CheckDb(db).isEmpty());
    }

    // Undo and redo take back the image, the cell and its mark, and hold
    // only until the working copy is replaced.
    void undo()
    {
        Params p;
        QVERIFY(loadSettings(p, PYRO_TEST_DATA "/params/worked.For"));
        p.SetImage = stampedImage(44) + QByteArray(1, '\0');
        DecodeBlock(p.MSFG[0], p.SetImage, p.SetRows, p.Tables[0], nullptr);
        View v;
        GridEdit e;
        GridUndo u;
        const QByteArray original = p.SetImage;
        auto type = [&](int row, const QString &text) {
            p.MSFG[0].setCurrentCell(row, kValueCol);
            MSFGDblClick(e, p, 0, CellPlace{QRect(0, 0, 9000, 6000), QRect(0, 330 * row, 2400, 330)});
            const UndoMark m = UndoBegin(p, e);
            InPutTxtKeyPress(e, p, v, nullptr, 13, text);
            UndoCommit(u, p, e, m);
        };
        type(1, "1500");
        const QByteArray once = p.SetImage;
        type(4, "20.5");
        type(4, "99");                        // out of range: refused, no step
        QCOMPARE(u.done.size(), 2);
        QCOMPARE(p.MSFG[0].cell(4, kValueCol).fore, kEditedFore);

        QVERIFY(Undo(u, p, v, e));
        QCOMPARE(p.SetImage, once);
        QCOMPARE(p.MSFG[0].text(4, kValueCol), QString("0.00"));
        QCOMPARE(p.MSFG[0].cell(4, kValueCol).fore, kPlainFore);
        QVERIFY(Undo(u, p, v, e));
        QCOMPARE(p.SetImage, original);
        QVERIFY(!Undo(u, p, v, e));
        QVERIFY(Redo(u, p, v, e));
        QCOMPARE(p.SetImage, once);
        QCOMPARE(p.MSFG[0].text(1, kValueCol), QString("1500"));
        QCOMPARE(p.MSFG[0].cell(1, kValueCol).fore, kEditedFore);

        // A click on a list entry is a step too, and a new step drops what
        // was undone.
        QVERIFY(CanRedo(u, p));
        p.MSFG[0].setCurrentCell(2, kValueCol);
        MSFGDblClick(e, p, 0, CellPlace{QRect(0, 0, 9000, 6000), QRect(0, 660, 2400, 330)});
        const UndoMark m = UndoBegin(p, e);
        MSFGListClick(e, p, v, nullptr, 1);
        UndoCommit(u, p, e, m);
        QVERIFY(!CanRedo(u, p));
        QCOMPARE(u.done.size(), 2);
        QCOMPARE(p.MSFG[0].text(2, kValueCol), QString("Reverse"));
        QVERIFY(Undo(u, p, v, e));
        QCOMPARE(p.MSFG[0].text(2, kValueCol), QString("Forward"));
        QCOMPARE(p.SetImage, once);

        // A read, an update, a save, an item load or a paste counts up the loads.
        ++p.SetImageLoads;
        QVERIFY(!CanUndo(u, p));
        QVERIFY(!CanRedo(u, p));
        QVERIFY(!Undo(u, p, v, e));
    }

    // The probe: the board among a silent peer and a babbling one, a port
    // that doesn't open; every line ends within its polls.
    void probe()
    {
        SimBoard board;
        FakePort *boardPort = nullptr, *babbler = nullptr;
        int made = 0;
        PortProbe probe;
        StartProbe(probe, {"/dev/board", "/dev/silent", "/dev/babble", "/dev/none"}, QString(), PortSettings(), [&] {
            auto port = std::make_unique<FakePort>();
            switch (made++) {
            case 0: boardPort = port.get(); attachSim(*port, board); break;
            case 2: babbler = port.get(); break;
            case 3: port->refusedNames.insert("/dev/none"); break;
            default: break;
            }
            return port;
        });
        QVERIFY(boardPort && babbler);
        int ticks = 0;
        for (; !ProbeDone(probe) && ticks < 1000; ++ticks) {
            for (auto &l : probe.lines)
                if (auto *f = dynamic_cast<FakePort *>(l->port.get()); f && f->isOpen())
                    f->pump();
            simTick(board);
            if (babbler->isOpen())
                babbler->deliver(QByteArray("\x01\xF0\x02\x55\xAA\x13", 6).repeated(3));
            ProbeTick(probe);
        }
        QVERIFY(ProbeDone(probe));
        QVERIFY(ticks < 3 * 25);
        QCOMPARE(probe.lines[0]->answer, ProbeAnswer::Run);
        QCOMPARE(probe.lines[1]->answer, ProbeAnswer::Silent);
        QCOMPARE(probe.lines[2]->answer, ProbeAnswer::NoBoard);
        QCOMPARE(probe.lines[3]->answer, ProbeAnswer::NotOpened);
        for (auto &l : probe.lines)
            QVERIFY(!l->port || !l->port->isOpen());
        QCOMPARE(AnsweringFirst({"/dev/none", "/dev/silent", "/dev/board"}, probe),
                 (QStringList{"/dev/board", "/dev/none", "/dev/silent"}));
    }
};

QTEST_GUILESS_MAIN(TstService)
#include "tst_service.moc"
