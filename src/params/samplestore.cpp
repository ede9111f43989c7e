#include "samplestore.h"

#include "codec.h"
#include "frame.h"
#include "numbers.h"
#include "params.h"

#include <QMap>
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace pyro {

namespace {

// A single held as the grid shows it, to its decimals: 0.3 and not
// 0.30000001192 in the plot and the CSV.
bool shown(float s, int decimals, double &value)
{
    const QString t = FormatDecimals(double(s), decimals);
    bool ok = false;
    value = t.toDouble(&ok);
    return ok;
}

} // namespace

bool RowIsStep(const ParamRow &row)
{
    return row.IsList == 1 || KindOf(row) == ValueKind::Bit;
}

bool RowValue(const ParamRow &row, const QByteArray &block, int limit, double &value)
{
    const ValueKind kind = KindOf(row);
    if (kind == ValueKind::None || kind == ValueKind::Unsupported)
        return false;
    limit = int(qMin<qsizetype>(limit, block.size()));
    const int at = row.Addr - 1;
    if (at + int(row.Width) > limit || row.Scale == 0)
        return false;
    const double scale = row.Scale;
    switch (kind) {
    case ValueKind::Byte: {
        qint64 v = 0;
        if (!FitInteger(uint8_t(block[at]) / scale, 0, 255, v))
            return false;
        value = double(v);
        return true;
    }
    case ValueKind::Word: {
        qint64 v = 0;
        if (!FitInteger(int16_t(getLe16(block, at)) / scale, INT16_MIN, INT16_MAX, v))
            return false;
        value = double(v);
        return true;
    }
    case ValueKind::Long:
        return shown(float(int32_t(getLe32(block, at)) / scale), row.Decimals, value);
    case ValueKind::Bit: {
        qint64 v = 0;
        if (row.BitIndex > 32 || !FitInteger(int32_t(getLe32(block, at)) / scale, INT32_MIN, INT32_MAX, v))
            return false;
        value = (uint32_t(v) >> (row.BitIndex - 1)) & 1u;
        return true;
    }
    case ValueKind::Float: {
        const uint32_t bits = getLe32(block, at);
        float f;
        std::memcpy(&f, &bits, sizeof f);
        const double d = double(f) / scale;
        if (!std::isfinite(d) || std::fabs(d) > std::numeric_limits<float>::max())
            return false;
        if (row.IsList == 1) {
            value = std::floor(double(float(d)));
            return true;
        }
        return shown(float(d), row.Decimals, value);
    }
    default:
        return false;
    }
}

void SampleStore::watch(int row, bool on)
{
    if (on && !m_rows.contains(row))
        m_rows.insert(row, {});
    else if (!on)
        m_rows.remove(row);
}

QList<int> SampleStore::rows() const
{
    QList<int> r = m_rows.keys();
    std::sort(r.begin(), r.end());
    return r;
}

void SampleStore::add(int row, qint64 msecs, double value)
{
    auto it = m_rows.find(row);
    if (it == m_rows.end())
        return;
    if (int(it->size()) >= m_perRow)
        it->pop_front();
    it->push_back({msecs, value});
}

void SampleStore::record(const Params &p, qint64 msecs)
{
    const int limit = p.Tables[1].BlockSize;
    for (auto it = m_rows.begin(); it != m_rows.end(); ++it) {
        double v = 0;
        if (it.key() >= 0 && it.key() < p.DisplayRows.size()
            && RowValue(p.DisplayRows[it.key()], p.DisplayImage, limit, v)) {
            if (int(it->size()) >= m_perRow)
                it->pop_front();
            it->push_back({msecs, v});
        }
    }
}

void SampleStore::clear()
{
    for (auto it = m_rows.begin(); it != m_rows.end(); ++it)
        it->clear();
}

const std::deque<Sample> &SampleStore::samples(int row) const
{
    static const std::deque<Sample> none;
    auto it = m_rows.constFind(row);
    return it == m_rows.constEnd() ? none : *it;
}

QString SamplesCsv(const SampleStore &store, const QStringList &names)
{
    const QList<int> rows = store.rows();
    // Every time any row was sampled, in order; cells of rows not sampled
    // then stay empty.
    QMap<qint64, QList<QString>> lines;
    qint64 start = std::numeric_limits<qint64>::max();
    for (int c = 0; c < rows.size(); ++c) {
        for (const Sample &s : store.samples(rows[c])) {
            start = std::min(start, s.msecs);
            QList<QString> &cells = lines[s.msecs];
            if (cells.size() < rows.size())
                cells.resize(rows.size());
            cells[c] = QString::number(s.value, 'g', 10);
        }
    }
    auto quoted = [](QString s) {
        s = s.trimmed();
        if (s.contains(QLatin1Char(',')) || s.contains(QLatin1Char('"')))
            s = QLatin1Char('"') + s.replace(QLatin1String("\""), QLatin1String("\"\"")) + QLatin1Char('"');
        return s;
    };
    QString out = QStringLiteral("time_ms");
    for (int r : rows)
        out += QLatin1Char(',') + quoted(names.value(r, QStringLiteral("row %1").arg(r)));
    out += QLatin1Char('\n');
    for (auto it = lines.cbegin(); it != lines.cend(); ++it) {
        out += QString::number(it.key() - start);
        for (const QString &cell : it.value())
            out += QLatin1Char(',') + cell;
        out += QLatin1Char('\n');
    }
    return out;
}

} // namespace pyro
