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
#include <optional>

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

// A device that does everything asked: status 0, the given identity.
inline QByteArray obligingDevice(const QByteArray &req, const QByteArray &identity)
{
    const uint8_t fn = req.size() > 1 ? uint8_t(req[1]) : 0;
    if (fn == pyro::kFnIdentify)
        return pyro::MBBuildFrame(fn, QByteArray(1, '\x01') + identity);
    return pyro::MBBuildFrame(fn, QByteArray(1, '\0'));
}

struct BurnBench {
    pyro::Link link;
    pyro::FakePort port;
    pyro::ScriptedPrompter prompter;
    pyro::Burn burn;
    QTemporaryDir dir;
    QList<QByteArray> due;                                      // replies for the next tick
    std::function<QByteArray(const QByteArray &)> responder;    // the device
    std::optional<pyro::SimBoard> sim;                          // or the simulated board
    qint64 us = 0;                                              // the fast line's clock: 15 ms a tick

    enum Peer { Scripted, Simulated };
    explicit BurnBench(Peer peer = Scripted)
    {
        link.prompter = &prompter;
        link.now = [] { return QDateTime(QDate(2026, 11, 23), QTime(9, 30, 0)); };
        link.clockUs = [this] { return us; };
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
        if (peer == Simulated) {
            sim.emplace();
            pyro::attachSim(port, *sim);
        }
    }
    void open() { pyro::Command2Click(link); }
    void tick()
    {
        us += 15000;
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
    bool finish(int maxTicks = 20000) { return runUntil([this] { return idle(); }, maxTicks); }
    QString file(const QByteArray &bytes, const QString &name = QStringLiteral("image.BIN"))
    {
        return writeFile(dir, name, bytes);
    }
    // Chooses the file and clicks Program.
    void program(const QString &path)
    {
        pyro::ChooseFile(link, burn, path);
        pyro::Command4Click(link, burn);
    }
    // Opens the port and programs a fresh test image of len bytes.
    QString start(int len)
    {
        open();
        const QString path = file(testImage(len));
        program(path);
        return path;
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
    int sent(uint8_t fn) const { return int(sentWith(fn).size()); }
    int logged(const QString &message) const { return int(link.view.RTB.count(message)); }
    QByteArray stamped() const { return burn.BinData.left(burn.BinLen); }
};
