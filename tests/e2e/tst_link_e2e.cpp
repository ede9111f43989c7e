#include "simprocess.h"

#include <QtTest>

using namespace pyro;

// The whole link over a real pseudo-terminal: QSerialPort on this side, the
// simulated board on the other.
class TstLinkE2e : public QObject {
    Q_OBJECT
private slots:
    void monitorFollowsTheBoard();
    void cliPortsAndMonitor();
};

// The texts of each state and the failure rhythm are the supervisor tests'
// business; here the real port has to carry them and notice the far end go.
void TstLinkE2e::monitorFollowsTheBoard()
{
    SimProcess sim;
    QVERIFY2(sim.start({"--mode", "2"}), "pyrolink-sim did not get ready");
    LiveLink live(sim.path);
    const QString &status = live.link.view.SB[1];

    Command2Click(live.link);
    QVERIFY2(live.prompter.shown.isEmpty(), qPrintable(live.prompter.shown.join(';')));
    QTRY_COMPARE_WITH_TIMEOUT(status, QString("Link normal-run mode"), 5000);

    // The board goes silent: every poll fails, and the sixth in a row shows.
    sim.command("silent on");
    QTRY_COMPARE_WITH_TIMEOUT(status, QString("Link failure！"), 10000);

    // The far end goes away: the port closes itself, nothing hangs or spins.
    sim.command("close");
    QTRY_COMPARE_WITH_TIMEOUT(status, QString("Open port first！"), 5000);
    QVERIFY(!live.port.isOpen());
    QVERIFY(!live.link.view.Command3Enabled);
}

void TstLinkE2e::cliPortsAndMonitor()
{
    // The board linked as COM19 beside the programs, where the tool looks.
    const QString linkPath = QStringLiteral(PYRO_BIN_DIR "/COM19");
    SimProcess sim;
    QVERIFY2(sim.start({"--mode", "1", "--link", linkPath}), "pyrolink-sim did not get ready");

    const CliRun ports = runCli({"ports"});
    QCOMPARE(ports.code, 0);
    // The link, the pseudo-terminal behind it, free to open; a pty has no maker or USB id.
    QVERIFY2(ports.out.contains(QRegularExpression("\nCOM19\t/[^\t]+\tfree\t")), qPrintable(ports.out));

    const CliRun mon = runCli({"monitor", "--port", "COM19", "--seconds", "1"});
    QCOMPARE(mon.code, 0);
    QCOMPARE(mon.out, QString("Serial uart has ben Opened\nLink normal-download mode\n"));

    sim.command("quit");
    QVERIFY(sim.proc.waitForFinished(5000));
    const CliRun gone = runCli({"monitor", "--port", "COM19", "--seconds", "1"});
    QCOMPARE(gone.code, 3);
    QVERIFY(gone.err.contains("port COM19"));
}

QTEST_GUILESS_MAIN(TstLinkE2e)
#include "tst_link_e2e.moc"
