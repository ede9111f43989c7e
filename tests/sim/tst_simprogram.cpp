// pyrolink-sim as a program: its ready line, polls over the pseudo-terminal,
// commands on stdin, a line the board closes, and its exits.
#include "../e2e/simprocess.h"
#include "frame.h"

#include <QFileInfo>
#include <QSerialPort>
#include <QTemporaryDir>
#include <QtTest>

using namespace pyro;

namespace {

const QByteArray kPoll = fromHexLine("01 F0 00 00 64");
const QByteArray kIdentify = fromHexLine("01 F1 A7 2A 24");

// Writes the request and gathers bytes until the reply's size has come.
QByteArray ask(QSerialPort &port, const QByteArray &request, int replySize)
{
    port.write(request);
    QByteArray got;
    (void)QTest::qWaitFor([&] { return (got += port.readAll()).size() >= replySize; }, 10000);
    return got;
}

// Sends a command line and gives the program's answer to it.
QByteArray answer(SimProcess &sim, const QByteArray &command)
{
    sim.command(command);
    (void)QTest::qWaitFor([&] { return sim.proc.canReadLine(); }, 10000);
    return sim.proc.readLine().trimmed();
}

bool ok(SimProcess &sim, const QByteArray &command)
{
    return answer(sim, command) == "ok " + command;
}

} // namespace

class TstSimProgram : public QObject {
    Q_OBJECT
private slots:
    void pollCommandsCloseQuit();
    void startupOptions();
    void badOptionsExit_data();
    void badOptionsExit();
};

void TstSimProgram::pollCommandsCloseQuit()
{
    QTemporaryDir dir;
    const QString link = dir.filePath(QStringLiteral("COM7"));
    // A link left behind by an earlier run is replaced.
    QVERIFY(QFile::link(QStringLiteral("/nonexistent/pts/99"), link));
    SimProcess sim;
    QVERIFY(sim.start({"--link", link, "--mode", "3"}));
    QCOMPARE(QFileInfo(link).symLinkTarget(), QFileInfo(sim.path).canonicalFilePath());

    // The peer may open and close the port again and again.
    for (int round = 0; round < 2; ++round) {
        QSerialPort port(link);
        QVERIFY2(port.open(QIODevice::ReadWrite), qPrintable(port.errorString()));
        QCOMPARE(ask(port, kPoll, 5), MBBuildFrame(kFnLinkPoll, QByteArray(1, '\3')));   // mode 3
    }

    QSerialPort port(link);
    QVERIFY2(port.open(QIODevice::ReadWrite), qPrintable(port.errorString()));
    QVERIFY(ok(sim, "fault CorruptCrc 1 F0"));
    QVERIFY(!FrameCrcOk(ask(port, kPoll, 5)));
    QVERIFY(ok(sim, "swap 0102030405060708090A0B0C"));
    QCOMPARE(ask(port, kIdentify, 17).mid(3, 12), fromHexLine("01 02 03 04 05 06 07 08 09 0A 0B 0C"));
    QCOMPARE(answer(sim, "fault Nonsense"), QByteArray("error fault Nonsense"));

    // The board closes the line: the peer's port fails, the program runs on.
    bool failed = false;
    connect(&port, &QSerialPort::errorOccurred, this, [&](QSerialPort::SerialPortError e) {
        failed = failed || e == QSerialPort::ResourceError || e == QSerialPort::ReadError;
    });
    QVERIFY(ok(sim, "close"));
    QVERIFY(QTest::qWaitFor([&] { return failed; }, 10000));
    QCOMPARE(sim.proc.state(), QProcess::Running);

    QVERIFY(ok(sim, "quit"));
    QTRY_COMPARE_WITH_TIMEOUT(sim.proc.state(), QProcess::NotRunning, 10000);
    QCOMPARE(sim.proc.exitStatus(), QProcess::NormalExit);
    QCOMPARE(sim.proc.exitCode(), 0);
    QVERIFY(!QFileInfo(link).isSymLink());   // its link goes with it
}

void TstSimProgram::startupOptions()
{
    QTemporaryDir dir;
    QByteArray block;
    for (int i = 0; i < 96; ++i)
        block += char(i * 7 + 3);
    QFile f(dir.filePath(QStringLiteral("factory.bin")));
    QVERIFY(f.open(QIODevice::WriteOnly) && f.write(block) == block.size());
    f.close();
    SimProcess sim;
    QVERIFY(sim.start({"--no-pace", "--id", "C0C1C2C3C4C5C6C7C8C9CACB", "--settings", f.fileName(),
                       "--fault", "CorruptCrc:1:F1"}));
    QSerialPort port(sim.path);
    QVERIFY2(port.open(QIODevice::ReadWrite), qPrintable(port.errorString()));

    // The armed fault spoils the first identity reply only.
    QVERIFY(!FrameCrcOk(ask(port, kIdentify, 17)));
    const QByteArray id = ask(port, kIdentify, 17);
    QVERIFY(FrameCrcOk(id));
    QCOMPARE(id.mid(3, 12), fromHexLine("C0 C1 C2 C3 C4 C5 C6 C7 C8 C9 CA CB"));
    // The factory block from the file, where the settings are read.
    const QByteArray read = ask(port, MBBuildFrame(kFnReadMemory, le32(0x08002800) + le16(96)), 96 + 10);
    QVERIFY(FrameCrcOk(read));
    QCOMPARE(read.mid(8, 96), block);

    // EOF on stdin ends the program.
    sim.proc.closeWriteChannel();
    QTRY_COMPARE_WITH_TIMEOUT(sim.proc.state(), QProcess::NotRunning, 10000);
    QCOMPARE(sim.proc.exitCode(), 0);
}

void TstSimProgram::badOptionsExit_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::newRow("mode") << QStringList{"--mode", "4"};
    QTest::newRow("id") << QStringList{"--id", "0102"};
    QTest::newRow("fault") << QStringList{"--fault", "Explode:2"};
    QTest::newRow("erase time") << QStringList{"--erase-ms", "-5"};
    QTest::newRow("settings") << QStringList{"--settings", "/nonexistent/block.bin"};
}

// Refused before any ready line.
void TstSimProgram::badOptionsExit()
{
    QFETCH(QStringList, args);
    SimProcess sim;
    QVERIFY(!sim.start(args));
    QTRY_COMPARE_WITH_TIMEOUT(sim.proc.state(), QProcess::NotRunning, 10000);
    QCOMPARE(sim.proc.exitCode(), 2);
}

QTEST_GUILESS_MAIN(TstSimProgram)
#include "tst_simprogram.moc"
