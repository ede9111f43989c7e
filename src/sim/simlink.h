#pragma once
#include "simboard.h"

namespace pyro {

class FakePort;
struct Link;

// The board on the far end of a FakePort, in-process: it hears every frame
// the port outputs, and its due replies are delivered to the port by simTick.
// Both objects must outlive the attachment.
void attachSim(FakePort &port, SimBoard &board);
void detachSim(FakePort &port, SimBoard &board);

// One tick of the trio, in the order the event loop would run it: the
// transmit-empty notice, the board's clock, the master's tick.
void simStep(FakePort &port, SimBoard &board, Link &link);

// Runs up to maxTicks steps, stopping early once until() holds (tested
// before every step). Gives the number of steps run.
int simRun(FakePort &port, SimBoard &board, Link &link, int maxTicks,
           const std::function<bool()> &until = {});

// Runs steps until the exchange under way has ended (MBStep back at 0), at
// most maxTicks. Gives MBResult, or -1 if it had not ended.
int simRunExchange(FakePort &port, SimBoard &board, Link &link, int maxTicks = 1000);

} // namespace pyro
