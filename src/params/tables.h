#pragma once
#include "grid.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <cstdint>

namespace pyro {

struct TableInfo {
    int16_t HeaderNumber = 0;            // 1..60, checked and kept, read by nobody
    int16_t RowCount = 0;                // grid rows made, the caption row included
    int16_t BlockSize = 0;               // 1..480, bytes of the block this table maps
};

constexpr int kLabelChars = 60;          // Labels and Values are fixed-width texts

struct ParamRow {
    int16_t Addr = 0;                    // 1-based first byte; below 1: no value
    uint8_t Width = 0;                   // 1, 2 or 4
    uint8_t Decimals = 0;                // 0..5, long and float only
    uint8_t BitIndex = 0;                // 0 whole value, n: bit n counted from 1
    uint8_t IsList = 0;
    uint8_t IsFloat = 0;
    int32_t Scale = 1;                   // divisor when shown
    QString Labels = QString(kLabelChars, QLatin1Char(' '));  // choices, or min||max
    QString Values = QString(kLabelChars, QLatin1Char(' '));  // stored number of each choice
};

// The reason a table file was refused, for the table author; the loader's own
// answer stays 0 or 1.
struct TableDiag {
    int line = 0;                        // 1-based line of the file, 0: the file itself
    QString reason;
};

// The longest leading number of a text, after blanks: decimal (sign, point,
// exponent) or &H hex / &O octal; 0 when there is none. *used, when given,
// gets the count of characters taken, leading blanks included (0: no number).
double LeadingNumber(const QString &text, int *used = nullptr);

// Numeric as a whole text: blanks around one number and nothing else. "12a"
// and "" are not.
bool IsNumericText(const QString &text);

// A text padded with blanks or cut to the 60 characters of Labels and Values.
QString FixedText(const QString &text);

// Labels or Values split at "||"; pieces keep their blanks.
QStringList SplitList(const QString &text);

// Reads Config.For or Display.For (GBK text) into the grid, the rows and the
// info. 0 when the table is usable, 1 when not; diag says where and why.
int16_t LoadProtocolTable(GridModel &grid, const QString &path, QList<ParamRow> &rows,
                          TableInfo &info, TableDiag *diag = nullptr);

// The same from bytes already read; path checks aside, LoadProtocolTable is
// this on the file's content.
int16_t LoadProtocolTableData(GridModel &grid, const QByteArray &content, QList<ParamRow> &rows,
                              TableInfo &info, TableDiag *diag = nullptr);

} // namespace pyro
