#include "simprocess.h"

#include "frame.h"

#include <QSocketNotifier>
#include <QtTest>
#include <fcntl.h>
#include <unistd.h>

using namespace pyro;

// The whole link over a real pseudo-terminal: QSerialPort on this side, the
// simulated board on the other.
class TstLinkE2e : public QObject {
    Q_OBJECT
private slots:
    void monitorFollowsTheBoard_data();
    void monitorFollowsTheBoard();
    void cliPortsAndMonitor();
    void floodOnTheLine();
};

// The texts of each state and the failure rhythm are the supervisor tests'
// business; here the real port has to carry them and notice the far end go.
// On the fast line the polls end by their length, through the real port.
void TstLinkE2e::monitorFollowsTheBoard_data()
{
    QTest::addColumn<bool>("fast");
    QTest::newRow("normal") << false;
    QTest::newRow("fast line") << true;
}

void TstLinkE2e::monitorFollowsTheBoard()
{
    QFETCH(bool, fast);
    SimProcess sim;
    QVERIFY2(sim.start({"--mode", "2"}), "pyrolink-sim did not get ready");
    LiveLink live(sim.path);
    live.link.fastLine = fast;
    const QString &status = live.link.view.SB[1];

    Command2Click(live.link);
    QVERIFY2(live.prompter.shown.isEmpty(), qPrintable(live.prompter.shown.join(';')));
    QTRY_COMPARE_WITH_TIMEOUT(status, QString("Link normal-run mode"), 5000);
    if (fast)
        QTRY_VERIFY_WITH_TIMEOUT(live.link.fastReplies > 2, 5000);

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

// A peer that talks without a pause, 16 MB while nothing reads: the port
// holds no more than its bound, the newest bytes, and the link recovers once
// the peer answers properly again.
void TstLinkE2e::floodOnTheLine()
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
    QVERIFY(master >= 0);
    QVERIFY(grantpt(master) == 0 && unlockpt(master) == 0);
    LiveLink live(QString::fromLocal8Bit(ptsname(master)));
    live.timer.stop();
    Command2Click(live.link);
    QVERIFY(live.port.isOpen());

    QByteArray chunk(4096, char(0x55));
    qint64 sent = 0;
    for (int i = 0; sent < (16 << 20) && i < 1000000; ++i) {
        chunk[0] = char(i);
        const ssize_t n = ::write(master, chunk.constData(), size_t(chunk.size()));
        if (n > 0)
            sent += n;
        QCoreApplication::processEvents();
    }
    QVERIFY(sent >= (16 << 20));
    QTest::qWait(50);
    const QByteArray held = live.port.input();
    QVERIFY2(held.size() > 0 && held.size() <= kMaxHeldInput, qPrintable(QString::number(held.size())));
    QVERIFY(held.endsWith(QByteArray(100, char(0x55))));

    // Polls answered again: the monitor reads the board's state.
    const QByteArray reply = MBBuildFrame(kFnLinkPoll, QByteArray(1, '\2'));
    QSocketNotifier heard(master, QSocketNotifier::Read);
    QObject::connect(&heard, &QSocketNotifier::activated, [&] {
        char buf[256];
        if (::read(master, buf, sizeof buf) > 0)
            (void)::write(master, reply.constData(), size_t(reply.size()));
    });
    live.timer.start();
    QTRY_COMPARE_WITH_TIMEOUT(live.link.view.SB[1], QString("Link normal-run mode"), 5000);
    ClosePort(live.link);
    ::close(master);

    // A pseudo-terminal takes no parity, so the letters are checked on their own.
    QCOMPARE(QtParity('e'), QSerialPort::EvenParity);
    QCOMPARE(QtParity('o'), QSerialPort::OddParity);
    QCOMPARE(QtParity('n'), QSerialPort::NoParity);
}

QTEST_GUILESS_MAIN(TstLinkE2e)
#include "tst_link_e2e.moc"
