#include "chipmodel.h"

#include <QBrush>
#include <QColor>

namespace pyro {

void ChipTableModel::setQuery(const ChipQuery &q)
{
    beginResetModel();
    m_query = q;
    m_rows.clear();
    m_more = m_store != nullptr;
    m_maxId = 0;
    m_error.clear();
    endResetModel();
    if (m_more)
        fetchMore({});
}

int ChipTableModel::followNew()
{
    if (!m_store || !m_store->isOpen())
        return 0;
    const QList<ChipRow> fresh = m_store->newerThan(m_query, m_maxId, &m_error);
    if (fresh.isEmpty())
        return 0;
    beginInsertRows({}, 0, int(fresh.size()) - 1);
    m_rows = fresh + m_rows;
    endInsertRows();
    for (const ChipRow &r : fresh)
        m_maxId = std::max(m_maxId, r.id);
    return int(fresh.size());
}

int ChipTableModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_rows.size());
}

int ChipTableModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant ChipTableModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= m_rows.size())
        return {};
    const ChipRow &r = m_rows[index.row()];
    if (role == Qt::ForegroundRole && index.column() == Result && r.result != QLatin1String("done"))
        return QBrush(QColor(0xB0, 0x20, 0x20));
    if (role == Qt::TextAlignmentRole && (index.column() == Length || index.column() == Duration || index.column() == Retries))
        return int(Qt::AlignRight | Qt::AlignVCenter);
    if (role != Qt::DisplayRole)
        return {};
    switch (index.column()) {
    case Time: return r.local;
    case Station: return r.station;
    case Port: return r.port;
    case ChipId: return r.chipId;
    case Order: return r.order;
    case Image: return r.image;
    case Length: return r.length;
    case Duration: return QString::number(double(r.durationMs) / 1000.0, 'f', 3);
    case Retries: return r.retries;
    case Result: return r.result;
    default: return {};
    }
}

QVariant ChipTableModel::headerData(int section, Qt::Orientation o, int role) const
{
    if (o != Qt::Horizontal || role != Qt::DisplayRole)
        return QAbstractTableModel::headerData(section, o, role);
    static const char *const names[] = {"Time", "Station", "Port", "Chip identity", "Order", "Image",
                                        "Length", "Seconds", "Retries", "Result"};
    return section >= 0 && section < ColumnCount ? QString::fromLatin1(names[section]) : QVariant();
}

bool ChipTableModel::canFetchMore(const QModelIndex &parent) const
{
    return !parent.isValid() && m_more;
}

void ChipTableModel::fetchMore(const QModelIndex &parent)
{
    if (parent.isValid() || !m_more || !m_store || !m_store->isOpen()) {
        m_more = false;
        return;
    }
    std::optional<std::pair<qint64, qint64>> after;
    if (!m_rows.isEmpty())
        after = std::make_pair(m_rows.last().utcMs, m_rows.last().id);
    const QList<ChipRow> page = m_store->page(m_query, after, kPage, &m_error);
    m_more = page.size() == kPage;
    if (page.isEmpty())
        return;
    beginInsertRows({}, int(m_rows.size()), int(m_rows.size() + page.size()) - 1);
    m_rows += page;
    endInsertRows();
    for (const ChipRow &r : page)
        m_maxId = std::max(m_maxId, r.id);
}

} // namespace pyro
