#pragma once
#include "link.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <cstdint>
#include <functional>
#include <vector>

namespace pyro {

// One exchange record as the line monitor keeps it: the engine's record and
// the wall-clock time it came in.
struct MonitorRecord {
    qint64 msecs = 0;                    // since the epoch
    qint64 tick = 0;
    ExchangeRecord::Direction direction = ExchangeRecord::Sent;
    uint8_t function = 0;
    int16_t outcome = 0;                 // MBResult; sent frames have none
    QByteArray frame;
};

// The outcome of a judged answer in words: good, no transmit notice, no
// reply, short, CRC error, wrong function. Sent frames show "sent".
QString OutcomeWords(const MonitorRecord &r);
// The outcomes a filter can pick, in MBResult order (0..5).
QStringList OutcomeNames();

// The last `capacity` exchanges in a ring: appending never allocates once
// the ring is full, and the oldest record goes. Records are numbered from
// the first ever appended, so a view can tell what it has shown.
class ExchangeLog {
public:
    static constexpr int kDefaultCapacity = 100000;
    explicit ExchangeLog(int capacity = kDefaultCapacity);

    // The clock stamps each record; tests fix it.
    std::function<qint64()> clock;

    void append(const ExchangeRecord &r);
    void clear();

    int capacity() const { return m_capacity; }
    int size() const { return m_size; }
    // Sequence numbers: first() .. first() + size() - 1 are kept.
    qint64 first() const { return m_total - m_size; }
    qint64 total() const { return m_total; }
    // The i-th kept record, 0 the oldest.
    const MonitorRecord &at(int i) const { return m_ring[size_t((m_head + i) % m_capacity)]; }

private:
    int m_capacity;
    std::vector<MonitorRecord> m_ring;
    int m_head = 0;                      // index of the oldest
    int m_size = 0;
    qint64 m_total = 0;
};

// A filter on the monitor: function -1 and outcome -1 take everything. An
// outcome filter takes the answers judged so, not the frames sent.
struct MonitorFilter {
    int function = -1;
    int outcome = -1;
};
bool Matches(const MonitorFilter &f, const MonitorRecord &r);

// One record as a line of text: time, tick, direction, function, length,
// bytes in hex, the printable text, outcome; tab separated.
QString MonitorLine(const MonitorRecord &r);
// The bytes' text: printable ASCII as is, the rest as '.'.
QString FrameText(const QByteArray &frame);
// Every kept record that passes the filter, one line each, with a header.
QString MonitorText(const ExchangeLog &log, const MonitorFilter &f = {});

} // namespace pyro
