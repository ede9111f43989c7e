// pyrolink-cli burn on several ports at once: the station without a window.
#include "burnports.h"
#include "chipwriter.h"
#include "clisession.h"
#include "portcontrol.h"
#include "station.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>
#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

using namespace pyro;

namespace {

struct RowWatch {
    int code = kExitOk;                  // what this port ends with
    QString why;                         // and in words, for the table
    QElapsedTimer sinceProgress;
    int lastPercent = -1;
    int lastGood = 0, lastFailed = 0;
    int lastTenth = -1;
    QElapsedTimer chipClock;
    int chipBegun = 0;
    bool answered = false;
};

QString rateText(double bytesPerSecond)
{
    return bytesPerSecond >= 1000 ? QStringLiteral("%1 kB/s").arg(bytesPerSecond / 1000, 0, 'f', 1)
                                  : QStringLiteral("%1 B/s").arg(qint64(bytesPerSecond));
}

QString timeText(double seconds)
{
    const qint64 s = qint64(seconds + 0.5);
    return QStringLiteral("%1:%2").arg(s / 60).arg(s % 60, 2, 10, QLatin1Char('0'));
}

// Why a port can't be used, looked at before the open, whose refusals don't say.
QString portTrouble(const QString &name, const QString &appDir)
{
    const QString device = ResolvePortName(name, appDir);
    if (device.isEmpty())
        return QStringLiteral("not found");
    struct stat st {};
    if (::stat(QFile::encodeName(device).constData(), &st) != 0)
        return QStringLiteral("not found");
    if (!S_ISCHR(st.st_mode))
        return QStringLiteral("not a serial device");
    if (::access(QFile::encodeName(device).constData(), R_OK | W_OK) != 0)
        return QStringLiteral("no permission");
    return {};
}

} // namespace

int cliBurnPorts(const QStringList &ports, const BurnPortsOptions &o, const pyro::View &boxes)
{
    QTextStream out(stdout), err(stderr);
    QTextStream &info = o.json ? err : out;
    Station st;
    st.appDir = CliAppDir();
    st.recordFolder = RecordFolder();
    for (int i = 0; i < 4; ++i)
        st.line[size_t(i)] = boxes.ComboSet[size_t(i + 1)].text;
    st.frameLen = o.frameLen;
    st.autoLoad = o.autoLoad;
    st.keepInF = o.keepSettings;
    st.fastLine = o.fast;
    st.order = o.order;
    st.chipsTarget = o.chips;
    st.stallTicks = 0;                   // --timeout watches progress here

    // Every port named is checked first; a port named twice is a usage error.
    for (const QString &p : ports) {
        QString why;
        if (!StationAddPort(st, p, &why)) {
            err << "pyrolink-cli burn: --port " << p << ": " << why << Qt::endl;
            return kExitUsage;
        }
    }
    std::vector<RowWatch> watch(st.ports.size());
    for (size_t i = 0; i < st.ports.size(); ++i) {
        const QString trouble = portTrouble(st.ports[i]->name, st.appDir);
        if (!trouble.isEmpty()) {
            watch[i].code = kExitPort;
            watch[i].why = QStringLiteral("port: ") + trouble;
        }
    }

    // Every chip also goes to the chip store, through its own thread.
    ChipWriter writer(ChipWriterOptions(CliRecordsChoice()));
    writer.start();
    const QString station = o.station.isEmpty() ? DefaultStation() : o.station;
    st.toStore = [&](const ChipRecord &r) {
        writer.append(ChipRowFromRecord(r, station, QCoreApplication::applicationVersion()));
    };

    int failedChips = 0;
    st.onChip = [&](StationPort &p, const ChipRecord &r) {
        if (o.json)
            out << ChipJson(r) << Qt::endl;
        if (r.result == QLatin1String("failed")) {
            ++failedChips;
            err << p.name << ": chip " << ChipIdText(r.chipId) << " given up: " << p.reason << Qt::endl;
        }
    };
    QString why;
    if (!StationLoadFile(st, o.file, &why)) {
        err << "pyrolink-cli burn: " << why << Qt::endl;
        return kExitFailed;
    }
    CliCatchSignals();
    StationStart(st);
    if (!st.imageReady) {
        err << "pyrolink-cli burn: the image was refused: " << st.message << Qt::endl;
        return kExitFailed;
    }
    for (size_t i = 0; i < st.ports.size(); ++i) {
        StationPort &p = *st.ports[i];
        if (!p.running && watch[i].code == kExitOk) {
            watch[i].code = kExitPort;
            watch[i].why = QStringLiteral("port: ") + (p.state.isEmpty() ? p.reason : p.state);
        }
        if (!p.running)
            err << "pyrolink-cli burn: port " << p.name << ": " << watch[i].why.mid(6) << Qt::endl;
        watch[i].sinceProgress.start();
        watch[i].chipClock.start();
    }

    const bool terminal = isatty(fileno(o.json ? stderr : stdout));
    int drawn = 0;                       // progress lines on the terminal below the log
    qsizetype logPrinted = 0;
    auto rowLine = [&](size_t i) {
        const StationPort &p = *st.ports[i];
        const double secs = watch[i].chipClock.elapsed() / 1000.0;
        const double rate = secs > 0 && p.burn.chipLog.active ? p.percent / 100.0 * st.binLen / secs : 0;
        QString last;
        if (p.chipKnown)
            last = ChipIdText(p.chipId) + QLatin1Char(' ')
                + (p.verdict == Verdict::Pass ? QStringLiteral("PASS")
                   : p.verdict == Verdict::Fail ? QStringLiteral("FAIL ") + p.reason : QString());
        return QStringLiteral("%1  chip %2  %3%  %4  %5  %6")
            .arg(p.name.leftJustified(12), QString::number(p.good + p.failed + (p.burn.chipLog.active ? 1 : 0)))
            .arg(p.percent, 3)
            .arg(rateText(rate).rightJustified(10), p.state, last);
    };
    auto draw = [&] {
        if (o.quiet)
            return;
        const QString tail = st.log.mid(logPrinted);
        if (terminal) {
            QString text;
            if (drawn > 0)
                text += QStringLiteral("\x1b[%1A\r\x1b[J").arg(drawn);
            text += QString(tail).replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
            for (size_t i = 0; i < st.ports.size(); ++i)
                text += rowLine(i).left(160) + QLatin1Char('\n');
            drawn = int(st.ports.size());
            info << text << Qt::flush;
        } else {
            info << QString(tail).replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
            for (size_t i = 0; i < st.ports.size(); ++i) {
                const StationPort &p = *st.ports[i];
                const int tenth = p.burn.chipLog.active ? p.percent / 10 : -1;
                if (tenth >= 0 && tenth != watch[i].lastTenth)
                    info << rowLine(i) << '\n';
                watch[i].lastTenth = tenth;
            }
            info.flush();
        }
        logPrinted = st.log.size();
    };

    // Per row: no progress while a chip is in hand, or no answer before the
    // first chip (or without AutoLoad), for --timeout seconds ends that row.
    auto checkRows = [&] {
        for (size_t i = 0; i < st.ports.size(); ++i) {
            StationPort &p = *st.ports[i];
            RowWatch &w = watch[i];
            if (!p.running)
                continue;
            if (p.burn.chipLog.begun != w.chipBegun) {
                w.chipBegun = p.burn.chipLog.begun;
                w.chipClock.restart();
            }
            const bool active = p.burn.chipLog.active;
            const bool waitingUntimed = !active && o.autoLoad && p.good + p.failed > 0;
            const bool moving = active ? p.percent != w.lastPercent : p.silentPolls == 0;
            if (moving || waitingUntimed) {
                w.sinceProgress.restart();
                w.lastPercent = p.percent;
            }
            if (w.sinceProgress.elapsed() >= qint64(o.timeout * 1000)) {
                ChipLogEnd(p.link, p.burn, QStringLiteral("timed out"));
                w.code = kExitNoAnswer;
                w.why = active ? QStringLiteral("no progress for %1 s").arg(o.timeout)
                               : QStringLiteral("no answer from the board after %1 s").arg(o.timeout);
                StationStopRow(st, int(i));
            }
        }
    };

    QEventLoop loop;
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    tick.setInterval(15);
    QElapsedTimer clock;
    clock.start();
    bool interrupted = false, timedOut = false;
    QObject::connect(&tick, &QTimer::timeout, &loop, [&] {
        StationTick(st);
        checkRows();
        draw();
        if (CliInterrupted()) {
            interrupted = true;
            loop.quit();
        } else if (!StationRunning(st)) {
            loop.quit();
        } else if (o.totalTimeout > 0 && clock.elapsed() >= qint64(o.totalTimeout * 1000)) {
            timedOut = true;
            loop.quit();
        }
    });
    tick.start();
    if (StationRunning(st) && !CliInterrupted())
        loop.exec();
    interrupted = interrupted || CliInterrupted();
    for (size_t i = 0; i < st.ports.size(); ++i) {
        StationPort &p = *st.ports[i];
        if (!p.running)
            continue;
        ChipLogEnd(p.link, p.burn, interrupted ? QStringLiteral("interrupted") : QStringLiteral("timed out"));
        watch[i].code = interrupted ? kExitInterrupted : kExitNoAnswer;
        watch[i].why = interrupted ? QStringLiteral("interrupted")
                                   : QStringLiteral("time limit of %1 s passed").arg(o.totalTimeout);
        StationStopRow(st, int(i));
    }
    draw();

    // What each row did against what was asked.
    const bool orderShort = st.chipsTarget > 0 && st.good < st.chipsTarget;
    for (size_t i = 0; i < st.ports.size(); ++i) {
        StationPort &p = *st.ports[i];
        RowWatch &w = watch[i];
        if (w.code != kExitOk)
            continue;
        if (p.reason == QLatin1String("board removed")) {
            w.code = kExitPort;
            w.why = QStringLiteral("port lost during the burn");
        } else if (st.chipsTarget == 0 && !o.autoLoad && p.good < 1) {
            w.code = kExitFailed;
            w.why = p.reason.isEmpty() ? QStringLiteral("no chip burned") : p.reason;
        } else if (orderShort) {
            w.code = kExitFailed;
            w.why = QStringLiteral("the order ended early (%1 of %2)").arg(st.good).arg(st.chipsTarget);
        }
    }
    int worst = kExitOk;
    for (const RowWatch &w : watch)
        worst = std::max(worst, w.code);

    writer.stop();
    for (const QString &m : writer.take().messages)
        err << m << Qt::endl;
    if (const int left = writer.pending())
        err << left << " chip(s) wait for the chip store in "
            << QDir::toNativeSeparators(writer.storePath() + ".pending") << "\n";
    if (StationWriteRecord(st))
        err << "log appended to "
            << QDir::toNativeSeparators(QDir(st.recordFolder).filePath(RecordFileName(st.now().date()))) << "\n";
    QTextStream &table = o.json ? err : out;
    table << QStringLiteral("%1 %2 %3 %4  %5\n").arg(QStringLiteral("port").leftJustified(12), QStringLiteral("good").rightJustified(5),
                                                   QStringLiteral("failed").rightJustified(6), QStringLiteral("time").rightJustified(7),
                                                   QStringLiteral("result"));
    for (size_t i = 0; i < st.ports.size(); ++i) {
        const StationPort &p = *st.ports[i];
        const RowWatch &w = watch[i];
        table << QStringLiteral("%1 %2 %3 %4  %5\n")
                     .arg(p.name.leftJustified(12))
                     .arg(p.good, 5)
                     .arg(p.failed, 6)
                     .arg(timeText(double(p.runTicks) * 0.015).rightJustified(7))
                     .arg(w.code == kExitOk ? QStringLiteral("ok") : QStringLiteral("exit %1: %2").arg(w.code).arg(w.why));
    }
    table << st.good << " chip(s) done" << (failedChips ? QStringLiteral(", %1 given up").arg(failedChips) : QString())
          << "\n";
    table.flush();
    err.flush();
    return worst;
}
