// pyrolink-sim: the simulated board behind a pseudo-terminal, for end-to-end
// runs of the master. One thread, one Qt event loop.
#include "appfolder.h"
#include "frame.h"
#include "help.h"
#include "simboard.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSocketNotifier>
#include <QTimer>

#include <algorithm>
#include <memory>
#include <vector>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/timerfd.h>
#include <termios.h>
#include <unistd.h>

using namespace pyro;

namespace {

// For the signal handler: the links to remove on SIGTERM/SIGINT.
constexpr int kMaxBoards = 16;
char g_linkPath[kMaxBoards][1024];

void onSignal(int)
{
    for (auto &path : g_linkPath)
        if (path[0])
            ::unlink(path);
    ::_exit(0);
}

speed_t baudConstant(int baud)
{
    switch (baud) {
    case 1200: return B1200;
    case 2400: return B2400;
    case 4800: return B4800;
    case 9600: return B9600;
    case 19200: return B19200;
    case 38400: return B38400;
    case 57600: return B57600;
    case 115200: return B115200;
    case 230400: return B230400;
    default: return B57600;
    }
}

void say(const QByteArray &line)
{
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

// One direction of the line at its rate: bytes queued now come out one
// character time after another, never faster.
struct PacedPipe {
    double byteUs = 0;          // 0 = no pacing, everything at once
    QByteArray pending;
    double startUs = 0;         // when the first pending byte is fully on the line
    double lastEndUs = 0;       // when the last byte taken was through

    void push(double nowUs, const QByteArray &bytes)
    {
        if (bytes.isEmpty())
            return;
        if (pending.isEmpty())
            startUs = std::max(startUs, nowUs) + byteUs;
        pending += bytes;
    }
    QByteArray take(double nowUs)
    {
        if (byteUs <= 0 || pending.isEmpty()) {
            QByteArray all = pending;
            pending.clear();
            lastEndUs = nowUs;
            return all;
        }
        if (nowUs < startUs)
            return {};
        const qsizetype n = std::min(pending.size(), qsizetype((nowUs - startUs) / byteUs) + 1);
        const QByteArray head = pending.left(n);
        pending.remove(0, n);
        startUs += double(n) * byteUs;
        lastEndUs = startUs - byteUs;
        if (pending.isEmpty())
            startUs -= byteUs;  // the line is free when the last byte has ended
        return head;
    }
};

class SimHost : public QObject {
public:
    // lineByteUs > 0 paces both directions here, at that many µs a character.
    SimHost(const SimOptions &options, bool trace, double lineByteUs)
        : m_board(options)
    {
        m_in.byteUs = m_out.byteUs = lineByteUs;
        if (trace)
            m_board.onFrame = [](const QByteArray &frame, bool fromMaster) {
                std::fprintf(stderr, "%s %s\n", fromMaster ? ">>" : "<<", toHexLine(frame).constData());
            };
    }

    ~SimHost() override
    {
        closeLine();
        if (!m_linkPath.isEmpty())
            QFile::remove(m_linkPath);
    }

    bool openLine(int baud, QString *slavePath, QString *error)
    {
        m_master = ::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
        if (m_master < 0 || ::grantpt(m_master) != 0 || ::unlockpt(m_master) != 0) {
            *error = QStringLiteral("posix_openpt: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
        const char *name = ::ptsname(m_master);
        if (!name) {
            *error = QStringLiteral("ptsname failed");
            return false;
        }
        *slavePath = QString::fromLocal8Bit(name);
        // Our own hold on the slave: without it the master reads EIO whenever
        // the peer has the port closed, and the peer's settings would be lost.
        m_slave = ::open(name, O_RDWR | O_NOCTTY | O_NONBLOCK);
        if (m_slave < 0) {
            *error = QStringLiteral("open %1: %2").arg(*slavePath, QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
        termios tio{};
        if (::tcgetattr(m_slave, &tio) == 0) {
            ::cfmakeraw(&tio);
            ::cfsetispeed(&tio, baudConstant(baud));
            ::cfsetospeed(&tio, baudConstant(baud));
            tio.c_cflag |= CLOCAL | CREAD;
            ::tcsetattr(m_slave, TCSANOW, &tio);
        }
        m_readNote = new QSocketNotifier(m_master, QSocketNotifier::Read, this);
        connect(m_readNote, &QSocketNotifier::activated, this, [this] { readLine(); });
        return true;
    }

    bool makeLink(const QString &path, const QString &target, int slot, QString *error)
    {
        const QFileInfo fi(path);
        if (fi.isSymLink())
            QFile::remove(path);
        else if (fi.exists()) {
            *error = QStringLiteral("%1 exists and is not a link").arg(path);
            return false;
        }
        if (::symlink(QFile::encodeName(target).constData(), QFile::encodeName(path).constData()) != 0) {
            *error = QStringLiteral("symlink %1: %2").arg(path, QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
        m_linkPath = path;
        const QByteArray p = QFile::encodeName(path);
        std::strncpy(g_linkPath[slot], p.constData(), sizeof g_linkPath[slot] - 1);
        return true;
    }

    void start()
    {
        m_clock.start();
        m_timer.setTimerType(Qt::PreciseTimer);
        // A paced line is looked at every millisecond, so that a frame is
        // taken and answered as soon as its last character is through.
        m_timer.setInterval(m_in.byteUs > 0 ? 1 : 5);
        connect(&m_timer, &QTimer::timeout, this, [this] { advance(); });
        m_timer.start();
        // The millisecond timer moves bytes along; the moment the last byte
        // of a frame is through is met to the microsecond by a timer file.
        if (m_in.byteUs > 0) {
            m_endFd = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
            if (m_endFd >= 0) {
                m_endNote = new QSocketNotifier(m_endFd, QSocketNotifier::Read, this);
                connect(m_endNote, &QSocketNotifier::activated, this, [this] {
                    uint64_t expirations = 0;
                    if (::read(m_endFd, &expirations, sizeof expirations) < 0) {
                        // EAGAIN: nothing expired after all
                    }
                    pump();
                });
            }
        }
    }

    SimBoard &board() { return m_board; }

    // The page erase timed to the microsecond here, rather than in the
    // board's whole ticks; overlap: answered at once, erased meanwhile.
    void setEraseTime(double us, bool overlap)
    {
        m_paceErase = true;
        m_eraseUs = us;
        m_overlapErase = overlap;
    }

    // Now and then a reply lost or spoiled: percent of the frames heard.
    // The dice are thrown once a whole frame, not once a piece of the
    // line: a long frame comes in many pieces.
    void setFlaky(int percent, unsigned seed)
    {
        m_board.flakyPercent = percent;
        m_board.flakySeed = seed;
    }

private:
    void readLine()
    {
        char buf[4096];
        for (;;) {
            const ssize_t n = ::read(m_master, buf, sizeof buf);
            if (n > 0) {
                m_in.push(nowUs(), QByteArray(buf, int(n)));
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            // EAGAIN: all read. EIO would mean nobody holds the slave; we do.
            break;
        }
        pump();
    }

    double nowUs() const { return double(m_clock.nsecsElapsed()) / 1000.0; }

    // Whatever of the master's frame has come through the line reaches the
    // board; its replies due now go on the line from the moment the request
    // was through, however late this timer came.
    void pump()
    {
        const QByteArray heard = m_in.take(nowUs());
        if (!heard.isEmpty()) {
            const int erases = m_board.requests[kFnErasePage];
            simReceive(m_board, heard);
            // The flash is busy for the erase's time from the end of its
            // request. A blocking loader answers when it is done; an
            // overlapping one answers at once and takes the next frame into
            // RAM meanwhile, so only a request that comes sooner waits.
            const double through = std::min(m_in.lastEndUs, nowUs());
            double at = std::max(through, m_flashBusyUntilUs);
            if (m_paceErase && m_board.requests[kFnErasePage] != erases) {
                m_flashBusyUntilUs = through + m_eraseUs;
                at = m_overlapErase ? through : m_flashBusyUntilUs;
            }
            m_out.push(at, simGiveOut(m_board));
        }
        if (m_master >= 0)
            m_toWrite += m_out.take(nowUs());
        flush();
        armEnd();
    }

    // Wakes the host when the last pending byte of either direction is through.
    void armEnd()
    {
        if (m_endFd < 0)
            return;
        double at = -1;
        for (const PacedPipe *p : {&m_in, &m_out})
            if (!p->pending.isEmpty()) {
                const double end = p->startUs + double(p->pending.size() - 1) * p->byteUs;
                at = at < 0 ? end : std::min(at, end);
            }
        itimerspec endAt{};
        if (at >= 0) {
            const double leftUs = std::max(1.0, at - nowUs());
            const qint64 ns = qint64(leftUs * 1000.0);
            endAt.it_value.tv_sec = time_t(ns / 1000000000);
            endAt.it_value.tv_nsec = long(ns % 1000000000);
        }
        ::timerfd_settime(m_endFd, 0, &endAt, nullptr);   // zero disarms
    }

    // Board time follows the wall clock in whole ticks, however late the timer.
    void advance()
    {
        const qint64 target = m_clock.elapsed() / kSimMsPerTick;
        while (m_board.tick < target) {
            const QByteArray due = simTick(m_board);
            m_out.push(std::min(double(m_board.tick) * kSimMsPerTick * 1000.0, nowUs()), due);
            if (m_board.tick % 66 == 0 && m_slave >= 0)
                ::ioctl(m_slave, TIOCNXCL);   // a peer that died holding the port exclusive
        }
        pump();
    }

    void flush()
    {
        while (m_master >= 0 && !m_toWrite.isEmpty()) {
            const ssize_t n = ::write(m_master, m_toWrite.constData(), size_t(m_toWrite.size()));
            if (n > 0) {
                m_toWrite.remove(0, n);
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            break;   // full: the rest goes with the next tick
        }
    }

    void closeLine()
    {
        delete m_endNote;
        m_endNote = nullptr;
        if (m_endFd >= 0)
            ::close(m_endFd);
        m_endFd = -1;
        delete m_readNote;
        m_readNote = nullptr;
        if (m_slave >= 0)
            ::close(m_slave);
        if (m_master >= 0)
            ::close(m_master);
        m_slave = m_master = -1;
        m_toWrite.clear();
        m_in.pending.clear();
        m_out.pending.clear();
    }

public:
    // One command of stdin for this board; false if it is not one.
    bool command(const QStringList &w)
    {
        const QString verb = w.value(0).toLower();
        bool ok = true;
        if (verb == QLatin1String("silent") && w.size() == 2
                   && (w[1] == QLatin1String("on") || w[1] == QLatin1String("off"))) {
            simSetSilent(m_board, w[1] == QLatin1String("on"));
        } else if (verb == QLatin1String("swap") && w.size() <= 2) {
            const QByteArray id = QByteArray::fromHex(w.value(1).toLatin1());
            ok = w.size() == 1 || id.size() == 12;
            if (ok)
                simSwapChip(m_board, id);
        } else if (verb == QLatin1String("fault") && w.size() >= 2 && w.size() <= 4) {
            ok = armFault(m_board, w[1], w.value(2), w.value(3));
        } else if (verb == QLatin1String("clear") && w.size() == 1) {
            simClearFaults(m_board);
        } else if (verb == QLatin1String("mode") && w.size() == 2) {
            const int m = w[1].toInt(&ok);
            ok = ok && m >= 0 && m <= 255;
            if (ok)
                simSetMode(m_board, uint8_t(m));
        } else if (verb == QLatin1String("close") && w.size() == 1) {
            closeLine();
        } else {
            ok = false;
        }
        return ok;
    }

public:
    // "DropReply", "3", "07" (hex function code); count and function optional.
    static bool armFault(SimBoard &b, const QString &name, const QString &count, const QString &function)
    {
        const SimFault f = simFaultFromName(name);
        if (f == SimFault::None)
            return false;
        bool ok = true;
        const int n = count.isEmpty() ? 1 : count.toInt(&ok);
        if (!ok || n == 0)
            return false;
        int fn = -1;
        if (!function.isEmpty()) {
            fn = function.toInt(&ok, 16);
            if (!ok || fn < 0 || fn > 255)
                return false;
        }
        simArmFault(b, f, n, fn);
        return true;
    }

private:
    SimBoard m_board;
    int m_master = -1;
    int m_slave = -1;
    QSocketNotifier *m_readNote = nullptr;
    QSocketNotifier *m_endNote = nullptr;
    int m_endFd = -1;
    QTimer m_timer;
    QElapsedTimer m_clock;
    QByteArray m_toWrite;
    PacedPipe m_in, m_out;
    QString m_linkPath;
    bool m_paceErase = false;
    double m_eraseUs = 0;
    bool m_overlapErase = false;
    double m_flashBusyUntilUs = 0;
};

// The commands on stdin, for one board ("2@silent on") or for all.
class Commands : public QObject {
public:
    explicit Commands(std::vector<std::unique_ptr<SimHost>> &hosts)
        : m_hosts(hosts)
    {
        m_note = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, this);
        connect(m_note, &QSocketNotifier::activated, this, [this] { readCommands(); });
    }

private:
    void readCommands()
    {
        char buf[1024];
        const ssize_t n = ::read(STDIN_FILENO, buf, sizeof buf);
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            return;
        if (n <= 0) {
            m_note->setEnabled(false);
            QCoreApplication::quit();
            return;
        }
        m_text.append(buf, int(n));
        int nl;
        while ((nl = int(m_text.indexOf('\n'))) >= 0) {
            const QByteArray line = m_text.left(nl).trimmed();
            m_text.remove(0, nl + 1);
            if (!line.isEmpty())
                command(QString::fromUtf8(line));
        }
    }

    void command(const QString &line)
    {
        QStringList w = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (w.value(0).toLower() == QLatin1String("quit")) {
            say("ok quit");
            QCoreApplication::quit();
            return;
        }
        // "B@verb ...": board B only, counted from 1.
        int only = 0;
        bool ok = true;
        const int at = int(w.value(0).indexOf(QLatin1Char('@')));
        if (at > 0) {
            only = w[0].left(at).toInt(&ok);
            ok = ok && only >= 1 && only <= int(m_hosts.size());
            w[0] = w[0].mid(at + 1);
        }
        for (int i = 0; ok && i < int(m_hosts.size()); ++i)
            if (only == 0 || only == i + 1)
                ok = m_hosts[size_t(i)]->command(w);
        say((ok ? "ok " : "error ") + line.toUtf8());
    }

    std::vector<std::unique_ptr<SimHost>> &m_hosts;
    QSocketNotifier *m_note = nullptr;
    QByteArray m_text;
};

int fail(const QString &text)
{
    std::fprintf(stderr, "pyrolink-sim: %s\n", text.toLocal8Bit().constData());
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("pyrolink-sim"));
    QCoreApplication::setApplicationVersion(pyro::VersionText());

    QCommandLineParser p;
    p.setApplicationDescription(QStringLiteral("The simulated controller board on a pseudo-terminal."));
    p.addHelpOption();
    p.addVersionOption();
    p.addOption({QStringLiteral("link"), QStringLiteral("Symlink to the slave device, one per board or one ending in a number that counts up; a bare name (COM4) goes in the tools' application folder."), QStringLiteral("path")});
    p.addOption({QStringLiteral("boards"), QStringLiteral("Boards, each on its own pseudo-terminal (1)."), QStringLiteral("n"), QStringLiteral("1")});
    p.addOption({QStringLiteral("flaky"), QStringLiteral("[B@]P: P% of the frames heard get a reply lost or spoiled."), QStringLiteral("percent")});
    p.addOption({QStringLiteral("baud"), QStringLiteral("Line speed for pacing (57600)."), QStringLiteral("n"), QStringLiteral("57600")});
    p.addOption({QStringLiteral("no-pace"), QStringLiteral("Take requests and give replies at once.")});
    p.addOption({QStringLiteral("mode"), QStringLiteral("Board mode 1 loader, 2 running, 3 stopped."), QStringLiteral("n"), QStringLiteral("2")});
    p.addOption({QStringLiteral("id"), QStringLiteral("Chip identity, 24 hex digits."), QStringLiteral("hex")});
    p.addOption({QStringLiteral("erase-ticks"), QStringLiteral("Ticks a page erase takes, in the board's 15 ms ticks (unpaced line)."), QStringLiteral("n")});
    p.addOption({QStringLiteral("erase-ms"), QStringLiteral("Milliseconds a page erase keeps the flash busy on a paced line (20)."), QStringLiteral("ms")});
    p.addOption({QStringLiteral("erase-overlap"), QStringLiteral("Answer a page erase at once and erase while the next frame comes in.")});
    p.addOption({QStringLiteral("swap-after-burn"), QStringLiteral("A new chip after each finished image.")});
    p.addOption({QStringLiteral("settings"), QStringLiteral("Factory settings block from a file."), QStringLiteral("file")});
    p.addOption({QStringLiteral("fault"), QStringLiteral("Arm a fault: [B@]NAME[:count[:function]] (board B, else all)."), QStringLiteral("fault")});
    p.addOption({QStringLiteral("no-stdin"), QStringLiteral("Take no commands; run until a signal.")});
    p.addOption({QStringLiteral("trace"), QStringLiteral("Frames in and out on stderr.")});
    p.process(app);

    SimOptions o;
    bool ok = true;
    const int baud = p.value(QStringLiteral("baud")).toInt(&ok);
    if (!ok || baud <= 0)
        return fail(QStringLiteral("bad --baud"));
    // The line is paced here, both ways, character by character; the board
    // itself gives its bytes out unpaced.
    const double byteUs = p.isSet(QStringLiteral("no-pace")) ? 0.0 : 10.0 * 1e6 / baud;
    const int mode = p.value(QStringLiteral("mode")).toInt(&ok);
    if (!ok || mode < 1 || mode > 3)
        return fail(QStringLiteral("bad --mode"));
    o.mode = uint8_t(mode);
    if (p.isSet(QStringLiteral("id"))) {
        const QString hex = p.value(QStringLiteral("id"));
        o.identity = QByteArray::fromHex(hex.toLatin1());
        if (hex.size() != 24 || o.identity.size() != 12)
            return fail(QStringLiteral("bad --id: 24 hex digits"));
    }
    if (p.isSet(QStringLiteral("erase-ticks"))) {
        o.eraseTicks = p.value(QStringLiteral("erase-ticks")).toInt(&ok);
        if (!ok || o.eraseTicks < 0)
            return fail(QStringLiteral("bad --erase-ticks"));
    }
    // On a paced line the erase is timed in microseconds by the host: 20 ms,
    // the typical page erase of a 1 KiB-page flash of this class (data
    // sheets give 20 to 40 ms).
    double eraseMs = 20;
    if (p.isSet(QStringLiteral("erase-ms"))) {
        eraseMs = p.value(QStringLiteral("erase-ms")).toDouble(&ok);
        if (!ok || eraseMs < 0 || eraseMs > 1000)
            return fail(QStringLiteral("bad --erase-ms"));
    }
    const bool eraseOverlap = p.isSet(QStringLiteral("erase-overlap"));
    const bool paceErase = byteUs > 0 && !p.isSet(QStringLiteral("erase-ticks"));
    if (paceErase)
        o.eraseTicks = 0;
    o.swapAfterBurn = p.isSet(QStringLiteral("swap-after-burn"));
    if (p.isSet(QStringLiteral("settings"))) {
        QFile f(p.value(QStringLiteral("settings")));
        if (!f.open(QIODevice::ReadOnly))
            return fail(QStringLiteral("cannot read %1").arg(f.fileName()));
        o.factorySettings = f.readAll();
        if (o.factorySettings.isEmpty())
            return fail(QStringLiteral("%1 is empty").arg(f.fileName()));
    }

    const int boards = p.value(QStringLiteral("boards")).toInt(&ok);
    if (!ok || boards < 1 || boards > kMaxBoards)
        return fail(QStringLiteral("bad --boards: 1 to %1").arg(kMaxBoards));
    // One --link per board, or one that ends in a number and counts up: COM4, COM5, ...
    QStringList links = p.values(QStringLiteral("link"));
    if (links.size() == 1 && boards > 1) {
        static const QRegularExpression tailNumber(QStringLiteral("^(.*?)(\\d+)$"));
        const auto m = tailNumber.match(links[0]);
        if (!m.hasMatch())
            return fail(QStringLiteral("--link %1 with --boards %2: give a link for each board, or one ending in a number")
                            .arg(links[0]).arg(boards));
        for (int i = 1; i < boards; ++i)
            links << m.captured(1) + QString::number(m.captured(2).toInt() + i);
    }
    if (!links.isEmpty() && links.size() != boards)
        return fail(QStringLiteral("%1 --link for %2 boards").arg(links.size()).arg(boards));

    std::vector<std::unique_ptr<SimHost>> hosts;
    for (int i = 0; i < boards; ++i) {
        SimOptions oi = o;
        // Each board its own chips: the first byte tells the boards apart,
        // swaps count up in the last four.
        if (oi.identity.isEmpty())
            oi.identity = simDefaultIdentity();
        oi.identity[0] = char(uint8_t(oi.identity[0]) + i);
        hosts.push_back(std::make_unique<SimHost>(oi, p.isSet(QStringLiteral("trace")), byteUs));
        if (paceErase)
            hosts.back()->setEraseTime(eraseMs * 1000.0, eraseOverlap);
    }
    // "[B@]NAME[:count[:function]]": board B only, else every board.
    auto boardOf = [&](QString &given, int *only) {
        *only = 0;
        const int at = int(given.indexOf(QLatin1Char('@')));
        if (at <= 0)
            return true;
        bool okB = false;
        *only = given.left(at).toInt(&okB);
        given = given.mid(at + 1);
        return okB && *only >= 1 && *only <= boards;
    };
    for (const QString &value : p.values(QStringLiteral("fault"))) {
        QString given = value;
        int only = 0;
        const QStringList parts = boardOf(given, &only) ? given.split(QLatin1Char(':')) : QStringList();
        if (parts.isEmpty() || parts.size() > 3)
            return fail(QStringLiteral("bad --fault %1").arg(value));
        for (int i = 0; i < boards; ++i)
            if ((only == 0 || only == i + 1)
                && !SimHost::armFault(hosts[size_t(i)]->board(), parts.value(0), parts.value(1), parts.value(2)))
                return fail(QStringLiteral("bad --fault %1").arg(value));
    }
    for (const QString &value : p.values(QStringLiteral("flaky"))) {
        QString given = value;
        int only = 0;
        bool okP = boardOf(given, &only);
        const int percent = given.toInt(&okP);
        if (!okP || percent < 0 || percent > 100)
            return fail(QStringLiteral("bad --flaky %1").arg(value));
        for (int i = 0; i < boards; ++i)
            if (only == 0 || only == i + 1)
                hosts[size_t(i)]->setFlaky(percent, unsigned(i + 1));
    }

    QByteArrayList slaves;
    for (int i = 0; i < boards; ++i) {
        QString slave, error;
        if (!hosts[size_t(i)]->openLine(baud, &slave, &error))
            return fail(error);
        if (!links.isEmpty()) {
            QString link = links[i];
            // A bare name is a port name, put where the window and the command
            // line look for their COMn links.
            if (!link.contains(QLatin1Char('/'))) {
                const AppFolder &folder = ApplicationFolder();
                if (!folder.error.isEmpty())
                    return fail(folder.error);
                link = QDir(folder.path).filePath(link);
            }
            if (!hosts[size_t(i)]->makeLink(link, slave, i, &error))
                return fail(error);
        }
        slaves << QFile::encodeName(slave);
    }
    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);
    std::signal(SIGPIPE, SIG_IGN);

    // What the board took, for a script or a test to hold against the burner's
    // record; with several boards, which board.
    for (int i = 0; i < boards; ++i) {
        const QByteArray which = boards > 1 ? ' ' + QByteArray::number(i + 1) : QByteArray();
        hosts[size_t(i)]->board().onImageClosed = [which](const SimFinishedImage &f) {
            const QByteArray image = f.flash.left(int(f.bytesDone));
            say("closed " + f.identity.toHex().toUpper() + ' ' + QByteArray::number(f.bytesDone) + ' '
                + QCryptographicHash::hash(image, QCryptographicHash::Sha256).toHex() + which);
        };
        hosts[size_t(i)]->start();
    }
    std::unique_ptr<Commands> commands;
    if (!p.isSet(QStringLiteral("no-stdin")))
        commands = std::make_unique<Commands>(hosts);
    say("ready " + slaves.join(' '));
    return app.exec();
}
