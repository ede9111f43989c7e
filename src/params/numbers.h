#pragma once
#include <QString>
#include <QtGlobal>

namespace pyro {

// A real number rounded to nearest, ties to even, when it lies in lo..hi
// after rounding; false for anything else, infinities and NaN included.
bool FitInteger(double x, qint64 lo, qint64 hi, qint64 &out);

// "0", "0.0" ... "0.00000": at least one digit before the point, exactly
// decimals digits behind it, the exact value rounded at the last digit,
// ties to even; a negative value keeps its minus (-0.001 gives -0.00). Empty
// for decimals outside 0..5 or a value that is no number.
QString FormatDecimals(double value, int decimals);

// The shortest decimal text that reads back as the same double: 03 gives
// "3", 2.50 gives "2.5".
QString ShortestText(double value);

} // namespace pyro
