#include "settings.h"
#include "csvtext.h"
#include "frame.h"
#include "image.h"

#include <QCryptographicHash>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

namespace pyro {

namespace {

QString floatText(float f)
{
    uint32_t bits;
    std::memcpy(&bits, &f, sizeof bits);
    if (!std::isfinite(f))
        return QStringLiteral("0x%1").arg(bits, 8, 16, QLatin1Char('0'));
    // The fewest digits that read back as the same bits, so a file written
    // from a block puts the very same single back.
    for (int prec = 1; prec <= 9; ++prec) {
        const QString s = QString::number(double(f), 'g', prec);
        const float back = float(s.toDouble());
        uint32_t b2;
        std::memcpy(&b2, &back, sizeof b2);
        if (b2 == bits)
            return s;
    }
    return QString::number(double(f), 'g', 9);
}

const ParamRow &paramRow(const Params &p, const SettingRow &r)
{
    return p.SetRows[r.row];
}

} // namespace

QString UnitOf(const QString &caption)
{
    const QString c = caption.trimmed();
    if (c.isEmpty())
        return {};
    const QChar close = c.back();
    QChar open;
    if (close == QLatin1Char(')'))
        open = QLatin1Char('(');
    else if (close == QChar(0xFF09))
        open = QChar(0xFF08);
    else
        return {};
    const qsizetype at = c.lastIndexOf(open);
    if (at <= 0)
        return {};
    return c.mid(at + 1, c.size() - at - 2).trimmed();
}

QList<SettingRow> SettingRows(const Params &p)
{
    QList<SettingRow> out;
    const int block = p.Tables[0].BlockSize;
    const int n = int(qMin<qsizetype>(p.Tables[0].RowCount, p.SetRows.size()));
    for (int r = 1; r < n; ++r) {
        const ParamRow &row = p.SetRows[r];
        const ValueKind kind = KindOf(row);
        if (kind == ValueKind::None || kind == ValueKind::Unsupported)
            continue;
        // A row reaching past its block is never decoded nor stored.
        if (row.Addr - 1 + int(row.Width) > block || (kind == ValueKind::Bit && row.BitIndex > 32))
            continue;
        SettingRow s;
        s.row = r;
        s.group = p.MSFG[0].text(r, 1).trimmed();
        s.caption = p.MSFG[0].text(r, 2).trimmed();
        s.unit = UnitOf(s.caption);
        s.kind = kind;
        s.isList = kind == ValueKind::Bit || (row.IsList == 1 && (kind == ValueKind::Byte || kind == ValueKind::Float));
        out << s;
    }
    return out;
}

TableIdentity IdentifyTable(const Params &p)
{
    TableIdentity id;
    id.blockSize = p.Tables[0].BlockSize;
    QCryptographicHash h(QCryptographicHash::Sha256);
    h.addData(QByteArray::number(id.blockSize));
    for (const SettingRow &s : SettingRows(p)) {
        const ParamRow &r = paramRow(p, s);
        const QStringList parts{QString::number(s.row), s.group, s.caption, QString::number(r.Addr),
                                QString::number(r.Width), QString::number(r.Decimals), QString::number(r.BitIndex),
                                QString::number(r.IsList), QString::number(r.IsFloat), QString::number(r.Scale),
                                StripTrailing(r.Labels), StripTrailing(r.Values)};
        h.addData(QByteArray("\n"));
        h.addData(parts.join(QChar(0x1F)).toUtf8());
        ++id.rows;
    }
    id.layout = QString::fromLatin1(h.result().toHex());
    return id;
}

SettingValue ValueAt(const Params &p, const SettingRow &s, const QByteArray &block)
{
    SettingValue v;
    const ParamRow &r = paramRow(p, s);
    const int at = r.Addr - 1;
    const int limit = int(qMin<qsizetype>(p.Tables[0].BlockSize, block.size()));
    if (at < 0 || at + int(r.Width) > limit)
        return v;
    v.hasShown = DecodeRow(r, block, limit, v.shown) == DecodeOutcome::Text;
    if (!v.hasShown)
        v.shown.clear();
    switch (s.kind) {
    case ValueKind::Byte:
        v.stored = QString::number(uint8_t(block[at]));
        break;
    case ValueKind::Word:
        v.stored = QString::number(int16_t(getLe16(block, at)));
        break;
    case ValueKind::Long:
        v.stored = QString::number(int32_t(getLe32(block, at)));
        break;
    case ValueKind::Bit:
        v.stored = QString::number((getLe32(block, at) >> (r.BitIndex - 1)) & 1u);
        break;
    case ValueKind::Float: {
        const uint32_t bits = getLe32(block, at);
        float f;
        std::memcpy(&f, &bits, sizeof f);
        v.stored = floatText(f);
        break;
    }
    default:
        break;
    }
    return v;
}

bool PutStored(const Params &p, const SettingRow &s, const QString &storedText, QByteArray &block)
{
    const ParamRow &r = paramRow(p, s);
    const int at = r.Addr - 1;
    if (at < 0 || at + int(r.Width) > qMin<qsizetype>(p.Tables[0].BlockSize, block.size()))
        return false;
    const QString t = storedText.trimmed();
    bool ok = false;
    if (s.kind == ValueKind::Float) {
        uint32_t bits = 0;
        if (t.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)) {
            bits = t.mid(2).toUInt(&ok, 16);
            if (!ok || t.size() > 10)
                return false;
        } else {
            const double d = t.toDouble(&ok);
            if (!ok || !std::isfinite(d) || std::fabs(d) > double(std::numeric_limits<float>::max()))
                return false;
            const float f = float(d);
            std::memcpy(&bits, &f, sizeof bits);
        }
        putLe32(block, at, bits);
        return true;
    }
    const qint64 v = t.toLongLong(&ok);
    if (!ok)
        return false;
    switch (s.kind) {
    case ValueKind::Byte:
        if (v < 0 || v > 255)
            return false;
        block[at] = char(uint8_t(v));
        return true;
    case ValueKind::Word:
        if (v < INT16_MIN || v > INT16_MAX)
            return false;
        putLe16(block, at, uint16_t(v));
        return true;
    case ValueKind::Long:
        if (v < INT32_MIN || v > INT32_MAX)
            return false;
        putLe32(block, at, uint32_t(int32_t(v)));
        return true;
    case ValueKind::Bit: {
        if (v != 0 && v != 1)
            return false;
        const uint32_t mask = 1u << (r.BitIndex - 1);
        const uint32_t cur = getLe32(block, at);
        putLe32(block, at, v ? cur | mask : cur & ~mask);
        return true;
    }
    default:
        return false;
    }
}

QList<RowCompare> CompareBlocks(const Params &p, const QList<QByteArray> &blocks)
{
    QList<RowCompare> out;
    for (const SettingRow &s : SettingRows(p)) {
        RowCompare c;
        c.row = s;
        QString first;
        bool any = false;
        for (const QByteArray &b : blocks) {
            c.values << (b.isEmpty() ? SettingValue{} : ValueAt(p, s, b));
            if (b.isEmpty())
                continue;
            const QString stored = c.values.last().stored;
            if (!any)
                first = stored;
            else if (stored != first)
                c.differs = true;
            any = true;
        }
        out << c;
    }
    return out;
}

QByteArray DefaultsBlock(const Params &p)
{
    const int size = qMax<int>(0, p.Tables[0].BlockSize);
    QByteArray b(size + 1, '\0');
    if (size <= kImageHeaderSize)
        return b.left(size);
    putLe32(b, kImageLengthAt, uint32_t(size - kImageHeaderSize));
    for (const SettingRow &s : SettingRows(p)) {
        const QStringList pieces = SplitList(p.SetRows[s.row].Labels);
        if (!s.isList && pieces.size() != 2)
            continue;
        EncodeValue(pieces[0].trimmed(), b, p.SetRows, s.row, nullptr);
    }
    StampImage(b, p.Tables[0]);
    return b.left(size);
}

bool GoodBlock(const Params &p, const QByteArray &block, QString *why)
{
    const int size = p.Tables[0].BlockSize;
    QString reason;
    if (block.size() < size)
        reason = QStringLiteral("%1 bytes, the settings block has %2").arg(block.size()).arg(size);
    else if (CheckImage(block.left(size), p.Tables[0]) != 0)
        reason = QStringLiteral("not a settings block of this table (its length field or CRC is wrong)");
    if (why)
        *why = reason;
    return reason.isEmpty();
}

} // namespace pyro
