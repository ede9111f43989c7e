#include "bitinfform.h"
#include "gridedit.h"
#include "paramtest.h"
#include "strip.h"

#include <QtTest>

using namespace pyro;

namespace {

// A word in 0..100, a byte chosen from two names, bit 3 of a long, a spacer.
const QStringList kTable{
    "40\\/44", kCols, kCaption,
    rowLine("Motor", "Speed", paramCell(33, 2, 0, 0, 0, 0, 1, "0||100")),
    rowLine("Motor", "Direction", paramCell(35, 1, 0, 0, 1, 0, 1, "Forward||Reverse", "0||1")),
    rowLine("Motor", "Brake", paramCell(37, 4, 0, 3, 1, 0, 1, "Off||On", "0||1")),
    QStringList{plainCell("0", 4), plainCell("Spare"), plainCell(""), plainCell("")}.join("\\/"),
    // Three names for two stored numbers: the table author's slip.
    rowLine("Motor", "Mode", paramCell(43, 1, 0, 0, 1, 0, 1, "A||B||C", "0||1")),
    "End"};
constexpr int kSpeed = 1, kDirection = 2, kBrake = 3, kSpacer = 4, kMode = 5;

const QRect kGrid{45, 3240, 12540, 6405};
constexpr int kCellLeft = 600 + 2000 + 4000;

struct EditBench {
    Params p;
    View view;
    ScriptedPrompter prompter;
    GridEdit e;

    EditBench()
    {
        LoadProtocolTableData(p.MSFG[0], tableBytes(kTable), p.SetRows, p.Tables[0]);
        p.SetImage = QByteArray(45, '\0');
        putLe16(p.SetImage, 32, 50);
        putLe32(p.SetImage, 36, 0x11);   // bit 3 clear, its neighbours set
        DecodeBlock(p.MSFG[0], p.SetImage, p.SetRows, p.Tables[0], &prompter);
        prompter.shown.clear();          // the slip of the last row
    }
    // A double click on (row, col) of grid 'index' with the row scrolled to cellTop.
    void open(int row, int col = kValueCol, int index = 0, int cellTop = -1)
    {
        p.MSFG[0].setCurrentCell(row, col);
        const int top = cellTop >= 0 ? cellTop : 360 + (row - 1) * 330;
        MSFGDblClick(e, p, index, {kGrid, QRect(kCellLeft, top, 2400, 330)});
    }
    bool key(int ascii, const QString &boxText = {})
    {
        return InPutTxtKeyPress(e, p, view, &prompter, ascii, boxText);
    }
    bool enter(const QString &text) { return key(13, text); }
    QString cell(int row) const { return p.MSFG[0].text(row, kValueCol); }
    QRgb fore(int row) const { return p.MSFG[0].cell(row, kValueCol).fore; }
};

} // namespace

class TstEdit : public QObject {
    Q_OBJECT
private slots:
    // --- opening an editor -------------------------------------------------

    void open_data()
    {
        QTest::addColumn<int>("index");
        QTest::addColumn<int>("row");
        QTest::addColumn<int>("col");
        QTest::addColumn<int>("kind");
        QTest::addColumn<QStringList>("items");
        QTest::addColumn<QString>("cell");    // the cell's text before the click; empty: as decoded
        QTest::addColumn<int>("marked");      // the list entry marked as the cell's
        QTest::newRow("display grid") << 1 << kSpeed << 3 << int(EditorKind::None) << QStringList() << "" << -1;
        QTest::newRow("caption row") << 0 << 0 << 3 << int(EditorKind::None) << QStringList() << "" << -1;
        QTest::newRow("name column") << 0 << kSpeed << 2 << int(EditorKind::None) << QStringList() << "" << -1;
        QTest::newRow("number") << 0 << kSpeed << 3 << int(EditorKind::Number) << QStringList() << "" << -1;
        QTest::newRow("list") << 0 << kDirection << 3 << int(EditorKind::List) << QStringList{"Forward", "Reverse"} << "" << 0;
        QTest::newRow("list, cell with trailing blanks") << 0 << kDirection << 3 << int(EditorKind::List)
                                                         << QStringList{"Forward", "Reverse"} << "Reverse  " << 1;
        QTest::newRow("bit row") << 0 << kBrake << 3 << int(EditorKind::List) << QStringList{"Off", "On"} << "" << 0;
        QTest::newRow("spacer") << 0 << kSpacer << 3 << int(EditorKind::Number) << QStringList() << "" << -1;
    }
    void open()
    {
        QFETCH(int, index);
        QFETCH(int, row);
        QFETCH(int, col);
        QFETCH(int, kind);
        QFETCH(QStringList, items);
        QFETCH(QString, cell);
        EditBench b;
        if (!cell.isEmpty())
            b.p.MSFG[0].setText(row, col, cell);
        QCOMPARE(int(EditorFor(b.p, index, row, col)), kind);
        b.open(row, col, index);
        QCOMPARE(b.e.InPutTxt.visible, kind == int(EditorKind::Number));
        QCOMPARE(b.e.MSFGList.visible, kind == int(EditorKind::List));
        if (kind == int(EditorKind::None)) {
            QCOMPARE(b.e.EditRow, int16_t(0));
            return;
        }
        QCOMPARE(b.e.EditRow, int16_t(row));
        // The box lies over the cell, on the window, whichever editor shows.
        QCOMPARE(b.e.InPutTxt.rect, QRect(45 + kCellLeft, 3240 + 360 + (row - 1) * 330, 2400, 330));
        QCOMPARE(b.e.InPutTxt.text, b.cell(row));
        QCOMPARE(b.e.focus, kind == int(EditorKind::Number) ? EditFocus::InPutTxt : EditFocus::None);
        QCOMPARE(b.e.MSFGList.items, items);
        if (!items.isEmpty()) {
            QTEST(b.e.MSFGList.selected, "marked");
            QCOMPARE(b.e.MSFGList.back, qRgb(150, 100, 100));
        }
    }

    void listOpensByRoom_data()
    {
        QTest::addColumn<int>("cellTop");
        QTest::addColumn<bool>("down");
        // Two entries of 330 and the overlap: 680 high. The room is the
        // grid's height less the box's top: 6405 - (3240 + cellTop).
        QTest::newRow("near the top") << 360 << true;
        QTest::newRow("exactly fits") << 2485 << true;
        QTest::newRow("one short") << 2486 << false;
        QTest::newRow("bottom of the grid") << 6000 << false;
    }
    void listOpensByRoom()
    {
        QFETCH(int, cellTop);
        QFETCH(bool, down);
        EditBench b;
        b.open(kDirection, kValueCol, 0, cellTop);
        const int boxTop = 3240 + cellTop;
        const int top = down ? boxTop + 330 - 20 : boxTop - 680 + 20;
        QCOMPARE(b.e.MSFGList.rect, QRect(45 + kCellLeft, top, 2400, 680));
        QCOMPARE(b.e.MSFGList.rowHeight, 330);
    }

    // --- the number box ----------------------------------------------------

    void keyFilter()
    {
        EditBench b;
        b.open(kSpeed);
        for (int k : {8, 46, int('0'), int('5'), int('9')})
            QVERIFY2(b.key(k), qPrintable(QString::number(k)));
        for (int k : {int('-'), int('a'), int('E'), int(' '), 27, 22, int('+'), int(',')})
            QVERIFY2(!b.key(k), qPrintable(QString::number(k)));
        QVERIFY(b.e.InPutTxt.visible);
        QVERIFY(b.prompter.shown.isEmpty());
    }

    void enter_data()
    {
        QTest::addColumn<int>("row");
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("shown");       // message box, "title|text"
        QTest::addColumn<int>("stored");          // word at 32 afterwards
        QTest::addColumn<bool>("accepted");
        const QString range = "提示！|设置超出范围，有效范围：0-100";
        QTest::newRow("in range") << kSpeed << "75" << "" << 75 << true;
        QTest::newRow("upper bound") << kSpeed << "100" << "" << 100 << true;
        QTest::newRow("point rounds") << kSpeed << "7.5" << "" << 8 << true;
        QTest::newRow("above") << kSpeed << "100.5" << range << 50 << false;
        QTest::newRow("far above") << kSpeed << "99999999999" << range << 50 << false;
        QTest::newRow("empty") << kSpeed << "" << "" << 50 << false;
        QTest::newRow("two points") << kSpeed << "1.2.3" << "" << 50 << false;
        QTest::newRow("letters pasted") << kSpeed << "abc" << "" << 50 << false;
        QTest::newRow("lone minus") << kSpeed << "-" << "" << 50 << false;
        QTest::newRow("no range") << kSpacer << "5" << "警告！|解析协议错误！" << 50 << false;
    }
    void enter()
    {
        QFETCH(int, row);
        QFETCH(QString, typed);
        QFETCH(QString, shown);
        QFETCH(int, stored);
        QFETCH(bool, accepted);
        EditBench b;
        const QByteArray before = b.p.SetImage;
        const QString cellBefore = b.cell(row);
        b.open(row);
        const quint32 serial = b.e.focusSerial;
        QVERIFY(!b.enter(typed));
        QCOMPARE(b.prompter.shown.join('\n'), shown);
        QCOMPARE(int(int16_t(getLe16(b.p.SetImage, 32))), stored);
        QCOMPARE(b.e.InPutTxt.visible, !accepted);
        QCOMPARE(b.cell(row), accepted ? typed : cellBefore);
        QCOMPARE(b.fore(row), accepted ? qRgb(250, 0, 0) : qRgb(0, 0, 0));
        QCOMPARE(b.view.MenuImgEnabled[4], accepted);
        if (!accepted) {
            // Nothing else in the image moved either.
            QCOMPARE(b.p.SetImage, before);
            // Refused numbers get the box back with the text selected; the
            // table's missing range leaves it as it is.
            QCOMPARE(b.e.focusSerial, row == kSpacer ? serial : serial + 1);
        } else {
            QCOMPARE(b.e.focus, EditFocus::Grid);
        }
    }

    void marks()
    {
        EditBench b;
        b.open(kSpeed);
        b.enter("75");
        QCOMPARE(b.fore(kSpeed), qRgb(250, 0, 0));
        // Reopened and accepted unchanged: black again, the image keeps 75
        // and button 4 stays enabled.
        b.open(kSpeed);
        QCOMPARE(b.e.InPutTxt.text, "75");
        b.enter("75");
        QCOMPARE(b.fore(kSpeed), qRgb(0, 0, 0));
        QCOMPARE(getLe16(b.p.SetImage, 32), 75u);
        QVERIFY(b.view.MenuImgEnabled[4]);
        // The text stays as typed, not reformatted: "075" differs from "75".
        b.open(kSpeed);
        b.enter("075");
        QCOMPARE(b.cell(kSpeed), "075");
        QCOMPARE(b.fore(kSpeed), qRgb(250, 0, 0));
        // Other cells keep their colour.
        QCOMPARE(b.fore(kDirection), qRgb(0, 0, 0));
    }

    void closeWithoutStoring_data()
    {
        QTest::addColumn<int>("row");
        QTest::addColumn<int>("how");            // 0 click, 1 scroll, 2 pointer over the tree
        QTest::addColumn<bool>("boxOpen");
        QTest::addColumn<bool>("listOpen");
        QTest::newRow("box, click") << kSpeed << 0 << false << false;
        QTest::newRow("box, tree") << kSpeed << 2 << false << false;
        QTest::newRow("list, scroll") << kDirection << 1 << false << false;
        QTest::newRow("list, tree") << kDirection << 2 << false << true;
    }
    void closeWithoutStoring()
    {
        QFETCH(int, row);
        QFETCH(int, how);
        QFETCH(bool, boxOpen);
        QFETCH(bool, listOpen);
        EditBench b;
        const QByteArray before = b.p.SetImage;
        b.open(row);
        (how == 0 ? MSFGClick : how == 1 ? MSFGScroll : TreeViewMouseMove)(b.e);
        QCOMPARE(b.e.InPutTxt.visible, boxOpen);
        QCOMPARE(b.e.MSFGList.visible, listOpen);
        // A late Enter or list click on a closed editor changes nothing.
        b.enter("75");
        if (!listOpen)
            MSFGListClick(b.e, b.p, b.view, &b.prompter, 1);
        QCOMPARE(b.p.SetImage, before);
        QCOMPARE(b.fore(row), qRgb(0, 0, 0));
        QVERIFY(!b.view.MenuImgEnabled[4]);
    }

    // --- the list ----------------------------------------------------------

    void listClick_data()
    {
        QTest::addColumn<int>("row");
        QTest::addColumn<int>("entry");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QByteArray>("bytes");   // 34..39 afterwards
        QTest::addColumn<bool>("changed");
        QTest::newRow("byte, other") << kDirection << 1 << "Reverse" << QByteArray::fromHex("01001100 0000") << true;
        QTest::newRow("byte, same") << kDirection << 0 << "Forward" << QByteArray::fromHex("00001100 0000") << false;
        // Bit 3 only: the bits around it stay.
        QTest::newRow("bit, set") << kBrake << 1 << "On" << QByteArray::fromHex("00001500 0000") << true;
        QTest::newRow("bit, as is") << kBrake << 0 << "Off" << QByteArray::fromHex("00001100 0000") << false;
        // The cell shows the choice before the image refuses it.
        QTest::newRow("lists don't pair up") << kMode << 2 << "C" << QByteArray::fromHex("00001100 0000") << true;
        QTest::newRow("below the entries") << kDirection << 2 << "Forward" << QByteArray::fromHex("00001100 0000") << false;
    }
    void listClick()
    {
        QFETCH(int, row);
        QFETCH(int, entry);
        QFETCH(QString, text);
        QFETCH(QByteArray, bytes);
        QFETCH(bool, changed);
        EditBench b;
        b.open(row);
        MSFGListClick(b.e, b.p, b.view, &b.prompter, entry);
        QCOMPARE(b.p.SetImage.mid(34, 6), bytes);
        QCOMPARE(b.cell(row), text);
        QCOMPARE(b.fore(row), changed ? qRgb(250, 0, 0) : qRgb(0, 0, 0));
        QCOMPARE(b.view.MenuImgEnabled[4], changed);
        QCOMPARE(b.e.MSFGList.visible, entry >= b.e.MSFGList.items.size());
        QCOMPARE(b.prompter.shown, row == kMode ? QStringList{"警告！|解析协议表错误，列表和对应值不匹配。"} : QStringList());
        QCOMPARE(b.p.SetImage.at(42), '\0');
    }

    // --- the wheel -----------------------------------------------

    void wheel_data()
    {
        QTest::addColumn<int>("index");
        QTest::addColumn<bool>("focus");
        QTest::addColumn<int>("delta");
        QTest::addColumn<int>("modifiers");
        QTest::addColumn<int>("buttons");
        QTest::addColumn<int>("action");
        const int none = int(WheelAction::None);
        QTest::newRow("notch up") << 0 << true << 120 << 0 << 0 << int(WheelAction::PageUp);
        QTest::newRow("notch down") << 0 << true << -120 << 0 << 0 << int(WheelAction::PageDown);
        QTest::newRow("fast spin") << 0 << true << 240 << 0 << 0 << none;
        QTest::newRow("ctrl") << 0 << true << 120 << int(Qt::ControlModifier) << 0 << none;
        QTest::newRow("shift") << 0 << true << -120 << int(Qt::ShiftModifier) << 0 << none;
        QTest::newRow("button held") << 0 << true << 120 << 0 << int(Qt::LeftButton) << none;
        QTest::newRow("no focus") << 0 << false << 120 << 0 << 0 << none;
        QTest::newRow("display grid") << 1 << true << 120 << 0 << 0 << none;
    }
    void wheel()
    {
        QFETCH(int, index);
        QFETCH(bool, focus);
        QFETCH(int, delta);
        QFETCH(int, modifiers);
        QFETCH(int, buttons);
        QFETCH(int, action);
        QCOMPARE(int(MSFGWheel(index, focus, delta, Qt::KeyboardModifiers(modifiers), Qt::MouseButtons(buttons))),
                 action);
    }

    // --- the image strip ---------------------------------------------------

    void stripFrameAndHints()
    {
        View v;
        ImageStrip s;
        QCOMPARE(Shape2Rect(s), MenuImgRect(0));
        QVERIFY(s.Shape2Visible);
        MenuImgMouseMove(s, v, 2);
        QCOMPARE(s.Shape2Top, 2120);
        QCOMPARE(v.SB[3], "设置下载到控制器");
        MenuImgMouseDown(s, v, 2);
        QCOMPARE(s.Shape2BorderWidth, 2);
        // Disabled button 4: no mark, no hint, no press.
        MenuImgMouseMove(s, v, 4);
        MenuImgMouseDown(s, v, 4);
        QCOMPARE(s.Shape2Top, 2120);
        QCOMPARE(v.SB[3], "设置下载到控制器");
        for (int i = 0; i < kMenuImgCount; ++i) {
            MenuImgMouseMove(s, v, i);
            if (i != 4)
                QCOMPARE(v.SB[3], kMenuImg[i].toolTip);
        }
        QCOMPARE(s.Shape2Top, 6120);
    }

    void stripActions_data()
    {
        QTest::addColumn<int>("button");
        QTest::addColumn<int>("request");
        QTest::addColumn<int>("front");
        QTest::newRow("read") << 1 << 3 << 0;
        QTest::newRow("update") << 2 << 4 << 0;
        QTest::newRow("save") << 3 << 5 << 0;
        QTest::newRow("watch") << 5 << 7 << 1;
        QTest::newRow("information") << 6 << 6 << 1;     // leaves the grids as they are
        QTest::newRow("erase, port closed") << 0 << 0 << 1;
        QTest::newRow("store, disabled") << 4 << 0 << 1;
    }
    void stripActions()
    {
        QFETCH(int, button);
        QFETCH(int, request);
        QFETCH(int, front);
        Link l;
        Params p;
        ParamOps ops;
        InstallParamOps(l, p, ops);
        l.view.frontGrid = 1;
        ImageStrip s;
        bool saved = false;
        s.saveItem = [&] { return saved = true; };
        // Pressed on the button, released wherever, with any mouse button:
        // the release reports the button pressed.
        MenuImgMouseDown(s, l.view, button);
        MenuImgMouseUp(s, ops, button);
        QCOMPARE(int(l.ModeRequest), request);
        QCOMPARE(l.view.frontGrid, front);
        QCOMPARE(s.Shape2BorderWidth, 1);
        QCOMPARE(l.view.SB[1], button == 0 ? "请先打开串口！" : "串口未打开");
        QVERIFY(!saved);
        QVERIFY(s.Shape2Visible);
    }

    void stripStore_data()
    {
        QTest::addColumn<bool>("yes");
        QTest::newRow("yes hides the frame") << true;
        QTest::newRow("no keeps it") << false;
    }
    void stripStore()
    {
        QFETCH(bool, yes);
        Link l;
        Params p;
        ParamOps ops;
        InstallParamOps(l, p, ops);
        l.view.MenuImgEnabled[4] = true;
        ImageStrip s;
        int runs = 0;
        s.saveItem = [&] { ++runs; return yes; };
        MenuImgMouseMove(s, l.view, 4);
        QCOMPARE(s.Shape2Top, 4080);
        MenuImgMouseDown(s, l.view, 4);
        MenuImgMouseUp(s, ops, 4);
        QCOMPARE(runs, 1);
        QCOMPARE(s.Shape2Visible, !yes);
        QVERIFY(!l.view.MenuImgEnabled[4]);
        QCOMPARE(int(l.ModeRequest), 0);
        // Disabled now: a second release does nothing; a move elsewhere
        // brings the frame back.
        MenuImgMouseUp(s, ops, 4);
        QCOMPARE(runs, 1);
        MenuImgMouseMove(s, l.view, 3);
        QVERIFY(s.Shape2Visible);
    }

    // --- BitInfForm --------------------------------------------------------

    void bitInfForm_data()
    {
        QTest::addColumn<QStringList>("changes");   // Text1(3) after each key or paste
        QTest::addColumn<QString>("remark");
        const QString stamp = "R2611-07  ";
        QTest::newRow("typed") << QStringList{"v", "vk", "vkr", "vkrt", "vkrtq"} << stamp;
        QTest::newRow("pasted") << QStringList{"vkrtq"} << stamp;
        QTest::newRow("upper case") << QStringList{"VKRTQ"} << "VKRTQ";
        QTest::newRow("inside a longer text") << QStringList{"xvkrtq"} << "xvkrtq";
        QTest::newRow("with a blank") << QStringList{"vkrtq "} << "vkrtq ";
    }
    void bitInfForm()
    {
        QFETCH(QStringList, changes);
        QFETCH(QString, remark);
        BitInfRec rec;
        rec.DeviceId = 513;
        rec.OrderId = QString("PO-77").leftJustified(30);
        rec.DateUpdated = "261123";
        rec.RemarkStamp = "R2611-07  ";
        BitInfFormState s = BitInfFormLoad(rec);
        QCOMPARE(s.Text1, (std::array<QString, 4>{"513", rec.OrderId, "261123", QString()}));
        bool replaced = false;
        for (const QString &t : changes)
            replaced = Text1Change(s, 3, t);
        QCOMPARE(s.Text1[3], remark);
        QCOMPARE(replaced, remark == rec.RemarkStamp);
        // The window writes the stamp back, which raises the change again.
        QVERIFY(!Text1Change(s, 3, s.Text1[3]));
        QCOMPARE(s.Text1[3], remark);
        QCOMPARE(s.Text1[1], rec.OrderId);
    }
};

QTEST_GUILESS_MAIN(TstEdit)
#include "tst_edit.moc"
