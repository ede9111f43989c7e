#pragma once
// The rows of a query for a window's table, fetched a page at a time as they
// scroll into view: a million rows open as fast as two hundred.
#include "chipstore.h"

#include <QAbstractTableModel>

namespace pyro {

class ChipTableModel : public QAbstractTableModel {
    Q_OBJECT
public:
    static constexpr int kPage = 200;
    enum Column { Time, Station, Port, ChipId, Order, Image, Length, Duration, Retries, Result, ColumnCount };

    explicit ChipTableModel(QObject *parent = nullptr) : QAbstractTableModel(parent) {}
    // The store is the caller's, used only on this model's thread.
    void setStore(ChipStore *store) { m_store = store; }
    // Starts over with the first page of this query.
    void setQuery(const ChipQuery &q);
    const ChipQuery &query() const { return m_query; }
    // Rows stored since the newest one shown go on top; their count.
    int followNew();
    const ChipRow &row(int i) const { return m_rows[i]; }
    QString lastError() const { return m_error; }

    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QVariant headerData(int section, Qt::Orientation o, int role) const override;
    bool canFetchMore(const QModelIndex &parent) const override;
    void fetchMore(const QModelIndex &parent) override;

private:
    ChipStore *m_store = nullptr;
    ChipQuery m_query;
    QList<ChipRow> m_rows;
    bool m_more = false;
    qint64 m_maxId = 0;
    QString m_error;
};

} // namespace pyro
