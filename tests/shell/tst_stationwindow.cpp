// The station window with real widgets: rows added by clicks, an image
// through the file dialog, three in-process boards burned, a row stopped,
// the verdicts as the operator reads them, and the main window's port refused.
#include "fakeport.h"
#include "shellbench.h"
#include "stationbench.h"
#include "stationwindow.h"
#include "viewform.h"

#include <QAction>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QtTest>

using namespace pyro;

class TstStationWindow : public QObject {
    Q_OBJECT
private slots:
    void burnsThreeAndShowsVerdicts();
    void openedFromViewMenuRefusesMainPort();
};

void TstStationWindow::burnsThreeAndShowsVerdicts()
{
    QTemporaryDir home;
    qputenv("HOME", home.path().toLocal8Bit());
    ScriptedPrompter prompter;
    StationWindow w(&prompter);
    w.tickTimer().stop();                // the test ticks, boards and station together
    StationBench t;                      // its boards and ports, driving w's station
    t.station.ports.clear();
    w.station.makePort = t.station.makePort;
    w.station.now = t.station.now;
    w.station.clockUs = t.station.clockUs;
    w.station.recordFolder = t.station.recordFolder;
    w.station.stallTicks = 200;
    w.station.onChip = t.station.onChip;
    simArmFault(t.board("COM1", 1), SimFault::Refuse, -1, 0x07);
    t.board("COM2", 2);
    t.board("COM3", 3);
    w.show();
    for (const char *name : {"COM1", "COM2", "COM3", "COM2"}) {
        w.portBox()->setCurrentText(QString::fromLatin1(name));
        QTest::mouseClick(w.addButton(), Qt::LeftButton);
    }
    QCOMPARE(w.rows().size(), size_t(3));
    QCOMPARE(w.messageLabel()->text(), QStringLiteral("COM2 is already on the station"));

    prompter.files << t.image(6000);
    QTest::mouseClick(w.loadButton(), Qt::LeftButton);
    QCOMPARE(w.recentBox()->currentText(), t.dir.filePath("image.BIN"));
    w.orderEdit()->setText(QStringLiteral("LOT-9"));
    QTest::mouseClick(w.startButton(), Qt::LeftButton);
    QVERIFY(!w.loadButton()->isEnabled());
    QVERIFY(!w.orderEdit()->isEnabled());

    auto step = [&] {
        t.us += 15000;
        for (auto &[name, port] : t.ports) {
            port->pump();
            simTick(*t.boards[name]);
        }
        StationTick(w.station);
        w.refresh();
    };
    for (int i = 0; i < 20000 && w.station.ports[2]->percent < 30; ++i)
        step();
    QCOMPARE(w.rows()[2].verdict->text(), QStringLiteral("%1%").arg(w.station.ports[2]->percent));
    QTest::mouseClick(w.rows()[2].stop, Qt::LeftButton);
    for (int i = 0; i < 20000 && StationRunning(w.station); ++i)
        step();
    QVERIFY(!StationRunning(w.station));

    const auto &rows = w.rows();
    QCOMPARE(rows[0].verdict->text(), QStringLiteral("FAIL"));
    QCOMPARE(rows[0].reason->text(), QStringLiteral("no progress: the chip refuses (status ee)"));
    QCOMPARE(rows[1].verdict->text(), QStringLiteral("PASS"));
    QCOMPARE(rows[1].counters->text(), QStringLiteral("good 1   failed 0   total 1"));
    QCOMPARE(rows[1].chip->text(), ChipIdText(w.station.ports[1]->chipId));
    QCOMPARE(rows[2].verdict->text(), QStringLiteral("FAIL"));
    QCOMPARE(rows[2].reason->text(), QStringLiteral("stopped before the end"));
    QVERIFY(w.loadButton()->isEnabled());
    QCOMPARE(t.recordsOf("COM3", "stopped"), 1);

    // A row removed while nothing runs; closing writes the day's text record.
    QTest::mouseClick(w.rows()[2].remove, Qt::LeftButton);
    QCOMPARE(w.rows().size(), size_t(2));
    w.close();
    QFile txt(QDir(t.station.recordFolder).filePath(RecordFileName(QDate(2026, 11, 23))));
    QVERIFY(txt.open(QIODevice::ReadOnly));
    QVERIFY(txt.readAll().contains("[COM2] Has been successfully burning"));
}

void TstStationWindow::openedFromViewMenuRefusesMainPort()
{
    Bench b;
    FakePort mainPort;
    ViewForm::Options o;
    o.appDir = b.dir.path();
    o.prompter = &b.prompter;
    o.port = &mainPort;
    b.form = std::make_unique<ViewForm>(o);
    ViewForm &f = *b.form;
    f.show();
    QTest::mouseClick(qobject_cast<QPushButton *>(f.control("Command2")), Qt::LeftButton);   // OpenUart on COM4
    QVERIFY(mainPort.isOpen());
    f.menuAction("Station")->trigger();
    StationWindow &w = f.stationWindow();
    QVERIFY(w.isVisible());
    w.station.makePort = [](const QString &) { return std::make_unique<FakePort>(); };
    w.portBox()->setCurrentText(QStringLiteral("COM4"));
    QTest::mouseClick(w.addButton(), Qt::LeftButton);
    QCOMPARE(w.messageLabel()->text(), QStringLiteral("COM4 is open in the main window"));
    QVERIFY(w.rows().empty());
    w.portBox()->setCurrentText(QStringLiteral("COM5"));
    QTest::mouseClick(w.addButton(), Qt::LeftButton);
    QCOMPARE(w.rows().size(), size_t(1));
    w.close();
}

QTEST_MAIN(TstStationWindow)
#include "tst_stationwindow.moc"
