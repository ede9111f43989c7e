#pragma once
// Starts the built pyrolink-sim, waits for its ready line and stops it by
// its own process id at the end; LiveLink is the window's side of its line.
#include "link.h"
#include "portcontrol.h"
#include "qtserialcontrol.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QTest>
#include <QTimer>
#include <functional>

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

struct CliRun {
    int code = -1;
    QString out, err;
};

// pyrolink-cli, with HOME set when given; with stopAfter, the run is sent
// SIGTERM once its output shows that text.
inline CliRun runCli(const QStringList &args, const QString &home = {}, const QByteArray &stopAfter = {})
{
    QProcess p;
    if (!home.isEmpty()) {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("HOME", home);
        p.setProcessEnvironment(env);
    }
    p.start(PYRO_BIN_DIR "/pyrolink-cli", args);
    QByteArray out;
    while (!stopAfter.isEmpty() && !out.contains(stopAfter) && p.waitForReadyRead(30000))
        out += p.readAllStandardOutput();
    if (!stopAfter.isEmpty())
        p.terminate();
    if (!p.waitForFinished(120000)) {
        p.kill();
        p.waitForFinished(3000);
        return {};
    }
    out += p.readAllStandardOutput();
    return {p.exitCode(), QString::fromUtf8(out), QString::fromUtf8(p.readAllStandardError())};
}

// The real serial control on the board's pseudo-terminal, ticked every 15 ms
// as in the window; afterTick sees the line after each tick.
struct LiveLink {
    pyro::Link link;
    pyro::QtSerialControl port;
    pyro::ScriptedPrompter prompter;
    QTimer timer;
    std::function<void()> afterTick;

    explicit LiveLink(const QString &path)
    {
        link.prompter = &prompter;
        pyro::AttachPort(link, &port);
        pyro::InitPortBoxes(link.view);
        link.view.ComboSet[0].text = path;
        timer.setTimerType(Qt::PreciseTimer);
        timer.setInterval(15);
        QObject::connect(&timer, &QTimer::timeout, [this] {
            pyro::MBTimTimer(link);
            if (afterTick)
                afterTick();
        });
        timer.start();
    }
};
