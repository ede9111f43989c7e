#pragma once
#include "exchangelog.h"

#include <QAbstractTableModel>
#include <QTimer>
#include <QWidget>
#include <array>
#include <deque>

class QCheckBox;
class QComboBox;
class QLabel;
class QTableView;

namespace pyro {

class Prompter;

// The rows of the line monitor: the kept records that pass the filter, by
// sequence number. sync() takes in what the log gained and lost since the
// last call, so the view pays per new record, not per record kept.
class MonitorModel : public QAbstractTableModel {
    Q_OBJECT
public:
    enum Column { Time, Tick, Dir, Function, Length, Bytes, Text, Outcome, ColumnCount };
    explicit MonitorModel(const ExchangeLog &log, QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation o, int role = Qt::DisplayRole) const override;

    void sync();
    void setFilter(const MonitorFilter &f);
    const MonitorFilter &filter() const { return m_filter; }
    const MonitorRecord &record(int row) const;
    // Functions seen so far, for the filter's list.
    const std::array<bool, 256> &seen() const { return m_seen; }

private:
    const ExchangeLog &m_log;
    MonitorFilter m_filter;
    std::deque<qint64> m_rows;           // sequence numbers shown
    qint64 m_synced = 0;                 // log.total() at the last sync
    std::array<bool, 256> m_seen{};
};

// The line monitor: every exchange as the engine reports it. Open, it hangs
// itself on Link::onExchange; closed, it takes itself off again.
class MonitorWindow : public QWidget {
    Q_OBJECT
public:
    MonitorWindow(Link &link, Prompter *prompter, QWidget *parent = nullptr);
    ~MonitorWindow() override;

    ExchangeLog log;
    MonitorModel *model() const { return m_model; }
    QTableView *table() const { return m_table; }
    bool paused() const;
    void setPaused(bool on);
    void clear();
    // Selected rows as text, as Copy puts them on the clipboard.
    QString selectedText() const;
    void copySelected();
    // Asks for a file and writes every kept record that passes the filter.
    void saveAll();
    // Takes in the records since the last look; a timer calls it.
    void sync();

protected:
    void showEvent(QShowEvent *e) override;
    void hideEvent(QHideEvent *e) override;

private:
    void hook(bool on);
    void fillFunctions();

    Link &m_link;
    Prompter *m_prompter;
    bool m_hooked = false;
    std::function<void(const ExchangeRecord &)> m_before;   // an observer already there
    MonitorModel *m_model;
    QTableView *m_table;
    QCheckBox *m_pause;
    QComboBox *m_function;
    QComboBox *m_outcome;
    QLabel *m_count;
    QTimer m_timer;
    int m_functionsListed = 0;
};

} // namespace pyro
