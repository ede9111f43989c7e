#pragma once
// A burn on a fake port, stepped the way the event loop steps the window:
// the port's transmit-empty notice, the replies due, then one tick. The far
// side is a function from request to reply (empty: silence), or the
// simulated board in-process.
#include "burn.h"
#include "fakeport.h"
#include "frame.h"
#include "link.h"
#include "portcontrol.h"
#include "simlink.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <functional>

struct BurnBench {
    pyro::Link link;
    pyro::FakePort port;
    pyro::ScriptedPrompter prompter;
    pyro::Burn burn;
    QList<QByteArray> due;                                      // replies for the next tick
    std::function<QByteArray(const QByteArray &)> responder;    // the device
    pyro::SimBoard *sim = nullptr;                              // or the simulated board

    BurnBench()
    {
        link.prompter = &prompter;
        link.now = [] { return QDateTime(QDate(2026, 11, 23), QTime(9, 30, 0)); };
        pyro::AttachPort(link, &port);
        pyro::AttachBurn(link, burn);
        pyro::InitPortBoxes(link.view);
        link.view.ComboSet[0].text = QStringLiteral("/dev/fake0");
        link.view.NotesTxt[5] = QStringLiteral("BENCH-7");
        port.onOutput = [this](const QByteArray &frame) {
            if (responder) {
                const QByteArray r = responder(frame);
                if (!r.isEmpty())
                    due << r;
            }
        };
    }
    void open() { pyro::Command2Click(link); }
    // The simulated board plays the far side from now on.
    void useSim(pyro::SimBoard &board)
    {
        sim = &board;
        pyro::attachSim(port, board);
    }
    void tick()
    {
        if (sim) {
            pyro::simStep(port, *sim, link);
            return;
        }
        port.pump();
        for (const QByteArray &r : std::exchange(due, {}))
            port.deliver(r);
        pyro::MBTimTimer(link);
    }
    void ticks(int n)
    {
        for (int i = 0; i < n; ++i)
            tick();
    }
    // Ticks until the condition holds; false if maxTicks pass first.
    bool runUntil(const std::function<bool()> &cond, int maxTicks = 20000)
    {
        for (int i = 0; i < maxTicks; ++i) {
            if (cond())
                return true;
            tick();
        }
        return cond();
    }
    // Chooses the file and clicks Program.
    void program(const QString &path)
    {
        pyro::ChooseFile(link, burn, path);
        pyro::Command4Click(link, burn);
    }
    // The burn has ended and the monitor has the line back.
    bool idle() const { return !burning() && link.LinkMode == 0 && link.ModeRequest == 0; }
    bool burning() const { return link.view.Command4Caption == QLatin1String("Stop"); }
    QList<QByteArray> sentWith(uint8_t fn) const
    {
        QList<QByteArray> r;
        for (const QByteArray &f : port.written)
            if (f.size() > 1 && uint8_t(f[1]) == fn)
                r << f;
        return r;
    }
};

// A device that does everything asked: status 0, the given identity.
inline QByteArray obligingDevice(const QByteArray &req, const QByteArray &identity)
{
    const uint8_t fn = req.size() > 1 ? uint8_t(req[1]) : 0;
    if (fn == pyro::kFnIdentify)
        return pyro::MBBuildFrame(fn, QByteArray(1, '\x01') + identity);
    return pyro::MBBuildFrame(fn, QByteArray(1, '\0'));
}

// An image of len bytes with a blank information block when it reaches one.
inline QByteArray testImage(int len, uint8_t seed = 0)
{
    QByteArray img(len, '\0');
    for (int i = 0; i < len; ++i)
        img[i] = char((i * 37 + (i >> 8) + seed) & 0xFF);
    for (int i = 1024; i < 1074 && i < len; ++i)
        img[i] = char(0xFF);
    return img;
}

inline QString writeFile(const QTemporaryDir &dir, const QString &name, const QByteArray &bytes)
{
    const QString path = dir.filePath(name);
    QFile f(path);
    if (f.open(QIODevice::WriteOnly))
        f.write(bytes);
    return path;
}
