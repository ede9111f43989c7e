#pragma once
#include "tables.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>
#include <cstdint>
#include <deque>

namespace pyro {

struct Params;

// One value of a running-values row at the time it was read.
struct Sample {
    qint64 msecs = 0;                    // since the epoch
    double value = 0;
};

// The number a row holds in a block, as the grid shows it: the stored value
// divided by Scale; a list row gives its stored number, a bit row 0 or 1.
// False where the grid keeps its text (no value, outside the block, Scale 0).
bool RowValue(const ParamRow &row, const QByteArray &block, int limit, double &value);
// List and bit rows change in steps and are drawn so.
bool RowIsStep(const ParamRow &row);

// The samples of the running-value rows being plotted, each row's kept to
// the last `perRow`: ten minutes of the fastest watch fit in the default.
class SampleStore {
public:
    static constexpr int kDefaultPerRow = 50000;
    explicit SampleStore(int perRow = kDefaultPerRow) : m_perRow(perRow > 0 ? perRow : 1) {}

    // Rows to sample (indices into DisplayRows); others are left alone.
    void watch(int row, bool on);
    bool watching(int row) const { return m_rows.contains(row); }
    QList<int> rows() const;

    void add(int row, qint64 msecs, double value);
    // One sample of every watched row from a freshly decoded block.
    void record(const Params &p, qint64 msecs);
    void clear();

    const std::deque<Sample> &samples(int row) const;
    int perRow() const { return m_perRow; }

private:
    int m_perRow;
    QHash<int, std::deque<Sample>> m_rows;
};

// time in ms since the first sample, then one column per row named by
// names[row]; a row without a sample at a time leaves its cell empty.
QString SamplesCsv(const SampleStore &store, const QStringList &names);

} // namespace pyro
