#pragma once
#include "grid.h"
#include "prompter.h"
#include "tables.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <cstdint>

namespace pyro {

// What a row holds, by Width, IsFloat and BitIndex. Unsupported rows (any
// other width, an IsFloat other than 0 or 1 on a 4-byte row) are left alone
// by decoding and encoding; None rows (Addr below 1) hold no value.
enum class ValueKind { None, Byte, Word, Long, Bit, Float, Unsupported };
ValueKind KindOf(const ParamRow &row);

// The grid column that shows the values, whatever column the table gave.
constexpr int kValueCol = 3;

extern const QString kListMismatchText;  // "解析协议表错误，列表和对应值不匹配。"
extern const QString kListMismatchTitle; // "警告！"

enum class PickOutcome { Found, NotFound, Mismatch };
struct Pick {
    PickOutcome outcome = PickOutcome::NotFound;
    int index = -1;                      // the piece picked when Found
};

// Stored value to label: the first piece of Values whose shortest decimal
// text contains the needle. Mismatch when Labels and Values differ in length,
// whatever the search found.
Pick PickByValue(const ParamRow &row, const QString &needle);
// Text to index: the first piece of Labels that contains the text, case
// ignored. Mismatch as above.
Pick PickByLabel(const ParamRow &row, const QString &text);

enum class DecodeOutcome { Text, Keep, Mismatch };
// One row's shown text from a block of which the first limit bytes count.
// Keep: the cell keeps what it shows (no value, outside the block, a value
// that doesn't fit, no pick). Mismatch: the lists of the row don't pair up.
DecodeOutcome DecodeRow(const ParamRow &row, const QByteArray &block, int limit, QString &text);

// Writes the text of every row's value into column 3 of the grid, rows 0 to
// RowCount - 1, then turns the current cell's fore colour black. Stops with 1
// and the list mismatch message at a row whose lists don't pair up; 0 else.
int16_t DecodeBlock(GridModel &grid, const QByteArray &block, const QList<ParamRow> &rows,
                    const TableInfo &info, Prompter *prompter);

// Stores an edited text into the image (SetImage: BlockSize bytes and the
// spare one, which no row reaches) at the row's place, leaving the CRC
// stale. 1 with the list mismatch message when the row's lists don't pair
// up; 0 otherwise, also when nothing was stored.
int16_t EncodeValue(const QString &text, QByteArray &image, const QList<ParamRow> &rows, int rowIndex,
                    Prompter *prompter);

} // namespace pyro
