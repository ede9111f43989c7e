#pragma once
#include <QByteArray>
#include <QString>

namespace pyro {

// Text in files, records and the device's blocks is GBK. Broken bytes turn
// into replacement characters, never into a failure.
QByteArray toGbk(const QString &text);
QString fromGbk(const QByteArray &bytes);

} // namespace pyro
