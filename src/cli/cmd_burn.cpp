// pyrolink-cli burn: the burn of the window's Program button, headless.
#include "burn.h"
#include "chipwriter.h"
#include "burnports.h"
#include "clisession.h"
#include "commands.h"
#include "portcontrol.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <cstdio>
#include <unistd.h>

using namespace pyro;

namespace {

QString durationText(double seconds)
{
    const qint64 s = qint64(seconds + 0.5);
    return QStringLiteral("%1:%2").arg(s / 60).arg(s % 60, 2, 10, QLatin1Char('0'));
}

QString rateText(double bytesPerSecond)
{
    return bytesPerSecond >= 1000 ? QStringLiteral("%1 kB/s").arg(bytesPerSecond / 1000, 0, 'f', 1)
                                  : QStringLiteral("%1 B/s").arg(qint64(bytesPerSecond));
}

} // namespace

int cliBurn(const QStringList &args)
{
    CliCommand cmd("burn", "Burns a firmware image into one chip, or with --auto into each chip put on the bench; on several ports (--port repeated, or a comma list) at once.");
    cmd.addPortOptions();
    cmd.add("file", "The .BIN image.", "F");
    cmd.add("auto", "AutoLoad: go on with the next chip.");
    cmd.add("chips", "Stop after N good chips in all (with --auto; 0: until Ctrl-C).", "N", "0");
    cmd.add("keep-settings", "KeepInF: leave the settings pages as they are.");
    cmd.add("frame-len", "Bytes per write frame: 512, 256, 128, 64, 32 or 16.", "N", "512");
    cmd.add("order", "The order text stamped into the image.", "TEXT");
    cmd.add("station", "The station named with each chip in the chip store (default: this host's name).", "NAME");
    cmd.add("timeout", "Seconds a chip may go without progress, or the board without an answer (default 10).", "S", "10");
    cmd.add("total-timeout", "Seconds the whole run may take (default 0: no limit).", "S", "0");
    cmd.add("json", "One JSON object per finished or failed chip on stdout; everything else on stderr.");
    cmd.add("q,quiet", "Print only the result.");
    cmd.add("v,verbose", "Also print every exchange on the line.");
    bool done = false;
    int code = cmd.parse(args, &done);
    if (done)
        return code;
    CliSession s;
    double chipsD = 0, timeout = 0, total = 0;
    if (!cmd.positional(0, 0) || !s.takePortOptions(cmd) || !cmd.number("chips", 0, 1e9, &chipsD)
        || !cmd.number("timeout", 0.1, 1e7, &timeout) || !cmd.number("total-timeout", 0, 1e9, &total))
        return kExitUsage;
    if (!cmd.parser.isSet("file"))
        return cmd.usageError("--file is missing");
    const QString frameLen = cmd.parser.value("frame-len");
    if (!s.link.view.ComboSet[5].list.contains(frameLen))
        return cmd.usageError(QStringLiteral("--frame-len: '%1' is not one of %2").arg(frameLen, s.link.view.ComboSet[5].list.join(", ")));
    const bool autoLoad = cmd.parser.isSet("auto");
    const int chips = int(chipsD);
    // --port repeated, or a comma list: the station burns on all at once.
    QStringList ports;
    for (const QString &v : cmd.parser.values("port"))
        for (const QString &part : v.split(QLatin1Char(',')))
            if (!part.trimmed().isEmpty())
                ports << part.trimmed();
    if (ports.isEmpty())
        return cmd.usageError("--port is empty");
    if (chips > int(ports.size()) && !autoLoad)
        return cmd.usageError(ports.size() > 1 ? "--chips above the number of ports needs --auto"
                                               : "--chips above 1 needs --auto");
    const QString file = cmd.parser.value("file");
    const bool json = cmd.parser.isSet("json");
    const bool quiet = cmd.parser.isSet("quiet");
    const bool verbose = cmd.parser.isSet("verbose");
    // Data on stdout; with --json the log and the progress make room for it.
    QTextStream &info = json ? s.err : s.out;
    s.logStream = &info;
    s.printLog = !quiet;

    // A folder, a FIFO or an empty file is named for what it is before any port opens.
    const QString bad = CheckInputFile(file, 64 << 20);
    if (!bad.isEmpty()) {
        s.err << "pyrolink-cli burn: --file: " << bad << Qt::endl;
        return kExitFailed;
    }

    if (ports.size() > 1) {
        BurnPortsOptions o;
        o.file = file;
        o.frameLen = frameLen;
        o.order = cmd.parser.value("order");
        o.station = cmd.parser.value("station");
        o.autoLoad = autoLoad;
        o.keepSettings = cmd.parser.isSet("keep-settings");
        o.fast = s.link.fastLine;
        o.json = json;
        o.quiet = quiet;
        o.chips = chips;
        o.timeout = timeout;
        o.totalTimeout = total;
        return cliBurnPorts(ports, o, s.link.view);
    }
    s.link.view.ComboSet[0].text = ports.first();

    Burn burn;
    AttachBurn(s.link, burn);
    s.link.view.ComboSet[5].text = frameLen;
    s.link.view.NotesTxt[5] = cmd.parser.value("order");
    s.link.view.Check1[1] = cmd.parser.isSet("keep-settings");
    // With a chip count the last chip ends the burn the normal way: AutoLoad
    // is cleared once the chip before it is done.
    const int target = autoLoad ? chips : 1;
    s.link.view.Check1[3] = autoLoad && target != 1;
    burn.chipLog.folder = RecordFolder();
    // Every chip also goes to the chip store, through its own thread.
    const QString station = cmd.parser.isSet("station") ? cmd.parser.value("station") : DefaultStation();
    ChipWriter writer(ChipWriterOptions(CliRecordsChoice()));
    writer.start();
    burn.chipLog.toStore = [&](const ChipRecord &r) {
        writer.append(ChipRowFromRecord(r, station, QCoreApplication::applicationVersion()));
    };
    auto storeNews = [&] {
        const ChipWriter::Events e = writer.take();
        for (const QString &m : e.messages)
            s.err << m << Qt::endl;
        for (const ChipMet &m : e.met)
            s.err << ChipMetText(m) << Qt::endl;
    };

    // The last answer judged, for the retry lines.
    ExchangeRecord lastAnswer;
    bool answered = false;   // a good answer since the progress clock last started
    int badCrc = 0;          // replies with a bad CRC since then
    if (verbose)
        s.traceExchanges();
    auto trace = s.link.onExchange;
    s.link.onExchange = [&](const ExchangeRecord &r) {
        if (trace)
            trace(r);
        if (r.direction == ExchangeRecord::Received) {
            lastAnswer = r;
            answered = answered || r.outcome == 0;
            badCrc += r.outcome == 4 ? 1 : 0;
        }
    };
    int failed = 0;
    burn.chipLog.onRecord = [&](const ChipRecord &r) {
        if (json)
            s.emitLine(ChipJson(r));
        if (r.result == QLatin1String("failed")) {
            ++failed;
            s.err << "chip " << burn.ChipsDone + 1 << ": given up after " << r.retries
                  << " retries; the burn starts the chip over" << Qt::endl;
        }
    };

    const QString port = s.link.view.ComboSet[0].text;
    QString lastLine;   // the progress line on a terminal, while it is open
    // Whatever happens after this point, a run that burned leaves its log in
    // the day's record; one that never began a chip leaves nothing.
    auto finish = [&](int exitCode, const QString &why) {
        if (s.port.isOpen())
            ClosePort(s.link);
        s.flushLog();
        if (!lastLine.isEmpty())
            info << "\n";   // the redrawn progress line stays, closed
        if (!why.isEmpty())
            s.err << "pyrolink-cli burn: " << why << Qt::endl;
        writer.stop();
        storeNews();
        if (const int left = writer.pending())
            s.err << left << " chip(s) wait for the chip store in "
                  << QDir::toNativeSeparators(writer.storePath() + ".pending") << "\n";
        if (burn.chipLog.begun > 0) {
            const QString folder = RecordFolder();
            if (AppendBurnRecord(folder, s.link.now(), s.link.view.RTB))
                s.err << "log appended to "
                      << QDir::toNativeSeparators(QDir(folder).filePath(RecordFileName(s.link.now().date()))) << "\n";
            else
                s.err << "the day's record in " << QDir::toNativeSeparators(folder) << " could not be written\n";
        }
        (json ? s.err : s.out) << burn.ChipsDone << " chip(s) done" << (failed ? QStringLiteral(", %1 given up").arg(failed) : QString()) << "\n";
        s.out.flush();
        s.err.flush();
        return exitCode;
    };

    CliCatchSignals();
    code = s.openPort("burn");
    if (code != kExitOk)
        return code;
    ChooseFile(s.link, burn, file);
    s.flushLog();
    if (!s.link.view.Command4Enabled)
        return finish(kExitFailed, "cannot read " + file);
    Command4Click(s.link, burn);
    s.flushLog();
    if (s.link.view.Command4Caption != QLatin1String("Stop"))
        // The log pane says only " File open error "; the reason goes here.
        return finish(kExitFailed, "the image was refused: " + burn.Refusal.trimmed());

    const bool terminal = isatty(fileno(json ? stderr : stdout));
    QElapsedTimer sinceProgress, chipClock;
    sinceProgress.start();
    int lastBytes = -1, lastRetries = 0, lastTenth = -1;
    bool wasActive = false;
    auto progress = [&] {
        const ChipLog &c = burn.chipLog;
        storeNews();
        if (target > 1 && burn.ChipsDone >= target - 1)
            s.link.view.Check1[3] = false;
        if (!burn.chipLog.writeError.isEmpty() && !burn.chipLog.errorShown) {
            burn.chipLog.errorShown = true;
            s.err << "the chip record could not be written (the burn goes on): " << burn.chipLog.writeError << Qt::endl;
        }
        if (c.active != wasActive) {
            wasActive = c.active;
            sinceProgress.restart();
            answered = false;
            badCrc = 0;
            chipClock.restart();
            lastRetries = 0;
            lastTenth = -1;
            lastBytes = 0;
        }
        if (!c.active) {
            // Waiting for a chip: an answering board is no reason to stop, and
            // with AutoLoad an empty bench after the first chip is the
            // operator's time, limited only by --total-timeout.
            if (answered || (autoLoad && c.begun > 0)) {
                sinceProgress.restart();
                badCrc = 0;
            }
            answered = false;
            return;
        }
        if (c.current.retries > lastRetries) {
            lastRetries = c.current.retries;
            const QString what = lastAnswer.outcome == 0 ? QStringLiteral("refused (status %1)").arg(uint8_t(lastAnswer.frame.size() > 2 ? lastAnswer.frame[2] : 0), 2, 16, QLatin1Char('0'))
                                                         : OutcomeText(lastAnswer.outcome);
            s.err << "chip " << burn.ChipsDone + 1 << ": function " << QStringLiteral("%1").arg(lastAnswer.function, 2, 16, QLatin1Char('0')).toUpper()
                  << " " << what << ", asked again (retry " << lastRetries << ")" << Qt::endl;
        }
        // The strip's bar: it only grows within a chip.
        const View &v = s.link.view;
        const int bytes = v.PersLabVisible && v.InfLabWidth > 20
            ? int(qint64(burn.BinLen) * v.PersLabWidth / (v.InfLabWidth - 20)) : 0;
        if (bytes != lastBytes) {
            lastBytes = bytes;
            sinceProgress.restart();
            answered = false;
            badCrc = 0;
        }
        if (quiet || burn.BinLen <= 0)
            return;
        const int percent = int(100.0 * bytes / burn.BinLen);
        const double secs = chipClock.elapsed() / 1000.0;
        const double rate = secs > 0 ? bytes / secs : 0;
        const double left = rate > 0 ? (burn.BinLen - bytes) / rate : 0;
        const QString line = QStringLiteral("chip %1: %2%, %3, %4 left")
                                 .arg(burn.ChipsDone + 1).arg(percent).arg(rateText(rate), durationText(left));
        if (terminal) {
            if (line != lastLine) {
                info << '\r' << line.leftJustified(lastLine.size()) << Qt::flush;
                lastLine = line;
            }
        } else if (percent / 10 != lastTenth) {
            lastTenth = percent / 10;
            info << line << Qt::endl;
        }
    };
    // Log lines start on a line of their own after a redrawn progress line.
    auto flushWithProgress = [&] {
        if (terminal && !lastLine.isEmpty() && s.link.view.RTB.size() > s.logPrinted && s.printLog) {
            info << '\n';
            lastLine.clear();
        }
    };
    bool portLost = false, stalled = false;
    auto finished = [&] {
        if (!s.port.isOpen()) {
            portLost = true;
            return true;
        }
        if (sinceProgress.elapsed() >= qint64(timeout * 1000)) {
            stalled = true;
            return true;
        }
        if (target > 0 && burn.ChipsDone >= target)
            return true;
        return s.link.view.Command4Caption != QLatin1String("Stop");
    };
    const CliSession::End end = s.run(finished, total, [&] { flushWithProgress(); progress(); });
    const QString count = QStringLiteral("%1 chip(s) done").arg(burn.ChipsDone);
    auto stop = [&](const QString &result) {
        ChipLogEnd(s.link, burn, result);
        if (s.link.view.Command4Caption == QLatin1String("Stop"))
            Command4Click(s.link, burn);
        s.flushLog();
    };
    if (end == CliSession::End::Interrupted) {
        stop(QStringLiteral("interrupted"));
        return finish(kExitInterrupted, "interrupted");
    }
    if (portLost) {
        stop(QStringLiteral("port lost"));
        return finish(kExitPort, QStringLiteral("port %1: lost during the burn").arg(port));
    }
    if (end == CliSession::End::TimedOut) {
        stop(QStringLiteral("timed out"));
        return finish(kExitNoAnswer, QStringLiteral("time limit of %1 s passed").arg(total));
    }
    if (stalled) {
        const bool none = !answered;
        stop(QStringLiteral("timed out"));
        return finish(kExitNoAnswer, none ? NoAnswerText(port, timeout, badCrc)
                                          : QStringLiteral("chip %1 made no progress on %2 for %3 s").arg(burn.ChipsDone + 1).arg(port).arg(timeout));
    }
    // Let the monitor take the line back, as the window would, before closing.
    if (s.link.view.Command4Caption != QLatin1String("Stop"))
        s.run([&] { return s.link.LinkMode == 0 || !s.port.isOpen(); }, 2);
    if (target > 0 && burn.ChipsDone < target)
        return finish(kExitFailed, "the burn ended early");
    return finish(kExitOk, QString());
}
