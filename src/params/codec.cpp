#include "codec.h"
#include "csvtext.h"
#include "frame.h"
#include "numbers.h"

#include <cmath>
#include <cstring>
#include <limits>

namespace pyro {

const QString kListMismatchText = QStringLiteral("解析协议表错误，列表和对应值不匹配。");
const QString kListMismatchTitle = QStringLiteral("警告！");

namespace {

QString integerText(double v)
{
    return std::fabs(v) < 9.0e15 ? QString::number(qint64(v)) : ShortestText(v);
}

float floatFromBits(uint32_t bits)
{
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

uint32_t bitsFromFloat(float f)
{
    uint32_t bits;
    std::memcpy(&bits, &f, sizeof bits);
    return bits;
}

// A shown number back to its stored one. Decoding divides by Scale, so
// storing the typed number times Scale brings the row back to the same text
// after the next read; a row with Scale 0 can't be shown and stores nothing.
bool unscale(double shown, int32_t scale, double &stored)
{
    if (scale == 0)
        return false;
    stored = shown * double(scale);
    return std::isfinite(stored);
}

void showMismatch(Prompter *prompter)
{
    if (prompter)
        prompter->message(kListMismatchText, kListMismatchTitle);
}

} // namespace

ValueKind KindOf(const ParamRow &row)
{
    if (row.Addr < 1)
        return ValueKind::None;
    switch (row.Width) {
    case 1:
        return ValueKind::Byte;
    case 2:
        return ValueKind::Word;
    case 4:
        if (row.IsFloat == 1)
            return ValueKind::Float;
        if (row.IsFloat != 0)
            return ValueKind::Unsupported;
        return row.BitIndex == 0 ? ValueKind::Long : ValueKind::Bit;
    default:
        return ValueKind::Unsupported;
    }
}

Pick PickByValue(const ParamRow &row, const QString &needle)
{
    Pick p;
    const QStringList values = SplitList(row.Values);
    for (int i = 0; i < values.size(); ++i) {
        if (ShortestText(LeadingNumber(StripTrailing(values[i]))).contains(needle)) {
            p = {PickOutcome::Found, i};
            break;
        }
    }
    if (SplitList(row.Labels).size() != values.size())
        return {PickOutcome::Mismatch, -1};
    return p;
}

Pick PickByLabel(const ParamRow &row, const QString &text)
{
    Pick p;
    const QStringList labels = SplitList(row.Labels);
    for (int i = 0; i < labels.size(); ++i) {
        if (labels[i].contains(text, Qt::CaseInsensitive)) {
            p = {PickOutcome::Found, i};
            break;
        }
    }
    if (SplitList(row.Values).size() != labels.size())
        return {PickOutcome::Mismatch, -1};
    return p;
}

DecodeOutcome DecodeRow(const ParamRow &row, const QByteArray &block, int limit, QString &text)
{
    const ValueKind kind = KindOf(row);
    if (kind == ValueKind::None || kind == ValueKind::Unsupported)
        return DecodeOutcome::Keep;
    limit = int(qMin<qsizetype>(limit, block.size()));
    const int at = row.Addr - 1;
    if (at + int(row.Width) > limit || row.Scale == 0)
        return DecodeOutcome::Keep;
    const double scale = row.Scale;

    const auto pickText = [&](const QString &needle) {
        const Pick p = PickByValue(row, needle);
        if (p.outcome == PickOutcome::Mismatch)
            return DecodeOutcome::Mismatch;
        if (p.outcome == PickOutcome::NotFound)
            return DecodeOutcome::Keep;
        text = SplitList(row.Labels).value(p.index).trimmed();
        return DecodeOutcome::Text;
    };
    const auto decimalsText = [&](float s) {
        const QString t = FormatDecimals(double(s), row.Decimals);
        if (t.isEmpty())
            return DecodeOutcome::Keep;
        text = t;
        return DecodeOutcome::Text;
    };

    switch (kind) {
    case ValueKind::Byte: {
        qint64 v = 0;
        if (!FitInteger(uint8_t(block[at]) / scale, 0, 255, v))
            return DecodeOutcome::Keep;
        if (row.IsList == 1)
            return pickText(QString::number(v));
        text = QString::number(v);
        return DecodeOutcome::Text;
    }
    case ValueKind::Word: {
        qint64 v = 0;
        if (!FitInteger(int16_t(getLe16(block, at)) / scale, INT16_MIN, INT16_MAX, v))
            return DecodeOutcome::Keep;
        text = QString::number(v);
        return DecodeOutcome::Text;
    }
    case ValueKind::Long:
        // Computed in double, then held as a single: 16777217 shows 16777216.
        return decimalsText(float(int32_t(getLe32(block, at)) / scale));
    case ValueKind::Bit: {
        qint64 v = 0;
        if (row.BitIndex > 32 || !FitInteger(int32_t(getLe32(block, at)) / scale, INT32_MIN, INT32_MAX, v))
            return DecodeOutcome::Keep;
        const QStringList labels = SplitList(row.Labels);
        if (labels.size() != 2)
            return DecodeOutcome::Keep;
        const int b = (uint32_t(v) >> (row.BitIndex - 1)) & 1u;
        text = StripTrailing(labels[b]);
        return DecodeOutcome::Text;
    }
    case ValueKind::Float: {
        const double d = double(floatFromBits(getLe32(block, at))) / scale;
        if (!std::isfinite(d) || std::fabs(d) > std::numeric_limits<float>::max())
            return DecodeOutcome::Keep;
        const float s = float(d);
        if (row.IsList == 1)
            return pickText(integerText(std::floor(double(s))));
        return decimalsText(s);
    }
    default:
        return DecodeOutcome::Keep;
    }
}

int16_t DecodeBlock(GridModel &grid, const QByteArray &block, const QList<ParamRow> &rows,
                    const TableInfo &info, Prompter *prompter)
{
    // The table's block is the first BlockSize bytes; the spare byte behind
    // it and anything a longer array holds belong to no row.
    const int limit = info.BlockSize > 0 ? int(qMin<qsizetype>(info.BlockSize, block.size())) : 0;
    const int n = int(qMin<qsizetype>(info.RowCount, rows.size()));
    QString text;
    for (int r = 0; r < n; ++r) {
        switch (DecodeRow(rows[r], block, limit, text)) {
        case DecodeOutcome::Text:
            grid.setText(r, kValueCol, text);
            break;
        case DecodeOutcome::Keep:
            break;
        case DecodeOutcome::Mismatch:
            showMismatch(prompter);
            return 1;
        }
    }
    grid.setFore(grid.currentRow(), grid.currentCol(), qRgb(0, 0, 0));
    return 0;
}

int16_t EncodeValue(const QString &text, QByteArray &image, const QList<ParamRow> &rows, int rowIndex,
                    Prompter *prompter)
{
    if (rowIndex < 0 || rowIndex >= rows.size())
        return 0;
    const ParamRow &row = rows[rowIndex];
    const ValueKind kind = KindOf(row);
    if (kind == ValueKind::None || kind == ValueKind::Unsupported)
        return 0;
    // SetImage holds BlockSize + 1 bytes and the last belongs to no row. A
    // row reaching into it is never decoded, so storing would send the
    // board the low bytes of a value that no read ever shows.
    const int at = row.Addr - 1;
    if (at + int(row.Width) > image.size() - 1)
        return 0;

    // The number as shown: typed, or the stored number of the chosen label.
    double shown = 0;
    const bool fromList = kind == ValueKind::Bit || (row.IsList == 1 && (kind == ValueKind::Byte || kind == ValueKind::Float));
    if (fromList) {
        const Pick p = PickByLabel(row, text);
        if (p.outcome == PickOutcome::Mismatch) {
            showMismatch(prompter);
            return 1;
        }
        // A text that names no choice stores nothing: the list box only
        // offers the labels, so this is a stray call, not an edit.
        if (p.outcome == PickOutcome::NotFound)
            return 0;
        shown = LeadingNumber(SplitList(row.Values).value(p.index));
    } else {
        shown = LeadingNumber(text);
    }

    // A typed number is scaled back; a list stores the piece of Values at the
    // pick as it stands, whatever Scale the row has.
    double stored = shown;
    const auto toStored = [&] { return fromList || unscale(shown, row.Scale, stored); };
    qint64 v = 0;
    switch (kind) {
    case ValueKind::Byte:
        // A number that doesn't fit the row's width stores nothing.
        if (!toStored() || !FitInteger(stored, 0, 255, v))
            return 0;
        image[at] = char(uint8_t(v));
        return 0;
    case ValueKind::Word:
        if (!unscale(shown, row.Scale, stored) || !FitInteger(stored, INT16_MIN, INT16_MAX, v))
            return 0;
        putLe16(image, at, uint16_t(v));
        return 0;
    case ValueKind::Long:
        if (!unscale(shown, row.Scale, stored) || !FitInteger(stored, INT32_MIN, INT32_MAX, v))
            return 0;
        putLe32(image, at, uint32_t(int32_t(v)));
        return 0;
    case ValueKind::Float:
        if (!toStored() || std::fabs(stored) > std::numeric_limits<float>::max())
            return 0;
        putLe32(image, at, bitsFromFloat(float(stored)));
        return 0;
    case ValueKind::Bit: {
        // One bit changes, the others stay: the label's stored number says
        // which state, and a bit already in it is not rewritten.
        if (row.BitIndex > 32 || !FitInteger(shown, INT16_MIN, INT16_MAX, v))
            return 0;
        const uint32_t mask = 1u << (row.BitIndex - 1);
        const uint32_t cur = getLe32(image, at);
        if (v == 0 && (cur & mask))
            putLe32(image, at, cur & ~mask);
        else if (v == 1 && !(cur & mask))
            putLe32(image, at, cur | mask);
        return 0;
    }
    default:
        return 0;
    }
}

} // namespace pyro
