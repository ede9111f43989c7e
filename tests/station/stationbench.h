#pragma once
// A station of fake ports, each with a simulated board in-process, stepped
// the way the event loop steps the window: every port's transmit-empty
// notice and every board's clock, then the station's one tick.
#include "fakeport.h"
#include "simlink.h"
#include "station.h"

#include <QFile>
#include <QTemporaryDir>
#include <functional>
#include <map>

inline QByteArray stationImage(int len)
{
    QByteArray img(len, '\0');
    for (int i = 0; i < len; ++i)
        img[i] = char((i * 29 + (i >> 7)) & 0xFF);
    for (int i = 1024; i < 1074 && i < len; ++i)
        img[i] = char(0xFF);
    return img;
}

struct StationBench {
    pyro::Station station;
    QTemporaryDir dir;
    // By port name: the board on the far end and the port the station made.
    std::map<QString, std::unique_ptr<pyro::SimBoard>> boards;
    std::map<QString, pyro::FakePort *> ports;
    QList<QPair<QString, pyro::ChipRecord>> records;   // every chip's record, with its row
    qint64 us = 0;
    std::function<void()> everyTick;                   // faults, swaps, kills by the test

    StationBench()
    {
        station.now = [] { return QDateTime(QDate(2026, 11, 23), QTime(9, 30, 0)); };
        station.clockUs = [this] { return us; };
        station.recordFolder = dir.filePath(QStringLiteral("records"));
        station.makePort = [this](const QString &name) -> std::unique_ptr<pyro::SerialControl> {
            auto p = std::make_unique<pyro::FakePort>();
            ports[name] = p.get();
            auto it = boards.find(name);
            if (it != boards.end())
                pyro::attachSim(*p, *it->second);
            return p;
        };
        station.onChip = [this](pyro::StationPort &p, const pyro::ChipRecord &r) { records << qMakePair(p.name, r); };
    }

    // A board behind the named port, its own identity and options.
    pyro::SimBoard &board(const QString &name, int n, pyro::SimOptions o = {})
    {
        o.identity = QByteArray::fromHex("A1B2C3D4E5F6000000000000");
        o.identity[0] = char(n);   // swaps count up in bytes 8..11
        auto b = std::make_unique<pyro::SimBoard>(o);
        pyro::SimBoard &ref = *b;
        boards[name] = std::move(b);
        return ref;
    }
    bool add(const QString &name, QString *why = nullptr)
    {
        QString w;
        const bool ok = pyro::StationAddPort(station, name, &w);
        if (why)
            *why = w;
        return ok;
    }
    QString image(int len, const QString &name = QStringLiteral("image.BIN"))
    {
        const QString path = dir.filePath(name);
        QFile f(path);
        if (f.open(QIODevice::WriteOnly))
            f.write(stationImage(len));
        return path;
    }
    void tick()
    {
        us += 15000;
        if (everyTick)
            everyTick();
        for (auto &[name, port] : ports) {
            port->pump();
            auto it = boards.find(name);
            if (it != boards.end())
                pyro::simTick(*it->second);
        }
        pyro::StationTick(station);
    }
    bool runUntil(const std::function<bool()> &cond, int maxTicks = 60000)
    {
        for (int i = 0; i < maxTicks; ++i) {
            if (cond())
                return true;
            tick();
        }
        return cond();
    }
    pyro::StationPort &row(int i) { return *station.ports[size_t(i)]; }
    QByteArray stamped() const { return station.binData.left(station.binLen); }
    int recordsOf(const QString &port, const QString &result) const
    {
        int n = 0;
        for (const auto &r : records)
            n += r.first == port && r.second.result == result;
        return n;
    }
};
