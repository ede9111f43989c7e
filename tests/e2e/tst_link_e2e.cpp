#include "link.h"
#include "portcontrol.h"
#include "qtserialcontrol.h"
#include "simprocess.h"

#include <QTimer>
#include <QtTest>

using namespace pyro;

// The whole link over a real pseudo-terminal: QSerialPort on this side, the
// simulated board on the other, ticks from a 15 ms timer as in the window.
class TstLinkE2e : public QObject {
    Q_OBJECT
private slots:
    void monitorFollowsTheBoard();
    void cliPortsAndMonitor();
};

void TstLinkE2e::monitorFollowsTheBoard()
{
    SimProcess sim;
    QVERIFY2(sim.start({"--mode", "2"}), "pyrolink-sim did not get ready");

    Link link;
    QtSerialControl port;
    ScriptedPrompter prompter;
    link.prompter = &prompter;
    AttachPort(link, &port);
    InitPortBoxes(link.view);
    link.view.ComboSet[0].text = sim.path;
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    tick.setInterval(15);
    QObject::connect(&tick, &QTimer::timeout, [&] { MBTimTimer(link); });
    tick.start();

    Command2Click(link);
    QVERIFY2(prompter.shown.isEmpty(), qPrintable(prompter.shown.join(';')));
    QTRY_COMPARE_WITH_TIMEOUT(link.view.SB[1], QString("Link normal-run mode"), 5000);

    sim.command("mode 3");
    QTRY_COMPARE_WITH_TIMEOUT(link.view.SB[1], QString("Link normal-stop mode"), 5000);

    // The board goes silent: every poll fails, and the sixth in a row shows.
    sim.command("silent on");
    QTRY_COMPARE_WITH_TIMEOUT(link.view.SB[1], QString("Link failure！"), 10000);
    sim.command("silent off");
    QTRY_COMPARE_WITH_TIMEOUT(link.view.SB[1], QString("Link normal-stop mode"), 5000);

    // The far end goes away: the port closes itself, nothing hangs or spins.
    sim.command("close");
    QTRY_COMPARE_WITH_TIMEOUT(link.view.SB[1], QString("Open port first！"), 5000);
    QVERIFY(!port.isOpen());
    QVERIFY(!link.view.Command3Enabled);

    // The button still reads "CloseUart": its click tidies up; the next one
    // tries a name that can't open.
    QCOMPARE(link.view.Command2Caption, QString("CloseUart"));
    Command2Click(link);
    QCOMPARE(link.view.Command2Caption, QString("OpenUart"));
    link.view.ComboSet[0].text = "/nonexistent/tty";
    Command2Click(link);
    QCOMPARE(prompter.shown, QStringList{"Hint|Serial port error！"});
    QCOMPARE(link.view.Command2Caption, QString("OpenUart"));
}

void TstLinkE2e::cliPortsAndMonitor()
{
    // The board linked as COM19 beside the programs, where the tool looks.
    const QString linkPath = QStringLiteral(PYRO_BIN_DIR "/COM19");
    SimProcess sim;
    QVERIFY2(sim.start({"--mode", "1", "--link", linkPath}), "pyrolink-sim did not get ready");

    auto cli = [](const QStringList &args) {
        QProcess p;
        p.start(QStringLiteral(PYRO_BIN_DIR "/pyrolink-cli"), args);
        p.waitForFinished(30000);
        return QPair<int, QString>(p.exitCode(), QString::fromUtf8(p.readAllStandardOutput()));
    };
    const auto ports = cli({"ports"});
    QCOMPARE(ports.first, 0);
    QVERIFY2(ports.second.split('\n').contains("COM19"), qPrintable(ports.second));

    const auto mon = cli({"monitor", "--port", "COM19", "--seconds", "1"});
    QCOMPARE(mon.first, 0);
    QCOMPARE(mon.second, QString("Serial uart has ben Opened\nLink normal-download mode\n"));

    const auto bad = cli({"monitor", "--port", "COM19", "--baud", "31337"});
    QCOMPARE(bad.first, 2);
    sim.command("quit");
    QVERIFY(sim.proc.waitForFinished(5000));
    const auto gone = cli({"monitor", "--port", "COM19", "--seconds", "1"});
    QCOMPARE(gone.first, 1);
}

QTEST_GUILESS_MAIN(TstLinkE2e)
#include "tst_link_e2e.moc"
