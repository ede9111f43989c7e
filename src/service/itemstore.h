#pragma once
// The settings block of a project item, by its path of captions from the top
// of the tree ("Line A/Board 3") or by its tree key, read and written without
// the window: only the block changes, the notes, links and title stay.
#include <QByteArray>
#include <QString>
#include <cstdint>

namespace pyro {

// The record of the one item at that path; 0 with the reason when the file is
// no database, is damaged on the way, or has none or several such items.
int32_t FindItemRecord(const QString &dbPath, const QString &itemPath, const QString &key, QString *error);

// The first blockSize bytes of the item's stored block.
bool ReadItemSettings(const QString &dbPath, const QString &itemPath, const QString &key, int blockSize,
                      QByteArray *block, QString *error);
bool ReadItemSettingsByKey(const QString &dbPath, const QString &treeKey, int blockSize, QByteArray *block,
                           QString *error);

// Writes block into the item's record. Only a sound database is written, and
// a write that fails is rolled back.
bool WriteItemSettings(const QString &dbPath, const QString &itemPath, const QString &key, const QByteArray &block,
                       QString *error);

} // namespace pyro
