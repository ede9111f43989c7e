#pragma once
#include <QByteArray>
#include <QString>

namespace pyro {

// Every file the program reads comes from a user: a FIFO would block the one
// thread for ever, a device or a huge file would eat memory. These look before
// they read.

// True when path names a regular file (links followed) of at most maxBytes.
// Otherwise false, and reason (when given) says which test failed.
bool CheckRegularFile(const QString &path, qint64 maxBytes, QString *reason = nullptr);

// Reads a whole file that passes CheckRegularFile. False with a reason when it
// doesn't, can't be opened, or changes size while it is read.
bool ReadWholeFile(const QString &path, qint64 maxBytes, QByteArray *out, QString *reason = nullptr);

} // namespace pyro
