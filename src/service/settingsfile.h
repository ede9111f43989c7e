#pragma once
// Settings files a person can read and diff: one row per value by caption
// and group, its shown value and unit, the stored number, and what table the
// set belongs to; JSON or CSV, UTF-8. An import checks every value as the
// grid's editors do and is taken whole or not at all.
#include "settings.h"

#include <QByteArray>
#include <QList>
#include <QString>

namespace pyro {

enum class SettingsFormat { Json, Csv };

// The file's text for a block (BlockSize bytes of a good image). source says
// where the set came from ("board", "item Line A/Board 3"); tableName is the
// table file's name, for the reader.
QByteArray ExportSettings(const Params &p, const QByteArray &block, SettingsFormat format,
                          const QString &source, const QString &tableName = QStringLiteral("Config.For"));

// A row of a settings file as it stands in the file.
struct FileRow {
    int line = 0;                        // 1-based line of the file where it begins
    int row = 0;                         // the row number written, 0 when none
    QString group;
    QString caption;
    QString value;
    QString stored;                      // empty when the file gives none
};

struct SettingsFileData {
    SettingsFormat format = SettingsFormat::Json;
    TableIdentity table;
    QString tableName;
    QString source;
    QList<FileRow> rows;
};

// Why a file was refused: the line (0: the file as a whole) and the reason.
struct ImportDiag {
    int line = 0;
    QString reason;
    QString text() const;                // "line 7: ..." or the reason alone
};

// Reads a settings file (JSON when its first character is '{', else CSV):
// UTF-8 only, whole, with its table's identity. False with the line and the
// reason otherwise.
bool ParseSettingsFile(const QByteArray &bytes, SettingsFileData &out, ImportDiag &diag);

// Puts every row of the file into a copy of base (a good block of this
// table, or empty for a blank one) and stamps it. Refused whole, with the
// line and the reason, for a file of another table, a row that is unknown,
// duplicate or missing, a list value that is none of its labels, a number
// that isn't one or lies outside its range. On success block gets the result;
// on failure it is left as it was.
bool ApplySettings(const Params &p, const SettingsFileData &file, const QByteArray &base, QByteArray &block,
                   ImportDiag &diag);

// Both steps on a file's bytes.
bool ImportSettings(const Params &p, const QByteArray &bytes, const QByteArray &base, QByteArray &block,
                    ImportDiag &diag);

// A file given as a source of settings: a block as 'params read --out'
// writes it (exactly BlockSize bytes of a good image), or else a settings
// file, put onto a blank block. False with the reason (and the line).
bool ReadSettingsSource(const Params &p, const QString &path, QByteArray *block, QString *error);

// A blank block of the table: zero bytes but the payload length; stamped.
QByteArray BlankBlock(const Params &p);

} // namespace pyro
