// The window: start-up, the two ways out, the fixed size, the burn path by
// clicks against the simulated board on a pseudo-terminal, and the tree.
#include "shellbench.h"
#include "simprocess.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QElapsedTimer>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>
#include <QTreeView>

using namespace pyro;


class TstViewForm : public QObject {
    Q_OBJECT
private slots:
    void startUp()
    {
        Bench b;
        ViewForm &f = b.make();
        // Panel 1 keeps its design text until the first tick.
        QCOMPARE(b.panel(1), QStringLiteral("串口未打开"));
        f.show();
        QVERIFY(b.prompter.shown.isEmpty());
        auto *port = b.w<QComboBox>("ComboSet(0)");
        QCOMPARE(port->count(), 30);
        QCOMPARE(port->currentText(), QStringLiteral("COM4"));
        const QStringList values = {"57600", "None", "8", "1", "512"};
        for (int i = 1; i <= 5; ++i)
            QCOMPARE(b.w<QComboBox>(QStringLiteral("ComboSet(%1)").arg(i))->currentText(), values[i - 1]);
        QCOMPARE(b.w<QPushButton>("Command2")->text(), QStringLiteral("OpenUart"));
        QVERIFY(!b.w("Command4")->isEnabled());
        QVERIFY(!b.w("Check1(0)")->isEnabled());
        QVERIFY(b.w<QCheckBox>("Check1(0)")->isChecked());
        QVERIFY(b.w("Check1(2)")->isHidden());
        QVERIFY(!b.w("MenuImg(4)")->isEnabled());
        QVERIFY(b.w("PersLab")->isHidden());
        QCOMPARE(f.link.MBResult, int16_t(-1));
        QCOMPARE(f.params.SetImage.size(), f.params.Tables[0].BlockSize + 1);
        // The settings grid is in front of the display grid.
        QWidget *canvas = b.w("MSFG(0)")->parentWidget();
        QVERIFY(canvas->children().indexOf(b.w("MSFG(0)")) > canvas->children().indexOf(b.w("MSFG(1)")));
        QVERIFY(f.db.DbOpen);
        QVERIFY(QFileInfo::exists(TwinPath(b.path("Config.MPK"))));
        QTRY_COMPARE(b.panel(1), QStringLiteral("Open port first！"));
        QVERIFY(!b.w("Command3")->isEnabled());
        // The File items that open a database are the design's hidden ones.
        QVERIFY(!f.menuAction("OpenPro")->isVisible());
        QVERIFY(f.menuAction("EndPro")->isVisible());
    }

    void badTablesAndDatabases_data()
    {
        QTest::addColumn<QStringList>("files");
        QTest::addColumn<QByteArray>("config");   // replaces Config.MPK when given
        QTest::addColumn<QStringList>("shown");
        QTest::addColumn<bool>("dbOpen");
        const QString tableError = QStringLiteral("Hint！|Error loading parse the file");
        QTest::newRow("no tables") << QStringList{"Config.MPK"} << QByteArray() << QStringList{tableError, tableError} << true;
        QTest::newRow("bad display table") << QStringList{"Config.For", "Config.MPK"} << QByteArray("x")
                                           << QStringList{tableError, "提示|文件类型不匹配！"} << false;
        QTest::newRow("guarded database") << QStringList{"Config.For", "Display.For", "Config.MPK"} << QByteArray("guard")
                                          << QStringList{"Hint|Login user name or password error!"} << false;
    }
    void badTablesAndDatabases()
    {
        QFETCH(QStringList, files);
        QFETCH(QByteArray, config);
        QFETCH(QStringList, shown);
        QFETCH(bool, dbOpen);
        Bench b(files);
        if (!files.contains("Display.For"))
            writeAll(b.path("Display.For"), "not a table\n");
        if (config == "guard") {
            QByteArray bytes = readAll(b.path("Config.MPK"));
            DbRecord h = DecodeRecord(bytes.left(kRecordSize));
            LoginFlag(h) = 1;
            bytes.replace(0, kRecordSize, EncodeRecord(h));
            writeAll(b.path("Config.MPK"), bytes);
        } else if (!config.isEmpty()) {
            writeAll(b.path("Config.MPK"), QByteArray(kRecordSize * 2, 'x'));
        }
        const QByteArray before = readAll(b.path("Config.MPK"));
        ViewForm &f = b.start();
        QCOMPARE(b.prompter.shown, shown);
        QCOMPARE(f.db.DbOpen, dbOpen);
        QVERIFY(f.isVisible());
        if (!dbOpen)
            QCOMPARE(readAll(b.path("Config.MPK")), before);
        if (!files.contains("Config.For"))
            QCOMPARE(f.params.SetImage.size(), 61);
        if (!files.contains("Display.For"))
            QCOMPARE(f.params.DisplayImage.size(), 73);
    }

    // What a new operator meets before the port is open: the focus on a
    // control in view, no save button to press, no hint from a disabled
    // control, and the File menu as designed.
    void firstMinutes()
    {
        Bench b;
        ViewForm &f = b.start();
        QWidget *focus = QApplication::focusWidget();
        QVERIFY(focus);
        QVERIFY2(b.w("Frame1(0)")->isAncestorOf(focus) || b.w("Frame2")->isAncestorOf(focus), qPrintable(focus->objectName()));
        QTRY_VERIFY(!b.w("Command3")->isEnabled());

        // Hints: a disabled control leaves panel 3 as it was.
        QTest::mouseMove(b.w("Command1"), QPoint(5, 5));
        const QString hint = QStringLiteral("Automatically detects available serial port");
        QCOMPARE(b.panel(3), hint);
        for (const char *id : {"Command3", "Check1(0)"}) {
            QVERIFY(!b.w(id)->isEnabled());
            QTest::mouseMove(b.w(id), QPoint(5, 5));
            QCOMPARE(b.panel(3), hint);
        }

        // "yhghg" stands above "Exit" in the compact view's File menu.
        auto *file = f.findChild<QMenu *>("file_menu");
        file->popup(f.mapToGlobal(QPoint(0, 0)));
        QTRY_VERIFY(file->isVisible());
        const QRect rule = file->actionGeometry(f.menuAction("yhghg"));
        QVERIFY(rule.height() > 0);
        QCOMPARE(rule.bottom() + 1, file->actionGeometry(f.menuAction("EndPro")).top());
        file->hide();

        // F8 from wherever the focus is, twice: the save button stays off,
        // its picture is the enabled one's, and it takes no hover or click.
        for (int i = 0; i < 2; ++i)
            QTest::keyClick(QApplication::focusWidget(), Qt::Key_F8);
        f.setFullView(true);
        b.w("NotesTxt(1)")->setFocus();
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_F8);
        QVERIFY(!f.fullView());
        QTest::keyClick(&f, Qt::Key_F8);
        QWidget *save = b.w("MenuImg(4)");
        QVERIFY(!save->isEnabled());
        QVERIFY(!f.link.view.MenuImgEnabled[4]);
        const QImage off = save->grab().toImage();
        QTest::mouseMove(b.w("MenuImg(3)"), QPoint(5, 5));
        QCOMPARE(b.panel(3), QStringLiteral("设置保存到控制器"));
        const QRect mark = b.w("Shape2")->geometry();
        QTest::mouseMove(save, QPoint(5, 5));
        QTest::mouseClick(save, Qt::LeftButton);
        QCOMPARE(b.panel(3), QStringLiteral("设置保存到控制器"));
        QCOMPARE(b.w("Shape2")->geometry(), mark);
        QVERIFY(b.prompter.shown.isEmpty());
        f.link.view.MenuImgEnabled[4] = true;
        f.refresh();
        QVERIFY(save->isEnabled());
        QCOMPARE(save->grab().toImage(), off);
    }

    void fixedSizeInBothViews()
    {
        Bench b;
        ViewForm &f = b.start();
        // The outer size from the first show, once the frame is known.
        QCOMPARE(f.frameGeometry().size(), f.fixedOuterSize());
        for (bool full : {false, true}) {
            f.setFullView(full);
            const QSize fixed = f.size();
            const QPoint corner = f.pos();
            f.resize(400, 900);
            QCOMPARE(f.size(), fixed);
            QCOMPARE(f.pos(), corner);
            f.showMaximized();
            QTRY_VERIFY(!f.isMaximized());
            QTRY_COMPARE(f.size(), fixed);
            QCOMPARE(f.menuAction("OpenPro")->isVisible(), full);
            QVERIFY(!f.menuAction("SaveSet")->isVisible());
        }
        QVERIFY(f.size().width() > 2 * f.dpi());   // the full design is wider than the compact one
        QTest::keyClick(&f, Qt::Key_F8);
        QVERIFY(!f.fullView());
        QCOMPARE(f.frameGeometry().size(), f.fixedOuterSize());
    }

    void burnByClicks()
    {
        SimProcess sim;
        QVERIFY(sim.start());
        Bench b;
        // A short image keeps the burn to a few seconds.
        writeAll(b.path("small.BIN"), readAll(PYRO_DATA_DIR "/demo-firmware.BIN").left(4096));
        ViewForm &f = b.start();
        auto *port = b.w<QComboBox>("ComboSet(0)");
        port->setEditText(sim.path);
        QTest::mouseClick(b.w("Command2"), Qt::LeftButton);
        QCOMPARE(b.w<QPushButton>("Command2")->text(), QStringLiteral("CloseUart"));
        QTRY_COMPARE(b.panel(1), QStringLiteral("Link normal-run mode"));
        QVERIFY(b.w("Command3")->isEnabled());

        b.prompter.files = {b.path("small.BIN")};
        QTest::mouseClick(b.w("Command3"), Qt::LeftButton);
        QVERIFY(b.log().contains(" File path：" + b.path("small.BIN")));
        QVERIFY(b.log().contains(" File size：4096(Byte)"));
        QTRY_VERIFY(b.w("Command4")->isEnabled());
        QTest::mouseClick(b.w("Command4"), Qt::LeftButton);
        QTRY_COMPARE(b.w<QPushButton>("Command4")->text(), QStringLiteral("Stop"));
        QTRY_VERIFY(b.w("PersLab")->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(b.log().contains(" Has been successfully burning：1 (chip) "), 30000);
        QTRY_COMPARE(b.w<QPushButton>("Command4")->text(), QStringLiteral("Program"));
        QVERIFY(b.log().contains(" Downloading the：1 (chip)"));

        // AutoLoad on, then Stop while it waits for the next chip.
        QTest::mouseClick(b.w("Check1(3)"), Qt::LeftButton);
        QVERIFY(f.link.view.Check1[3]);
        QTest::mouseClick(b.w("Command4"), Qt::LeftButton);
        QTRY_COMPARE(b.w<QPushButton>("Command4")->text(), QStringLiteral("Stop"));
        QTest::mouseClick(b.w("Command4"), Qt::LeftButton);
        QTRY_COMPARE(b.w<QPushButton>("Command4")->text(), QStringLiteral("Program"));

        // The board goes away in the middle of a burn.
        QTest::mouseClick(b.w("Command4"), Qt::LeftButton);
        QTRY_COMPARE(b.w<QPushButton>("Command4")->text(), QStringLiteral("Stop"));
        sim.proc.kill();
        sim.proc.waitForFinished(3000);
        QTRY_COMPARE(b.panel(1), QStringLiteral("Open port first！"));
        QCOMPARE(b.w<QPushButton>("Command2")->text(), QStringLiteral("OpenUart"));
        QCOMPARE(f.link.view.Shape1, qRgb(255, 0, 0));
        QCOMPARE(b.w<QPushButton>("Command4")->text(), QStringLiteral("Program"));
        QVERIFY(!b.w("Command4")->isEnabled());
        QVERIFY(b.log().endsWith(" Cancel program"));
        QCOMPARE(f.link.BurnArmed, int16_t(0));
    }

    // Whatever ends a burn in the window, the chip in hand gets exactly one
    // line in the chip record, with its own identity and its own duration.
    void everyBurnEndingRecordsTheChip_data()
    {
        QTest::addColumn<QString>("action");
        QTest::addColumn<QStringList>("results");
        QTest::newRow("Stop") << "Command4" << QStringList{"stopped"};
        QTest::newRow("CloseUart") << "Command2" << QStringList{"port closed"};
        QTest::newRow("frame length changed") << "ComboSet(5)" << QStringList{"port closed"};
        QTest::newRow("Load File") << "Command3" << QStringList{"cut short"};
        QTest::newRow("AutoDetect") << "Command1" << QStringList{"port closed"};
        QTest::newRow("port lost") << "lost" << QStringList{"port lost"};
        QTest::newRow("close box") << "close" << QStringList{"window closed"};
        QTest::newRow("Exit") << "EndPro" << QStringList{"window closed"};
        // The second burn's line is its own, not the first one's run on.
        QTest::newRow("Program, CloseUart, Program, Stop") << "twice" << QStringList{"port closed", "stopped"};
    }
    void everyBurnEndingRecordsTheChip()
    {
        QFETCH(QString, action);
        QFETCH(QStringList, results);
        const QString firstId = "0123456789ABCDEF01234567", secondId = "A1A2A3A4A5A6A7A8A9AAABAC";
        SimProcess sim;
        QVERIFY(sim.start({"--id", firstId}));
        Bench b;
        writeAll(b.path("small.BIN"), readAll(PYRO_DATA_DIR "/demo-firmware.BIN").left(8192));
        ViewForm &f = b.start();
        b.w<QComboBox>("ComboSet(0)")->setEditText(sim.path);
        // Open, Load File, Program, and on until the chip is begun.
        auto program = [&] {
            QTest::mouseClick(b.w("Command2"), Qt::LeftButton);
            QTRY_VERIFY(b.panel(1).startsWith("Link normal"));
            b.prompter.files = {b.path("small.BIN")};
            QTest::mouseClick(b.w("Command3"), Qt::LeftButton);
            QTRY_VERIFY(b.w("Command4")->isEnabled());
            QTest::mouseClick(b.w("Command4"), Qt::LeftButton);
            QTRY_VERIFY_WITH_TIMEOUT(f.burn.chipLog.active, 10000);
        };
        QElapsedTimer clock;
        clock.start();
        program();
        if (action == "twice") {
            QTest::mouseClick(b.w("Command2"), Qt::LeftButton);
            sim.command("swap " + secondId.toLatin1());
            clock.restart();
            program();
            action = "Command4";
        }
        QVERIFY(f.burn.chipLog.active);
        if (action == "lost")
            sim.command("close");
        else if (action == "close")
            f.close();
        else if (action == "EndPro")
            f.menuAction("EndPro")->trigger();
        else if (action == "ComboSet(5)")
            b.w<QComboBox>(action)->setEditText("256");
        else {
            b.prompter.files = {b.path("small.BIN")};
            QTest::mouseClick(b.w(action), Qt::LeftButton);
        }
        const qint64 lastTook = clock.elapsed();
        const QString csv = QDir(b.dir.filePath("home/ProRecord(K0)")).filePath(ChipLogFileName(QDate::currentDate()));
        QTRY_VERIFY(!f.burn.chipLog.active);
        QTest::qWait(300);   // nothing more comes after the line
        const QStringList lines = QString::fromUtf8(readAll(csv)).split("\r\n", Qt::SkipEmptyParts).mid(1);
        QCOMPARE(lines.size(), results.size());
        for (int i = 0; i < lines.size(); ++i) {
            const QStringList field = lines[i].split(',');
            QCOMPARE(field.value(9), results[i]);
            QCOMPARE(field.value(2), i == 0 ? firstId : secondId);
            QCOMPARE(field.value(1), sim.path);
        }
        // The last line's duration is that chip's own, not the run's.
        QVERIFY(lines.last().split(',').value(7).toDouble() * 1000 <= lastTook + 50);
    }

    void closeWritesRecordExitDoesNot()
    {
        for (bool exit : {false, true}) {
            Bench b;
            ViewForm &f = b.start();
            f.link.view.RTB = "2026-11-23 10:00:00 a line\r\n";
            f.refresh();
            if (exit)
                f.endPro();
            else
                f.close();
            QCOMPARE(QFileInfo::exists(b.recordFile()), !exit);
            if (!exit)
                QVERIFY(readAll(b.recordFile()).contains("a line"));
        }
    }

    void treePopupAndLabelEdit()
    {
        Bench b;
        ViewForm &f = b.start();
        f.setFullView(true);
        auto *tree = b.w<QTreeView>("TreeView");
        const int before = NodeCount(f.db.tree);
        QTest::mouseClick(tree->viewport(), Qt::RightButton, {}, QPoint(20, 10));
        QTRY_VERIFY(f.popup()->isVisible());
        QVERIFY(f.menuAction("Mdelect")->isEnabled());
        f.menuAction("MAddRecord")->trigger();
        f.popup()->hide();
        QCOMPARE(NodeCount(f.db.tree), before + 1);

        // Rename the selected node in place.
        QStandardItem *node = FindNode(f.db.tree, f.db.tree.Selected);
        QVERIFY(node);
        QApplication::setActiveWindow(&f);
        tree->edit(node->index());
        auto *editor = tree->findChild<QLineEdit *>();
        QVERIFY(editor);
        editor->setText(QStringLiteral("新产品"));
        QTest::keyClick(editor, Qt::Key_Return);
        QTRY_COMPARE(node->text(), QStringLiteral("新产品"));

        ProjectDb fresh;
        QCOMPARE(LoadDb(fresh, b.path("Config.MPK")), int16_t(0));
        QCOMPARE(NodeCount(fresh.tree), before + 1);
        QVERIFY(fresh.tree.model->findItems(QStringLiteral("新产品"), Qt::MatchRecursive).size() == 1);
        QVERIFY(CheckDb(b.path("Config.MPK")).isEmpty());
    }
};

QTEST_MAIN(TstViewForm)
#include "tst_viewform.moc"
