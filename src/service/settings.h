#pragma once
// The settings block as a service technician reads it: one row per value,
// named by its caption and group, what each block holds there, how two or
// three blocks differ, and a block of the table's own defaults.
#include "codec.h"
#include "params.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

namespace pyro {

// A row of the settings table that holds a value the codec can show and store.
struct SettingRow {
    int row = 0;                         // grid row of MSFG(0)
    QString group;                       // column 1
    QString caption;                     // column 2, as the table writes it
    QString unit;                        // the caption's bracketed tail: "额定电压(V)" gives "V"
    ValueKind kind = ValueKind::None;
    bool isList = false;                 // chosen by label (lists and bit rows)
};
QList<SettingRow> SettingRows(const Params &p);

// The unit a caption ends with in brackets, half or full width; empty when none.
QString UnitOf(const QString &caption);

// What identifies a settings table: the block size and a hash over every
// value row's names and layout (place, width, kind, scale, lists, range), so
// that colours and column widths don't count but anything that changes the
// meaning of a byte does.
struct TableIdentity {
    int blockSize = 0;
    int rows = 0;                        // value rows
    QString layout;                      // SHA-256, hex
};
TableIdentity IdentifyTable(const Params &p);

// What a block holds at a row: the text the grid shows (empty with hasShown
// false where the grid would keep its text), and the stored number exactly
// (integers as stored, a bit as 0 or 1, a single to the digits that read back
// the same bits; 0x and eight hex digits for a single that is no number).
struct SettingValue {
    QString shown;
    bool hasShown = false;
    QString stored;
};
SettingValue ValueAt(const Params &p, const SettingRow &r, const QByteArray &block);

// The row's stored number written into a copy of the block: false when the
// text is no number of the row's kind or doesn't fit its width.
bool PutStored(const Params &p, const SettingRow &r, const QString &stored, QByteArray &block);

// Rows side by side for two or three blocks (empty blocks are left out of
// the comparison and show nothing). A row differs when the stored numbers do.
struct RowCompare {
    SettingRow row;
    QList<SettingValue> values;              // one per block
    bool differs = false;
};
QList<RowCompare> CompareBlocks(const Params &p, const QList<QByteArray> &blocks);

// The table's defaults: every list at its first choice, every number at the
// low end of its range, behind a header that holds only the payload length;
// stamped. A row without a range stays 0.
QByteArray DefaultsBlock(const Params &p);

// A block fit to be compared, exported or sent: BlockSize bytes whose length
// field and CRC check out under the settings table. The reason when not.
bool GoodBlock(const Params &p, const QByteArray &block, QString *why = nullptr);

} // namespace pyro
