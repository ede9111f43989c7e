#include "numbers.h"
#include "link.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace pyro {

bool FitInteger(double x, qint64 lo, qint64 hi, qint64 &out)
{
    if (!std::isfinite(x) || x < double(lo) - 1.0 || x > double(hi) + 1.0)
        return false;
    const qint64 v = RoundHalfEven(x);
    if (v < lo || v > hi)
        return false;
    out = v;
    return true;
}

QString FormatDecimals(double value, int decimals)
{
    if (decimals < 0 || decimals > 5 || !std::isfinite(value))
        return {};
    // A negative number keeps its minus even when its digits round to zero
    // (-0.001 shows -0.00); a zero stored with its sign bit set is no negative number.
    if (value == 0)
        value = 0;
    char buf[400];   // a double's integer part has at most 309 digits
    const auto r = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::fixed, decimals);
    if (r.ec != std::errc())
        return {};
    return QString::fromLatin1(buf, r.ptr - buf);
}

QString ShortestText(double value)
{
    if (!std::isfinite(value))
        return {};
    // Fixed notation, never an exponent: a needle "1000000" must be found in
    // the text of a stored 1000000.
    char buf[1100];
    const auto r = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::fixed);
    if (r.ec != std::errc())
        return {};
    return QString::fromLatin1(buf, r.ptr - buf);
}

} // namespace pyro
