#pragma once
#include <QByteArray>

namespace pyro {

// The simulated controller's running values at a moment of its life, laid
// out as data/Display.For reads them (speeds, currents, temperatures, flag
// bits), moving the way a running drive's values move.
QByteArray SampleRunningValues(qint64 msSinceStart);

} // namespace pyro
