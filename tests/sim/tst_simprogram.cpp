// pyrolink-sim as a program: its ready line, a poll over the pseudo-terminal,
// commands on stdin, and a port that fails when the board closes the line.
#include "frame.h"

#include <QFileInfo>
#include <QProcess>
#include <QSerialPort>
#include <QTemporaryDir>
#include <QtTest>

using namespace pyro;

class TstSimProgram : public QObject {
    Q_OBJECT
private slots:
    void init();
    void cleanup();
    void pollCloseQuit();
    void startupOptions();
    void badOptionsExit_data();
    void badOptionsExit();

private:
    // Takes stdout lines as they come; true once one starts with prefix.
    bool sawLine(const QByteArray &prefix, QByteArray *line = nullptr);
    QByteArray pollOnce(QSerialPort &port, const QByteArray &request, int replySize);
    bool command(const QByteArray &line);

    QProcess *m_sim = nullptr;
    QByteArrayList m_lines;
    QByteArray m_partial;
};

static QString simPath()
{
    return QStringLiteral(PYRO_BIN_DIR "/pyrolink-sim");
}

void TstSimProgram::init()
{
    QVERIFY2(QFileInfo::exists(simPath()), qPrintable(simPath()));
    m_sim = new QProcess(this);
    m_sim->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_lines.clear();
    m_partial.clear();
}

void TstSimProgram::cleanup()
{
    // Stop what this test started, by its own process id.
    if (m_sim && m_sim->state() != QProcess::NotRunning) {
        m_sim->kill();
        m_sim->waitForFinished(5000);
    }
    delete m_sim;
    m_sim = nullptr;
}

bool TstSimProgram::sawLine(const QByteArray &prefix, QByteArray *line)
{
    m_partial += m_sim->readAllStandardOutput();
    int nl;
    while ((nl = int(m_partial.indexOf('\n'))) >= 0) {
        m_lines << m_partial.left(nl);
        m_partial.remove(0, nl + 1);
    }
    for (int i = 0; i < m_lines.size(); ++i) {
        if (m_lines[i].startsWith(prefix)) {
            if (line)
                *line = m_lines[i];
            m_lines.removeAt(i);
            return true;
        }
    }
    return false;
}

bool TstSimProgram::command(const QByteArray &line)
{
    m_sim->write(line + '\n');
    return QTest::qWaitFor([&] { return sawLine("ok " + line); }, 10000);
}

QByteArray TstSimProgram::pollOnce(QSerialPort &port, const QByteArray &request, int replySize)
{
    port.write(request);
    QByteArray got;
    (void)QTest::qWaitFor([&] { return (got += port.readAll()).size() >= replySize; }, 10000);
    return got;
}

void TstSimProgram::pollCloseQuit()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString link = dir.filePath(QStringLiteral("COM7"));
    // A link left behind by an earlier run is replaced.
    QVERIFY(QFile::link(QStringLiteral("/nonexistent/pts/99"), link));
    m_sim->start(simPath(), {QStringLiteral("--link"), link, QStringLiteral("--mode"), QStringLiteral("3")});
    QByteArray ready;
    QVERIFY(QTest::qWaitFor([&] { return sawLine("ready ", &ready); }, 15000));
    const QString slave = QString::fromLocal8Bit(ready.mid(6));
    QVERIFY(QFileInfo(link).isSymLink());
    QCOMPARE(QFileInfo(link).symLinkTarget(), QFileInfo(slave).canonicalFilePath());

    // The peer opens and closes the port again and again.
    for (int round = 0; round < 3; ++round) {
        QSerialPort port(link);
        port.setBaudRate(57600);
        QVERIFY2(port.open(QIODevice::ReadWrite), qPrintable(port.errorString()));
        QCOMPARE(pollOnce(port, fromHexLine("01 F0 00 00 64"), 5), MBBuildFrame(kFnLinkPoll, QByteArray(1, '\3')));
        port.close();
    }

    // Commands on stdin steer the board.
    QSerialPort port(link);
    QVERIFY2(port.open(QIODevice::ReadWrite), qPrintable(port.errorString()));
    QVERIFY(command("mode 1"));
    QCOMPARE(pollOnce(port, fromHexLine("01 F0 00 00 64"), 5), MBBuildFrame(kFnLinkPoll, QByteArray(1, '\1')));
    QVERIFY(command("fault CorruptCrc 1 F0"));
    QVERIFY(!FrameCrcOk(pollOnce(port, fromHexLine("01 F0 00 00 64"), 5)));
    QVERIFY(command("swap 0102030405060708090A0B0C"));
    const QByteArray id = pollOnce(port, fromHexLine("01 F1 A7 2A 24"), 17);
    QCOMPARE(id.mid(3, 12), fromHexLine("01 02 03 04 05 06 07 08 09 0A 0B 0C"));
    m_sim->write("fault Nonsense\n");
    QVERIFY(QTest::qWaitFor([&] { return sawLine("error fault Nonsense"); }, 10000));

    // The board closes the line: the peer's port fails.
    bool failed = false;
    connect(&port, &QSerialPort::errorOccurred, this, [&](QSerialPort::SerialPortError e) {
        if (e == QSerialPort::ResourceError || e == QSerialPort::ReadError)
            failed = true;
    });
    QVERIFY(command("close"));
    QVERIFY(QTest::qWaitFor([&] { return failed; }, 10000));
    QCOMPARE(m_sim->state(), QProcess::Running);

    QVERIFY(command("quit"));
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->state(), QProcess::NotRunning, 10000);
    QCOMPARE(m_sim->exitStatus(), QProcess::NormalExit);
    QCOMPARE(m_sim->exitCode(), 0);
    QVERIFY(!QFileInfo(link).isSymLink());
}

void TstSimProgram::startupOptions()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QByteArray block(96, '\0');
    for (int i = 0; i < block.size(); ++i)
        block[i] = char(i * 7 + 3);
    QFile f(dir.filePath(QStringLiteral("factory.bin")));
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.write(block);
    f.close();
    m_sim->start(simPath(), {"--no-pace", "--id", "C0C1C2C3C4C5C6C7C8C9CACB", "--settings", f.fileName(),
                             "--fault", "CorruptCrc:1:F1", "--mode", "1"});
    QByteArray ready;
    QVERIFY(QTest::qWaitFor([&] { return sawLine("ready ", &ready); }, 15000));
    QSerialPort port(QString::fromLocal8Bit(ready.mid(6)));
    QVERIFY2(port.open(QIODevice::ReadWrite), qPrintable(port.errorString()));

    // The armed fault spoils the first identity reply only.
    QVERIFY(!FrameCrcOk(pollOnce(port, fromHexLine("01 F1 A7 2A 24"), 17)));
    const QByteArray id = pollOnce(port, fromHexLine("01 F1 A7 2A 24"), 17);
    QVERIFY(FrameCrcOk(id));
    QCOMPARE(id.mid(3, 12), fromHexLine("C0 C1 C2 C3 C4 C5 C6 C7 C8 C9 CA CB"));
    QCOMPARE(pollOnce(port, fromHexLine("01 F0 00 00 64"), 5), MBBuildFrame(kFnLinkPoll, QByteArray(1, '\1')));
    // The factory block from the file, where the settings are read.
    const QByteArray read = pollOnce(port, MBBuildFrame(kFnReadMemory, le32(0x08002800) + le16(96)), 96 + 10);
    QVERIFY(FrameCrcOk(read));
    QCOMPARE(read.mid(8, 96), block);

    // EOF on stdin ends the program.
    m_sim->closeWriteChannel();
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->state(), QProcess::NotRunning, 10000);
    QCOMPARE(m_sim->exitCode(), 0);
}

void TstSimProgram::badOptionsExit_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::newRow("mode") << QStringList{"--mode", "4"};
    QTest::newRow("id") << QStringList{"--id", "0102"};
    QTest::newRow("fault") << QStringList{"--fault", "Explode:2"};
    QTest::newRow("settings") << QStringList{"--settings", "/nonexistent/block.bin"};
}

void TstSimProgram::badOptionsExit()
{
    QFETCH(QStringList, args);
    m_sim->start(simPath(), args);
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->state(), QProcess::NotRunning, 10000);
    QCOMPARE(m_sim->exitCode(), 2);
    QVERIFY(!sawLine("ready"));
}

QTEST_GUILESS_MAIN(TstSimProgram)
#include "tst_simprogram.moc"
