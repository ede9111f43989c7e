#include "samplevalues.h"

namespace pyro {

// Stand-ins until the sample tables land.
QByteArray SampleSettingsBlock()
{
    return QByteArray(64, '\0');
}

QByteArray SampleRunningValues(qint64)
{
    return QByteArray(64, '\0');
}

} // namespace pyro
