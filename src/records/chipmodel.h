#pragma once
// The rows of a query for a window's table, fetched a page at a time as they
// scroll into view: a million rows open as fast as two hundred.
#include "chipstore.h"

#include <QAbstractTableModel>

namespace pyro {

class ChipStoreThread;

class ChipTableModel : public QAbstractTableModel {
    Q_OBJECT
public:
    static constexpr int kPage = 200;
    enum Column { Time, Station, Port, ChipId, Order, Image, Length, Duration, Retries, Result, ColumnCount };

    explicit ChipTableModel(QObject *parent = nullptr) : QAbstractTableModel(parent) {}
    // The store is the caller's, used only on this model's thread.
    void setStore(ChipStore *store) { m_store = store; }
    // Or a store on a thread of its own (a window's), which must end before
    // the model: pages are asked for and go in when they come, and
    // arrived() tells of new rows on top.
    void setStoreThread(ChipStoreThread *thread) { m_thread = thread; }
    // Starts over with the first page of this query.
    void setQuery(const ChipQuery &q);
    const ChipQuery &query() const { return m_query; }
    // Rows stored since the newest one shown go on top; their count (with a
    // store thread: 0, and arrived() once they are in).
    int followNew();
    // With a store thread: no answer is still to come.
    bool settled() const { return !m_fetching && !m_following; }
    const ChipRow &row(int i) const { return m_rows[i]; }
    QString lastError() const { return m_error; }

    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QVariant headerData(int section, Qt::Orientation o, int role) const override;
    bool canFetchMore(const QModelIndex &parent) const override;
    void fetchMore(const QModelIndex &parent) override;

signals:
    // With a store thread: the first page of a query is in, or failed (error set).
    void firstPage();
    void arrived(int fresh);

private:
    void insertTop(const QList<ChipRow> &fresh);
    void insertBottom(const QList<ChipRow> &page);
    ChipStore *m_store = nullptr;
    ChipStoreThread *m_thread = nullptr;
    quint64 m_ticket = 0;        // answers to an older query are dropped
    bool m_fetching = false, m_following = false;
    ChipQuery m_query;
    QList<ChipRow> m_rows;
    bool m_more = false;
    qint64 m_maxId = 0;
    QString m_error;
};

} // namespace pyro
