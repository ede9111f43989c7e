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

// Every file the program writes whole goes through here, so that it is whole
// or untouched: the bytes go to a temporary file beside it, which replaces the
// old one only once written and synced. A name that exists and is no regular
// file (a FIFO, a device, a folder) is refused and left alone; a link is
// followed to the file it names. False with the reason (the system's words,
// "No space left on device"); the caller names the file.
bool WriteFileWhole(const QString &path, const QByteArray &bytes, QString *reason = nullptr);

// Appends bytes to the file (made when absent; headIfNew first when it is
// empty) in one write, and syncs it. The same refusals and reasons as
// WriteFileWhole; a failed append leaves the file as long as it was.
bool AppendToFile(const QString &path, const QByteArray &bytes, QString *reason = nullptr,
                  const QByteArray &headIfNew = {});

// Empty when path may be written or appended to: absent or a regular file.
// Otherwise what it is, "not a regular file (a FIFO)".
QString WriteTargetProblem(const QString &path);

} // namespace pyro
