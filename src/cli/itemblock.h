#pragma once
#include <QByteArray>
#include <QString>

// The settings block stored with a project item, found by the path of
// captions from the top of the tree ("Line A/Board 3"). Reads only; false
// with the reason when the file is no database, is damaged on the way, or
// has no such item.
bool ReadItemBlock(const QString &dbPath, const QString &itemPath, const QString &key, QByteArray *block,
                   QString *error);
