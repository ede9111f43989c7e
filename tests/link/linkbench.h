#pragma once
// A link on a fake port, stepped the way the event loop steps the window:
// the port's pending notices first, then one tick.
#include "fakeport.h"
#include "link.h"
#include "portcontrol.h"

struct LinkBench {
    pyro::Link link;
    pyro::FakePort port;
    pyro::ScriptedPrompter prompter;

    LinkBench()
    {
        link.prompter = &prompter;
        link.now = [] { return QDateTime(QDate(2026, 11, 23), QTime(9, 30, 0)); };
        pyro::AttachPort(link, &port);
        pyro::InitPortBoxes(link.view);
        link.view.ComboSet[0].text = QStringLiteral("/dev/fake0");
    }
    void open() { pyro::Command2Click(link); }
    void tick()
    {
        port.pump();
        pyro::MBTimTimer(link);
    }
    void ticks(int n)
    {
        for (int i = 0; i < n; ++i)
            tick();
    }
    // Sends a frame the way a state machine does.
    void send(uint8_t fn, const QByteArray &body, int16_t quiet, int16_t reply, int16_t sendLimit)
    {
        pyro::MBBuildFrame(link, fn, body);
        pyro::MBSend(link, quiet, reply, sendLimit);
    }
};
