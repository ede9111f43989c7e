// bench-station: the production station on 1, 2, 4 and 8 boards of
// pyrolink-sim at once, which paces both directions of every line at the
// baud rate, burning 32,767-byte images (the most a burn carries) with
// AutoLoad, in normal mode and on the fast line. Prints payload bytes a
// second and chips an hour for each number of ports, the scaling against one
// port, the tick period (mean and worst) and this program's CPU.
// Usage: bench-station [--chips K] [--ports 1,2,4,8] [--window] [--fast-only]
//                      [--erase-ms MS] [--erase-overlap] [--erase-ticks N]
//                      [--flaky B@P] [--timeline] [--sim PATH]
// (K chips per port, 2 unless told; --window shows the station window, on
// whatever display Qt finds, and ticks by its timer; --erase-ms is the
// board's page erase time, 20 unless told, --erase-overlap a board that
// answers the erase at once and erases while the next frame comes in;
// --timeline prints where one port's exchange time goes)
#include "benchkit.h"
#include "station.h"
#include "stationwindow.h"

#include <QApplication>
#include <QFile>
#include <QTemporaryDir>
#include <map>
#include <sys/resource.h>

using namespace pyro;

namespace {

double cpuSeconds()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

struct Result {
    bool ok = false;
    QString why;
    double wallS = 0;
    int good = 0;
    int failed = 0;
    qint64 bytes = 0;
    double tickMean = 0, tickWorst = 0;
    int stalls = 0;                      // ticks more than 50 ms apart
    double cpuShare = 0;                 // of one core
    double burnMs = 0;                   // the good chips' own burn times, summed
};

// One exchange of the first port as the master saw it, in steady µs.
struct Exchange {
    uint8_t function = 0;
    int sentLen = 0, replyLen = 0;
    qint64 sentUs = 0, judgedUs = 0;
    int16_t outcome = -1;
};

qint64 steadyUs()
{
    static QElapsedTimer t;
    if (!t.isValid())
        t.start();
    return t.nsecsElapsed() / 1000;
}

// Where the time of the first port's exchanges went, by function: the wire
// (request and reply bytes at the baud rate), the board (between the
// request's last byte and the reply's first, with the line's small delays),
// and the turnaround (from the reply judged to the next frame handed to the
// port, the 3.5-character gap included).
void printTimeline(const QList<Exchange> &xs, double byteUs, qint64 gapUs, QTextStream &out)
{
    struct Sum {
        int n = 0, judgedFast = 0;
        double wire = 0, board = 0, turn = 0, turnOverGap = 0;
        int late = 0;                    // turnarounds a tick or more long
    };
    std::map<int, Sum> by;
    Sum all;
    for (int i = 0; i + 1 < xs.size(); ++i) {
        const Exchange &x = xs[i];
        if (x.judgedUs == 0)
            continue;
        const double wire = double(x.sentLen + x.replyLen) * byteUs;
        const double board = double(x.judgedUs - x.sentUs) - wire;
        const double turn = double(xs[i + 1].sentUs - x.judgedUs);
        for (Sum *s : {&by[x.function], &all}) {
            ++s->n;
            s->wire += wire;
            s->board += board;
            s->turn += turn;
            s->turnOverGap += std::max(0.0, turn - double(gapUs));
            s->late += turn >= 15000;
        }
    }
    out << QString("  timeline of port 1: %1 exchanges, gap %2 us\n").arg(all.n).arg(gapUs);
    out << QString("    %1 %2 %3 %4 %5 %6 %7\n")
               .arg("function", -8).arg("n", 6).arg("wire ms", 10).arg("board ms", 10).arg("turn ms", 10)
               .arg("over gap", 10).arg(">=1 tick", 9);
    auto line = [&](const QString &name, const Sum &s) {
        out << QString("    %1 %2 %3 %4 %5 %6 %7\n")
                   .arg(name, -8).arg(s.n, 6)
                   .arg(s.wire / 1000.0, 10, 'f', 0).arg(s.board / 1000.0, 10, 'f', 0).arg(s.turn / 1000.0, 10, 'f', 0)
                   .arg(s.turnOverGap / 1000.0, 10, 'f', 0).arg(s.late, 9);
    };
    for (const auto &[fn, s] : by)
        line(QString("0x%1").arg(fn, 2, 16, QChar('0')), s);
    line("all", all);
}

Result runStation(const QString &simPath, const QString &image, int ports, int chipsPerPort, bool fast, bool window,
                  const QStringList &simArgs, QTextStream &err, QList<Exchange> *timeline = nullptr)
{
    Result r;
    QProcess sim;
    const QString first = startSim(sim, simPath,
                                   QStringList{"--boards", QString::number(ports), "--swap-after-burn", "--no-stdin"} + simArgs, err);
    if (first.isEmpty()) {
        r.why = "no simulated boards";
        return r;
    }
    const QStringList ptys = first.split(' ', Qt::SkipEmptyParts);

    std::unique_ptr<StationWindow> win;
    Station own;
    Station *st = &own;
    if (window) {
        win = std::make_unique<StationWindow>(nullptr);
        win->tickTimer().stop();
        st = &win->station;
    }
    st->recordFolder.clear();            // a benchmark leaves no records
    st->autoLoad = true;
    st->fastLine = fast;
    st->chipsTarget = ports * chipsPerPort;
    for (const QString &p : ptys) {
        QString why;
        if (!StationAddPort(*st, p, &why)) {
            r.why = why;
            return r;
        }
    }
    if (timeline && !st->ports.empty()) {
        Link &l = st->ports.front()->link;
        auto watched = l.onExchange;
        l.onExchange = [timeline, watched](const ExchangeRecord &e) {
            if (e.direction == ExchangeRecord::Sent) {
                Exchange x;
                x.function = e.function;
                x.sentLen = int(e.frame.size());
                x.sentUs = steadyUs();
                timeline->append(x);
            } else if (!timeline->isEmpty() && timeline->last().judgedUs == 0) {
                timeline->last().judgedUs = steadyUs();
                timeline->last().replyLen = int(e.frame.size());
                timeline->last().outcome = e.outcome;
            }
            watched(e);
        };
    }
    st->onChip = [&r](StationPort &, const ChipRecord &c) {
        if (c.result == QLatin1String("done"))
            r.burnMs += double(c.durationMs);
    };
    StationLoadFile(*st, image, nullptr);
    if (win) {
        win->show();
        win->refresh();
    }
    if (!StationStart(*st)) {
        r.why = st->message;
        return r;
    }

    QElapsedTimer wall, sinceTick;
    qint64 tickCount = 0;
    double sumMs = 0;
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    tick.setInterval(15);
    auto onTick = [&] {
        if (sinceTick.isValid()) {
            const double ms = sinceTick.nsecsElapsed() / 1e6;
            sumMs += ms;
            ++tickCount;
            r.tickWorst = std::max(r.tickWorst, ms);
            r.stalls += ms > 50;
        }
        sinceTick.start();
    };
    // With the window its own timer ticks and refreshes; the measure rides on it.
    QTimer &driver = win ? win->tickTimer() : tick;
    QObject::connect(&driver, &QTimer::timeout, onTick);
    if (!win)
        QObject::connect(&tick, &QTimer::timeout, [st] { StationTick(*st); });
    const double cpu0 = cpuSeconds();
    wall.start();
    driver.start();
    waitUntil([st] { return !StationRunning(*st); }, 900000);
    driver.stop();
    r.wallS = wall.nsecsElapsed() / 1e9;
    r.cpuShare = (cpuSeconds() - cpu0) / r.wallS;
    r.good = st->good;
    r.failed = st->failed;
    r.bytes = qint64(st->good) * st->binLen;
    r.tickMean = tickCount ? sumMs / double(tickCount) : 0;
    StationStop(*st);
    sim.terminate();
    if (!sim.waitForFinished(3000))
        sim.kill();
    r.ok = r.good == st->chipsTarget;
    if (!r.ok)
        r.why = QString("%1 of %2 chips").arg(r.good).arg(st->chipsTarget);
    return r;
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QTextStream out(stdout), err(stderr);
    const QStringList args = app.arguments().mid(1);
    QString simPath = QCoreApplication::applicationDirPath() + "/pyrolink-sim";
    int chips = 2;
    QList<int> counts{1, 2, 4, 8};
    bool window = false;
    QList<bool> modes{false, true};
    QStringList simArgs;
    bool timeline = false;
    for (int i = 0; i < args.size(); ++i) {
        if (args[i] == "--chips" && i + 1 < args.size())
            chips = std::max(1, args[++i].toInt());
        else if (args[i] == "--sim" && i + 1 < args.size())
            simPath = args[++i];
        else if (args[i] == "--ports" && i + 1 < args.size()) {
            counts.clear();
            for (const QString &n : args[++i].split(','))
                if (n.toInt() >= 1 && n.toInt() <= 16)
                    counts << n.toInt();
        } else if (args[i] == "--window")
            window = true;
        else if (args[i] == "--fast-only")
            modes = {true};
        else if ((args[i] == "--erase-ticks" || args[i] == "--erase-ms") && i + 1 < args.size()) {
            simArgs << args[i] << args[i + 1];
            ++i;
        } else if (args[i] == "--flaky" && i + 1 < args.size()) {
            simArgs << args[i] << args[i + 1];
            ++i;
        } else if (args[i] == "--erase-overlap")
            simArgs << args[i];
        else if (args[i] == "--timeline")
            timeline = true;
        else {
            err << "usage: bench-station [--chips K] [--ports 1,2,4,8] [--window] [--fast-only] [--erase-ms MS] "
                   "[--erase-overlap] [--erase-ticks N] [--flaky B@P] [--timeline] [--sim PATH]\n";
            return 2;
        }
    }

    QTemporaryDir dir;
    QByteArray img(kMaxImageLen, '\0');
    for (int i = 0; i < img.size(); ++i)
        img[i] = char((i * 131 + (i >> 9)) & 0xFF);
    img.replace(1024, 50, QByteArray(50, char(0xFF)));
    const QString path = dir.filePath("largest.BIN");
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly) || f.write(img) != img.size()) {
        err << "bench-station: cannot write " << path << "\n";
        return 2;
    }
    f.close();

    out << QString("57600 baud, image %1 bytes, frame length 512, %2 chip(s) a port, AutoLoad with chip swaps%3%4\n")
               .arg(img.size()).arg(chips).arg(window ? ", station window shown" : "")
               .arg(simArgs.isEmpty() ? QString() : ", board: " + simArgs.join(' '));
    // The raw rate: the line's own bytes a second, start, data, parity and
    // stop bits counted (8N1 at 57600: 5760). "raw %" is the payload over the
    // whole run, chip swaps included; "chip %" over the chips' own burn times
    // (identity read to the last close answered), per port.
    const double raw = 57600.0 / 10.0;
    out << QString("  %1 %2 %3 %4 %5 %6 %7 %8 %9 %10 %11\n")
               .arg("mode", -7).arg("ports", 5).arg("wall s", 7).arg("byte/s", 7).arg("raw %", 6).arg("chip %", 6)
               .arg("chips/h", 8).arg("scaling", 8).arg("tick ms mean/worst", 19).arg(">50ms", 5).arg("CPU %", 6);
    int status = 0;
    for (bool fast : modes) {
        double onePort = 0;
        for (int n : counts) {
            QList<Exchange> xs;
            const Result r = runStation(simPath, path, n, chips, fast, window, simArgs, err,
                                        timeline && n == 1 ? &xs : nullptr);
            if (!r.ok) {
                err << "bench-station: " << (fast ? "fast" : "normal") << " on " << n << " port(s): " << r.why << "\n";
                status = 1;
                continue;
            }
            const double perHour = r.good * 3600.0 / r.wallS;
            if (n == 1)
                onePort = perHour;
            out << QString("  %1 %2 %3 %4 %5 %6 %7 %8 %9 %10 %11\n")
                       .arg(fast ? "fast" : "normal", -7)
                       .arg(n, 5)
                       .arg(r.wallS, 7, 'f', 1)
                       .arg(r.bytes / r.wallS, 7, 'f', 0)
                       .arg(100.0 * r.bytes / r.wallS / n / raw, 6, 'f', 1)
                       .arg(r.burnMs > 0 ? 100.0 * double(r.bytes) / (r.burnMs / 1000.0) / raw : 0.0, 6, 'f', 1)
                       .arg(perHour, 8, 'f', 0)
                       .arg(onePort > 0 ? QString("%1x").arg(perHour / onePort, 0, 'f', 2) : QString("-"), 8)
                       .arg(QString("%1 / %2").arg(r.tickMean, 0, 'f', 2).arg(r.tickWorst, 0, 'f', 1), 19)
                       .arg(r.stalls, 5)
                       .arg(100.0 * r.cpuShare, 6, 'f', 1);
            if (!xs.isEmpty())
                printTimeline(xs, 1e6 / raw, FastGapUs(PortSettings{}), out);
            out.flush();
        }
    }
    return status;
}
