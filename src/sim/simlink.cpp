#include "simlink.h"
#include "fakeport.h"
#include "link.h"

namespace pyro {

void attachSim(FakePort &port, SimBoard &board)
{
    port.onOutput = [&board](const QByteArray &frame) { simReceive(board, frame); };
    board.onTransmit = [&port](const QByteArray &bytes) { port.deliver(bytes); };
}

void detachSim(FakePort &port, SimBoard &board)
{
    port.onOutput = nullptr;
    board.onTransmit = nullptr;
}

void simStep(FakePort &port, SimBoard &board, Link &link)
{
    port.pump();
    simTick(board);
    MBTimTimer(link);
}

int simRun(FakePort &port, SimBoard &board, Link &link, int maxTicks,
           const std::function<bool()> &until)
{
    int n = 0;
    while (n < maxTicks && !(until && until())) {
        simStep(port, board, link);
        ++n;
    }
    return n;
}

int simRunExchange(FakePort &port, SimBoard &board, Link &link, int maxTicks)
{
    simRun(port, board, link, maxTicks, [&link] { return link.MBStep == 0; });
    return link.MBStep == 0 ? link.MBResult : -1;
}

} // namespace pyro
