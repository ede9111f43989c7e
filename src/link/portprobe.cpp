#include "portprobe.h"
#include "frame.h"
#include "portcontrol.h"

namespace pyro {

namespace {

void poll(ProbeLine &l)
{
    MBBuildFrame(l.link, kFnLinkPoll, QByteArray(1, '\0'));
    MBSend(l.link, 3, 20, 20);   // the monitor's limits
    ++l.polls;
}

void settle(ProbeLine &l, ProbeAnswer a, const QString &detail = {})
{
    l.answer = a;
    if (!detail.isEmpty())
        l.detail = detail;
    if (l.port && l.port->isOpen())
        l.port->close();
}

} // namespace

QString ProbeAnswerText(ProbeAnswer a)
{
    switch (a) {
    case ProbeAnswer::Pending: return QStringLiteral("polling");
    case ProbeAnswer::NotOpened: return QStringLiteral("not opened");
    case ProbeAnswer::Silent: return QStringLiteral("no answer");
    case ProbeAnswer::NoBoard: return QStringLiteral("something talks, no board");
    case ProbeAnswer::Download: return QStringLiteral("board: download mode");
    case ProbeAnswer::Run: return QStringLiteral("board: run mode");
    case ProbeAnswer::Stop: return QStringLiteral("board: stop mode");
    }
    return {};
}

void StartProbe(PortProbe &probe, const QStringList &names, const QString &appDir, const PortSettings &settings,
                const PortFactory &makePort)
{
    StopProbe(probe);
    probe.lines.clear();
    for (const QString &name : names) {
        auto line = std::make_unique<ProbeLine>();
        ProbeLine *l = line.get();
        l->name = name;
        l->link.appDir = appDir;
        l->link.lineSettings = settings;
        probe.lines.push_back(std::move(line));
        const QString device = ResolvePortName(name, appDir);
        if (device.isEmpty()) {
            settle(*l, ProbeAnswer::NotOpened, QStringLiteral("names no port"));
            continue;
        }
        l->port = makePort();
        AttachPort(l->link, l->port.get());
        l->port->onComm = [l](CommEvent ev) {
            if (ev == comEvReceive)
                l->heard = true;
            OnComm(l->link, ev);
        };
        if (!l->port->open(device, settings)) {
            settle(*l, ProbeAnswer::NotOpened, l->port->errorText());
            continue;
        }
        poll(*l);
    }
}

void ProbeTick(PortProbe &probe)
{
    for (auto &line : probe.lines) {
        ProbeLine &l = *line;
        if (l.answer != ProbeAnswer::Pending)
            continue;
        if (!l.port || !l.port->isOpen()) {
            settle(l, ProbeAnswer::NotOpened, QStringLiteral("the port went away"));
            continue;
        }
        MBExchangeTick(l.link);
        if (l.link.MBStep != 0)
            continue;
        const QByteArray &rx = l.link.MBRxBuf;
        if (l.link.MBResult == 0 && rx.size() > 2) {
            switch (uint8_t(rx[2])) {
            case 1: settle(l, ProbeAnswer::Download); continue;
            case 2: settle(l, ProbeAnswer::Run); continue;
            case 3: settle(l, ProbeAnswer::Stop); continue;
            default: break;
            }
        }
        if (!rx.isEmpty())
            l.detail = QString::fromLatin1(toHexLine(rx.left(16)));
        if (l.polls >= probe.pollLimit) {
            settle(l, l.heard ? ProbeAnswer::NoBoard : ProbeAnswer::Silent);
            continue;
        }
        poll(l);
    }
}

bool ProbeDone(const PortProbe &probe)
{
    for (const auto &l : probe.lines)
        if (l->answer == ProbeAnswer::Pending)
            return false;
    return true;
}

void StopProbe(PortProbe &probe)
{
    for (auto &l : probe.lines)
        if (l->port && l->port->isOpen())
            l->port->close();
}

QStringList AnsweringFirst(const QStringList &names, const PortProbe &probe)
{
    QStringList first, rest;
    for (const QString &n : names) {
        bool answered = false;
        for (const auto &l : probe.lines)
            answered = answered || (l->name == n && BoardAnswered(l->answer));
        (answered ? first : rest) << n;
    }
    return first + rest;
}

} // namespace pyro
