#include "exchangelog.h"

#include <QDateTime>

namespace pyro {

QStringList OutcomeNames()
{
    return {QStringLiteral("good"), QStringLiteral("no transmit notice"), QStringLiteral("no reply"),
            QStringLiteral("short"), QStringLiteral("CRC error"), QStringLiteral("wrong function")};
}

QString OutcomeWords(const MonitorRecord &r)
{
    if (r.direction == ExchangeRecord::Sent)
        return QStringLiteral("sent");
    static const QStringList names = OutcomeNames();
    return r.outcome >= 0 && r.outcome < names.size() ? names[r.outcome] : QStringLiteral("outcome %1").arg(r.outcome);
}

ExchangeLog::ExchangeLog(int capacity)
    : clock([] { return QDateTime::currentMSecsSinceEpoch(); }),
      m_capacity(capacity > 0 ? capacity : 1)
{
}

void ExchangeLog::append(const ExchangeRecord &r)
{
    // The ring grows to its capacity once, then reuses its slots.
    MonitorRecord *slot;
    if (m_size < m_capacity) {
        if (m_ring.size() < size_t(m_capacity))
            m_ring.emplace_back();
        slot = &m_ring[size_t((m_head + m_size) % m_capacity)];
        ++m_size;
    } else {
        slot = &m_ring[size_t(m_head)];
        m_head = (m_head + 1) % m_capacity;
    }
    slot->msecs = clock ? clock() : 0;
    slot->tick = r.tick;
    slot->direction = r.direction;
    slot->function = r.function;
    slot->outcome = r.direction == ExchangeRecord::Sent ? int16_t(-1) : r.outcome;
    slot->frame = r.frame;               // implicitly shared: no copy of the bytes
    ++m_total;
}

void ExchangeLog::clear()
{
    // Keeps the slots: a cleared monitor fills again without allocating.
    m_head = 0;
    m_size = 0;
    m_total = 0;
}

bool Matches(const MonitorFilter &f, const MonitorRecord &r)
{
    if (f.function >= 0 && r.function != f.function)
        return false;
    if (f.outcome >= 0 && (r.direction == ExchangeRecord::Sent || r.outcome != f.outcome))
        return false;
    return true;
}

QString FrameText(const QByteArray &frame)
{
    QString s(frame.size(), QLatin1Char('.'));
    for (qsizetype i = 0; i < frame.size(); ++i) {
        const uchar c = uchar(frame[i]);
        if (c >= 0x20 && c < 0x7F)
            s[i] = QLatin1Char(char(c));
    }
    return s;
}

QString MonitorLine(const MonitorRecord &r)
{
    return QStringList{QDateTime::fromMSecsSinceEpoch(r.msecs).toString(QStringLiteral("HH:mm:ss.zzz")),
                       QString::number(r.tick),
                       r.direction == ExchangeRecord::Sent ? QStringLiteral(">>") : QStringLiteral("<<"),
                       QStringLiteral("%1").arg(r.function, 2, 16, QLatin1Char('0')).toUpper(),
                       QString::number(r.frame.size()),
                       QString::fromLatin1(r.frame.toHex(' ').toUpper()),
                       FrameText(r.frame),
                       OutcomeWords(r)}
        .join(QLatin1Char('\t'));
}

QString MonitorText(const ExchangeLog &log, const MonitorFilter &f)
{
    QString out = QStringLiteral("time\ttick\tdir\tfunction\tlength\tbytes\ttext\toutcome\n");
    for (int i = 0; i < log.size(); ++i) {
        if (Matches(f, log.at(i)))
            out += MonitorLine(log.at(i)) + QLatin1Char('\n');
    }
    return out;
}

} // namespace pyro
