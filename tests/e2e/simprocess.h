#pragma once
// Starts the built pyrolink-sim, waits for its ready line and stops it by
// its own process id at the end.
#include <QElapsedTimer>
#include <QProcess>
#include <QTest>

struct SimProcess {
    QProcess proc;
    QString path;   // the pseudo-terminal the board listens on

    bool start(const QStringList &args = {})
    {
        proc.setProgram(QStringLiteral(PYRO_BIN_DIR "/pyrolink-sim"));
        proc.setArguments(args);
        proc.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        proc.start();
        if (!proc.waitForStarted(10000))
            return false;
        QElapsedTimer t;
        t.start();
        QByteArray out;
        while (t.elapsed() < 10000) {
            if (!proc.waitForReadyRead(200) && proc.state() != QProcess::Running)
                return false;
            out += proc.readAllStandardOutput();
            const int nl = int(out.indexOf('\n'));
            if (nl >= 0 && out.startsWith("ready ")) {
                path = QString::fromLocal8Bit(out.mid(6, nl - 6)).trimmed();
                return true;
            }
        }
        return false;
    }
    void command(const QByteArray &line)
    {
        proc.write(line + '\n');
        proc.waitForBytesWritten(1000);
    }
    ~SimProcess()
    {
        if (proc.state() == QProcess::Running) {
            command("quit");
            if (!proc.waitForFinished(3000)) {
                proc.kill();
                proc.waitForFinished(3000);
            }
        }
    }
};
