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
#include <QSocketNotifier>
#include <QTimer>

#include <algorithm>
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

// For the signal handler: the link to remove on SIGTERM/SIGINT.
char g_linkPath[4096];

void onSignal(int)
{
    if (g_linkPath[0])
        ::unlink(g_linkPath);
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

    bool makeLink(const QString &path, const QString &target, QString *error)
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
        std::strncpy(g_linkPath, p.constData(), sizeof g_linkPath - 1);
        return true;
    }

    void start(bool readStdin)
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
        if (readStdin) {
            m_stdinNote = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, this);
            connect(m_stdinNote, &QSocketNotifier::activated, this, [this] { readCommands(); });
        }
    }

    SimBoard &board() { return m_board; }

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
            simReceive(m_board, heard);
            m_out.push(std::min(m_in.lastEndUs, nowUs()), simGiveOut(m_board));
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

    void readCommands()
    {
        char buf[1024];
        const ssize_t n = ::read(STDIN_FILENO, buf, sizeof buf);
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            return;
        if (n <= 0) {
            m_stdinNote->setEnabled(false);
            QCoreApplication::quit();
            return;
        }
        m_stdinText.append(buf, int(n));
        int nl;
        while ((nl = int(m_stdinText.indexOf('\n'))) >= 0) {
            const QByteArray line = m_stdinText.left(nl).trimmed();
            m_stdinText.remove(0, nl + 1);
            if (!line.isEmpty())
                command(QString::fromUtf8(line));
        }
    }

    void command(const QString &line)
    {
        const QStringList w = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        const QString verb = w.value(0).toLower();
        bool ok = true;
        if (verb == QLatin1String("quit")) {
            say("ok quit");
            QCoreApplication::quit();
            return;
        } else if (verb == QLatin1String("silent") && w.size() == 2
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
        say((ok ? "ok " : "error ") + line.toUtf8());
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
    QSocketNotifier *m_stdinNote = nullptr;
    QSocketNotifier *m_endNote = nullptr;
    int m_endFd = -1;
    QTimer m_timer;
    QElapsedTimer m_clock;
    QByteArray m_toWrite;
    PacedPipe m_in, m_out;
    QByteArray m_stdinText;
    QString m_linkPath;
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
    p.addOption({QStringLiteral("link"), QStringLiteral("Symlink to the slave device; a bare name (COM4) goes in the tools' application folder."), QStringLiteral("path")});
    p.addOption({QStringLiteral("baud"), QStringLiteral("Line speed for pacing (57600)."), QStringLiteral("n"), QStringLiteral("57600")});
    p.addOption({QStringLiteral("no-pace"), QStringLiteral("Take requests and give replies at once.")});
    p.addOption({QStringLiteral("mode"), QStringLiteral("Board mode 1 loader, 2 running, 3 stopped."), QStringLiteral("n"), QStringLiteral("2")});
    p.addOption({QStringLiteral("id"), QStringLiteral("Chip identity, 24 hex digits."), QStringLiteral("hex")});
    p.addOption({QStringLiteral("erase-ticks"), QStringLiteral("Ticks a page erase takes."), QStringLiteral("n")});
    p.addOption({QStringLiteral("swap-after-burn"), QStringLiteral("A new chip after each finished image.")});
    p.addOption({QStringLiteral("settings"), QStringLiteral("Factory settings block from a file."), QStringLiteral("file")});
    p.addOption({QStringLiteral("fault"), QStringLiteral("Arm a fault: NAME[:count[:function]]."), QStringLiteral("fault")});
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
    o.swapAfterBurn = p.isSet(QStringLiteral("swap-after-burn"));
    if (p.isSet(QStringLiteral("settings"))) {
        QFile f(p.value(QStringLiteral("settings")));
        if (!f.open(QIODevice::ReadOnly))
            return fail(QStringLiteral("cannot read %1").arg(f.fileName()));
        o.factorySettings = f.readAll();
        if (o.factorySettings.isEmpty())
            return fail(QStringLiteral("%1 is empty").arg(f.fileName()));
    }

    SimHost host(o, p.isSet(QStringLiteral("trace")), byteUs);
    for (const QString &given : p.values(QStringLiteral("fault"))) {
        const QStringList parts = given.split(QLatin1Char(':'));
        if (parts.size() > 3 || !SimHost::armFault(host.board(), parts.value(0), parts.value(1), parts.value(2)))
            return fail(QStringLiteral("bad --fault %1").arg(given));
    }

    QString slave, error;
    if (!host.openLine(baud, &slave, &error))
        return fail(error);
    if (p.isSet(QStringLiteral("link"))) {
        QString link = p.value(QStringLiteral("link"));
        // A bare name is a port name, put where the window and the command
        // line look for their COMn links.
        if (!link.contains(QLatin1Char('/'))) {
            const AppFolder &folder = ApplicationFolder();
            if (!folder.error.isEmpty())
                return fail(folder.error);
            link = QDir(folder.path).filePath(link);
        }
        if (!host.makeLink(link, slave, &error))
            return fail(error);
    }
    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);
    std::signal(SIGPIPE, SIG_IGN);

    // What the board took, for a script or a test to hold against the burner's record.
    host.board().onImageClosed = [](const SimFinishedImage &f) {
        const QByteArray image = f.flash.left(int(f.bytesDone));
        say("closed " + f.identity.toHex().toUpper() + ' ' + QByteArray::number(f.bytesDone) + ' '
            + QCryptographicHash::hash(image, QCryptographicHash::Sha256).toHex());
    };
    host.start(!p.isSet(QStringLiteral("no-stdin")));
    say("ready " + QFile::encodeName(slave));
    return app.exec();
}
