#include "chipmodel.h"
#include "storethread.h"

#include <QBrush>
#include <QColor>

namespace pyro {

void ChipTableModel::setQuery(const ChipQuery &q)
{
    beginResetModel();
    m_query = q;
    m_rows.clear();
    m_more = m_store != nullptr || m_thread != nullptr;
    m_maxId = 0;
    m_error.clear();
    ++m_ticket;
    m_fetching = m_following = false;
    endResetModel();
    if (m_more)
        fetchMore({});
}

int ChipTableModel::followNew()
{
    if (m_thread) {
        if (m_following || m_fetching)
            return 0;
        m_following = true;
        const quint64 ticket = m_ticket;
        const ChipQuery q = m_query;
        const qint64 after = m_maxId;
        // The thread ends before the model (its owner ends it first), and an
        // answer posted to a model gone is dropped by Qt.
        ChipTableModel *self = this;
        m_thread->post([self, ticket, q, after](ChipStore *store, const QString &openError) {
            QString error = openError;
            QList<ChipRow> fresh;
            if (store) {
                fresh = store->newerThan(q, after, &error);
                if (!error.isEmpty())
                    store->close();   // opened again by the next question
            }
            QMetaObject::invokeMethod(self, [self, ticket, fresh, error] {
                if (ticket != self->m_ticket)
                    return;
                self->m_following = false;
                self->m_error = error;
                self->insertTop(fresh);
                if (!fresh.isEmpty())
                    emit self->arrived(int(fresh.size()));
            }, Qt::QueuedConnection);
        });
        return 0;
    }
    if (!m_store || !m_store->isOpen())
        return 0;
    const QList<ChipRow> fresh = m_store->newerThan(m_query, m_maxId, &m_error);
    insertTop(fresh);
    return int(fresh.size());
}

void ChipTableModel::insertTop(const QList<ChipRow> &fresh)
{
    if (fresh.isEmpty())
        return;
    beginInsertRows({}, 0, int(fresh.size()) - 1);
    m_rows = fresh + m_rows;
    endInsertRows();
    for (const ChipRow &r : fresh)
        m_maxId = std::max(m_maxId, r.id);
}

void ChipTableModel::insertBottom(const QList<ChipRow> &page)
{
    if (page.isEmpty())
        return;
    beginInsertRows({}, int(m_rows.size()), int(m_rows.size() + page.size()) - 1);
    m_rows += page;
    endInsertRows();
    for (const ChipRow &r : page)
        m_maxId = std::max(m_maxId, r.id);
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
    return !parent.isValid() && m_more && !m_fetching;
}

void ChipTableModel::fetchMore(const QModelIndex &parent)
{
    std::optional<std::pair<qint64, qint64>> after;
    if (!m_rows.isEmpty())
        after = std::make_pair(m_rows.last().utcMs, m_rows.last().id);
    if (m_thread) {
        if (parent.isValid() || !m_more || m_fetching)
            return;
        m_fetching = true;
        const quint64 ticket = m_ticket;
        const ChipQuery q = m_query;
        const bool first = m_rows.isEmpty();
        // The thread ends before the model (its owner ends it first), and an
        // answer posted to a model gone is dropped by Qt.
        ChipTableModel *self = this;
        m_thread->post([self, ticket, q, after, first](ChipStore *store, const QString &openError) {
            QString error = openError;
            QList<ChipRow> page;
            if (store) {
                page = store->page(q, after, kPage, &error);
                if (!error.isEmpty())
                    store->close();
            }
            QMetaObject::invokeMethod(self, [self, ticket, page, error, first] {
                if (ticket != self->m_ticket)
                    return;
                self->m_fetching = false;
                self->m_error = error;
                self->m_more = error.isEmpty() && page.size() == kPage;
                self->insertBottom(page);
                if (first)
                    emit self->firstPage();
            }, Qt::QueuedConnection);
        });
        return;
    }
    if (parent.isValid() || !m_more || !m_store || !m_store->isOpen()) {
        m_more = false;
        return;
    }
    const QList<ChipRow> page = m_store->page(m_query, after, kPage, &m_error);
    m_more = page.size() == kPage;
    insertBottom(page);
}

} // namespace pyro
