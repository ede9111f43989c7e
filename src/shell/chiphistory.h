#pragma once
// The chip store in the window: the writer the burn hands its chips to, and
// the chip history window (View > Chip history).
#include "chipmodel.h"
#include "chipwriter.h"
#include "recordsconfig.h"
#include "sqlitestore.h"
#include "statsworker.h"
#include "storethread.h"

#include <QTimer>
#include <QWidget>
#include <memory>

class QComboBox;
class QLabel;
class QLineEdit;
class QTableView;

namespace pyro {

struct Burn;
class Prompter;

// Chips per hour over the span shown, good and failed stacked.
class HourChart : public QWidget {
    Q_OBJECT
public:
    explicit HourChart(QWidget *parent = nullptr);
    void setHours(const QList<HourCount> &hours);
    const QList<HourCount> &hours() const { return m_hours; }
    QSize sizeHint() const override { return {600, 140}; }

protected:
    void paintEvent(QPaintEvent *) override;

private:
    QList<HourCount> m_hours;
};

// The window's side of the store: starts the writer with the first chip,
// hands it every chip, and says once what went wrong with the store in a
// box that does not stop the line.
class ChipRecords : public QObject {
    Q_OBJECT
public:
    // The store is chosen once, here: records.conf in appDir names the line's.
    ChipRecords(Burn &burn, const QString &recordFolder, QWidget *parent, const QString &appDir = {});
    ~ChipRecords() override;
    QString storePath() const { return m_choice.storePath; }
    const RecordsChoice &choice() const { return m_choice; }
    // The line's store is chosen and the writer can't reach it now.
    bool lineDown() const;
    // What the writer said since the last call (the window polls it too).
    void poll();
    QStringList messages;             // every message so far, newest last
    QList<ChipMet> met;               // chips met again, newest last
    QWidget *noticeParent = nullptr;  // null: no box (tests read messages)
    bool boxes = true;
signals:
    void news();

private:
    void notify(const QString &message);
    RecordsChoice m_choice;
    std::unique_ptr<ChipWriter> m_writer;
    QTimer m_poll;
};

class ChipHistoryWindow : public QWidget {
    Q_OBJECT
public:
    ChipHistoryWindow(ChipRecords &records, Prompter *prompter, QWidget *parent = nullptr);
    ~ChipHistoryWindow() override;

    ChipTableModel *model() const { return m_model; }
    QTableView *table() const { return m_table; }
    HourChart *chart() const { return m_chart; }
    QLabel *summaryLabel() const { return m_summary; }
    QLabel *noticeLabel() const { return m_notice; }
    QLineEdit *chipEdit() const { return m_chip; }
    QLineEdit *orderEdit() const { return m_order; }
    QLineEdit *dayEdit() const { return m_day; }
    QLineEdit *portEdit() const { return m_port; }
    QComboBox *resultBox() const { return m_result; }
    ChipStatsWorker *stats() const { return m_stats; }
    // The filter typed so far, at once rather than after the typing pause.
    void applyFilter();
    // Rows stored since, on top; the summary and picture again if any.
    void follow();
    // Writes every row the filter selects, beside the window; exported()
    // tells when it is done (a message said why when it failed).
    void exportCsv(const QString &path);

signals:
    void exported(bool ok);

protected:
    void showEvent(QShowEvent *) override;

private:
    ChipQuery currentQuery() const;
    void refreshSummary();
    void showStats(const ChipStats &stats);
    void showNews();
    void pageArrived();

    ChipRecords &m_records;
    Prompter *m_prompter;
    // The table's own connection to the store (the line's when chosen, else
    // the bench's), on a thread of its own so that the window never waits.
    std::unique_ptr<ChipStoreThread> m_rows;
    ChipStatsWorker *m_stats;
    ChipTableModel *m_model;
    QTableView *m_table;
    HourChart *m_chart;
    QLabel *m_summary, *m_notice;
    QLineEdit *m_chip, *m_order, *m_day, *m_port;
    QComboBox *m_result;
    QTimer m_typing, m_follow;
    int m_newsSeen = 0, m_metSeen = 0;
    qint64 m_nextTry = 0;    // a store that would not answer is not asked again before (ms since 1970)
};

} // namespace pyro
