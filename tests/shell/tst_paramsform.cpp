// The window's parameter side and project items: the in-cell editors, the
// image strip, the wheel, the information window, a node click and the save
// button, the about box and the manual; then read, edit, update, save, read
// back and erase against the simulated board on a pseudo-terminal.
#include "help.h"
#include "items.h"
#include "shellbench.h"
#include "simprocess.h"

#include <QApplication>
#include <QComboBox>
#include <QDialog>
#include <QPushButton>
#include <QLineEdit>
#include <QScrollBar>
#include <QTimer>
#include <QTableView>
#include <QTreeView>
#include <QWheelEvent>

namespace {

// The grid row whose name column reads name.
int rowOf(const GridModel &m, const QString &name)
{
    for (int r = 1; r < m.rows(); ++r) {
        if (m.text(r, 2) == name)
            return r;
    }
    return -1;
}

QRect onCanvas(QTableView *grid, int row, int col)
{
    const QRect cell = grid->visualRect(grid->model()->index(row, col));
    return cell.translated(grid->viewport()->geometry().topLeft() + grid->geometry().topLeft());
}

void dblClickCell(QTableView *grid, int row, int col)
{
    // A double click as the mouse gives it: a click, then the second press.
    const QRect cell = grid->visualRect(grid->model()->index(row, col));
    QTest::mouseClick(grid->viewport(), Qt::LeftButton, {}, cell.center());
    QTest::mouseDClick(grid->viewport(), Qt::LeftButton, {}, cell.center());
}

void hover(QWidget *w)
{
    QMouseEvent e(QEvent::MouseMove, QPointF(5, 5), w->mapToGlobal(QPointF(5, 5)), Qt::NoButton, Qt::NoButton, {});
    QApplication::sendEvent(w, &e);
}

void wheel(QWidget *w, int delta, Qt::KeyboardModifiers mods = {})
{
    QWheelEvent e(QPointF(10, 10), w->mapToGlobal(QPointF(10, 10)), {}, QPoint(0, delta), Qt::NoButton, mods,
                  Qt::NoScrollPhase, false);
    QApplication::sendEvent(w, &e);
    QCoreApplication::processEvents();
}

} // namespace

class TstParamsForm : public QObject {
    Q_OBJECT
private slots:
    void numberAndListEditors()
    {
        Bench b;
        ViewForm &f = b.start();
        f.setFullView(true);
        auto *grid = b.w<QTableView>("MSFG(0)");
        auto *box = b.w<QLineEdit>("InPutTxt(0)");
        auto *list = b.w<QTableView>("MSFGList");
        const GridModel &m = f.params.MSFG[0];

        const int volts = rowOf(m, QStringLiteral("额定电压(V)"));
        QVERIFY(volts > 0);
        dblClickCell(grid, volts, 3);
        QVERIFY(box->isVisible());
        QVERIFY(box->geometry().intersects(onCanvas(grid, volts, 3)));
        // Centred, in 宋体 10.5 pt or the CJK face that stands in for it.
        QCOMPARE(box->alignment(), Qt::AlignCenter);
        QCOMPARE(box->font().pointSizeF(), 10.5);
        QVERIFY(box->font().families().contains(QStringLiteral("SimSun")));
        QVERIFY(box->font().families().contains(QStringLiteral("WenQuanYi Micro Hei")));
        const QByteArray before = f.params.SetImage;
        QTest::keyClicks(box, "5x00");   // the letter is filtered out
        QCOMPARE(box->text(), QStringLiteral("500"));
        QTest::keyClick(box, Qt::Key_Return);
        QVERIFY(b.prompter.shown.last().startsWith(QStringLiteral("提示！|设置超出范围，有效范围：12")));
        QCOMPARE(f.params.SetImage, before);
        QVERIFY(!f.control("MenuImg(4)")->isEnabled());

        box->selectAll();
        QTest::keyClicks(box, "220");
        QTest::keyClick(box, Qt::Key_Return);
        QVERIFY(!box->isVisible());
        QCOMPARE(m.text(volts, 3), QStringLiteral("220"));
        QCOMPARE(m.cell(volts, 3).fore, kEditedFore);
        QVERIFY(f.params.SetImage != before);
        QVERIFY(f.control("MenuImg(4)")->isEnabled());

        // A list row near the top opens downward, one near the bottom upward.
        const int kind = rowOf(m, QStringLiteral("电机类型"));
        dblClickCell(grid, kind, 3);
        QVERIFY(list->isVisible());
        QVERIFY(list->geometry().top() >= onCanvas(grid, kind, 3).top());
        const QString second = list->model()->index(1, 0).data().toString();
        QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, list->visualRect(list->model()->index(1, 0)).center());
        QVERIFY(!list->isVisible());
        QCOMPARE(m.text(kind, 3), second);

        const int feedback = rowOf(m, QStringLiteral("位置反馈"));
        dblClickCell(grid, feedback, 3);
        QVERIFY(list->isVisible());
        QVERIFY(list->geometry().bottom() <= onCanvas(grid, feedback, 3).bottom() + 2);
        // A click on the grid closes it without storing.
        QTest::mouseClick(grid->viewport(), Qt::LeftButton, {}, grid->visualRect(m.index(1, 1)).center());
        QVERIFY(!list->isVisible());
    }

    void stripAndWheel()
    {
        Bench b;
        ViewForm &f = b.start();
        f.setFullView(true);
        QWidget *mark = f.control("Shape2");
        QCOMPARE(mark->geometry().top(), f.control("MenuImg(0)")->geometry().top());
        hover(f.control("MenuImg(5)"));
        QCOMPARE(mark->geometry().top(), f.control("MenuImg(5)")->geometry().top());
        QCOMPARE(b.panel(3), QStringLiteral("显示运行参数"));
        // Disabled button 4 gives no mark and no hint.
        hover(f.control("MenuImg(4)"));
        QCOMPARE(mark->geometry().top(), f.control("MenuImg(5)")->geometry().top());
        QCOMPARE(b.panel(3), QStringLiteral("显示运行参数"));

        // The right button, released off the picture, still runs the action.
        QTest::mousePress(f.control("MenuImg(5)"), Qt::RightButton);
        QCOMPARE(f.strip.Shape2BorderWidth, 2);
        QTest::mouseRelease(f.control("MenuImg(5)"), Qt::RightButton, {}, QPoint(-200, -200));
        QCOMPARE(f.strip.Shape2BorderWidth, 1);
        QCOMPARE(int(f.link.ModeRequest), 7);
        QCOMPARE(f.link.view.frontGrid, 1);

        // The wheel: one notch on the settings grid with the focus pages it.
        QTest::mouseClick(f.control("MenuImg(1)"), Qt::LeftButton);
        QCOMPARE(f.link.view.frontGrid, 0);
        auto *grid = b.w<QTableView>("MSFG(0)");
        grid->setFocus();
        QTRY_VERIFY(grid->hasFocus());
        QScrollBar *bar = grid->verticalScrollBar();
        const struct { int delta; Qt::KeyboardModifiers mods; bool moves; } cases[] = {
            {-240, {}, false}, {-120, Qt::ControlModifier, false}, {-120, {}, true}};
        for (const auto &c : cases) {
            const int at = bar->value();
            wheel(grid->viewport(), c.delta, c.mods);
            QCOMPARE(bar->value() > at, c.moves);
        }
        auto *display = b.w<QTableView>("MSFG(1)");
        const int at = display->verticalScrollBar()->value();
        wheel(display->viewport(), -120);
        QCOMPARE(display->verticalScrollBar()->value(), at);
    }

    void serviceCode_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<bool>("paste");
        QTest::addColumn<QString>("shown");
        QTest::newRow("typed") << "vkrtq" << false << "STAMP-0042";
        QTest::newRow("pasted") << "vkrtq" << true << "STAMP-0042";
        QTest::newRow("upper case") << "VKRTQ" << false << "VKRTQ";
    }
    void serviceCode()
    {
        QFETCH(QString, typed);
        QFETCH(bool, paste);
        QFETCH(QString, shown);
        Bench b;
        ViewForm &f = b.start();
        BitInfRec rec;
        rec.DeviceId = -1;
        rec.OrderId = QStringLiteral("K700");
        rec.RemarkStamp = QStringLiteral("STAMP-0042");
        std::unique_ptr<QDialog> form = f.makeBitInfForm(rec);
        QCOMPARE(form->windowTitle(), QStringLiteral("Version Information"));
        QCOMPARE(form->findChild<QLineEdit *>("Text1(1)")->text(), QStringLiteral("K700"));
        auto *remark = form->findChild<QLineEdit *>("Text1(3)");
        QVERIFY(remark->text().isEmpty());
        if (paste)
            remark->insert(typed);
        else
            QTest::keyClicks(remark, typed);
        QCOMPARE(remark->text(), shown);
    }

    void itemsAboutAndManual()
    {
        Bench b;
        ViewForm &f = b.start();
        f.setFullView(true);
        auto *tree = b.w<QTreeView>("TreeView");
        tree->expandAll();
        QStandardItem *leaf = f.db.tree.model->findItems(QStringLiteral("客户A 电动叉车"), Qt::MatchRecursive).value(0);
        QVERIFY(leaf);
        QTest::mouseClick(tree->viewport(), Qt::LeftButton, {}, tree->visualRect(leaf->index()).center());
        QCOMPARE(b.panel(2), QStringLiteral("成功获取保存数据"));
        QVERIFY(!f.params.MSFG[0].text(1, 3).isEmpty());

        // A key in a note box enables the save button; the save disables it.
        QVERIFY(!f.control("MenuImg(4)")->isEnabled());
        QTest::keyClick(f.control("NotesTxt(6)"), Qt::Key_A);
        QVERIFY(f.control("MenuImg(4)")->isEnabled());
        QTest::mouseClick(f.control("MenuImg(4)"), Qt::LeftButton);
        QCOMPARE(b.panel(2), kStAllSaved);
        QVERIFY(!f.control("MenuImg(4)")->isEnabled());
        QVERIFY(!f.control("Shape2")->isVisible());

        std::unique_ptr<QDialog> about = f.makeAbout();
        QCOMPARE(about->windowTitle(), QStringLiteral("About Pyrolink"));
        QCOMPARE(about->findChild<QLabel *>("lblVersion")->text(), QStringLiteral("Bite 1.0.0"));
        about->show();
        QTest::keyClick(about.get(), Qt::Key_Escape);
        QVERIFY(!about->isVisible());

        f.menuAction("PeoHelp")->trigger();
        QCOMPARE(b.prompter.shown.last(), QStringLiteral("Hint|Documentation is missing!"));
    }

    void settingsAgainstTheBoard()
    {
        SimProcess sim;
        QVERIFY(sim.start());
        Bench b;
        ViewForm &f = b.start();
        f.setFullView(true);
        b.w<QComboBox>("ComboSet(0)")->setEditText(sim.path);
        QTest::mouseClick(f.control("Command2"), Qt::LeftButton);
        QTRY_COMPARE(b.panel(1), QStringLiteral("Link normal-run mode"));
        auto strip = [&](int i, const QString &done) {
            b.form->link.view.SB[2].clear();
            QTest::mouseClick(f.control(QStringLiteral("MenuImg(%1)").arg(i)), Qt::LeftButton);
            QTRY_COMPARE_WITH_TIMEOUT(b.panel(2), done, 10000);
        };
        strip(1, "Successful reading data set");
        const GridModel &m = f.params.MSFG[0];
        const int volts = rowOf(m, QStringLiteral("额定电压(V)"));
        const QString factory = m.text(volts, 3);

        dblClickCell(b.w<QTableView>("MSFG(0)"), volts, 3);
        auto *box = b.w<QLineEdit>("InPutTxt(0)");
        box->selectAll();
        QTest::keyClicks(box, factory == "48" ? "36" : "48");
        QTest::keyClick(box, Qt::Key_Return);
        const QString edited = m.text(volts, 3);
        QVERIFY(edited != factory);
        strip(2, "Update the set data successfully");
        strip(3, "Save Settings data successfully");
        strip(1, "Successful reading data set");
        QCOMPARE(m.text(volts, 3), edited);
        strip(0, "Erase the data successfully");
        strip(1, "Successful reading data set");
        QCOMPARE(m.text(volts, 3), factory);

        // The information window, modal inside the tick: for as long as it is
        // open the reply is judged once, and the monitor takes the line back
        // when it closes. A probe inside the window's loop closes it.
        int looks = 0, modeInside = -1;
        qint64 readsInside = -1;
        QTimer probe;
        QObject::connect(&probe, &QTimer::timeout, [&] {
            QWidget *info = QApplication::activeModalWidget();
            if (!info || ++looks < 10)
                return;
            probe.stop();
            modeInside = f.link.LinkMode;
            readsInside = f.ops.infoReads;
            auto *enter = info->findChild<QPushButton *>("Command1");
            if (enter)
                enter->click();
            if (info->isVisible())
                static_cast<QDialog *>(info)->reject();   // never leave the test inside its loop
        });
        probe.start(20);
        QTest::mouseClick(f.control("MenuImg(6)"), Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(modeInside >= 0, 10000);
        QCOMPARE(modeInside, 6);
        QCOMPARE(readsInside, 1);
        QTRY_COMPARE(int(f.link.LinkMode), 0);
        QCOMPARE(f.ops.infoReads, 1);
    }
};

QTEST_MAIN(TstParamsForm)
#include "tst_paramsform.moc"
