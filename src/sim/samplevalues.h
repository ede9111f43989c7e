#pragma once
#include <QByteArray>

namespace pyro {

// The simulated controller's factory settings block: 32-byte header, then the
// payload, stamped with its length and CRC, a good image for data/Config.For.
QByteArray SampleSettingsBlock();

// The simulated controller's running values at a moment of its life, laid
// out as data/Display.For reads them (speeds, currents, temperatures, flag
// bits), moving the way a running drive's values move.
QByteArray SampleRunningValues(qint64 msSinceStart);

} // namespace pyro
