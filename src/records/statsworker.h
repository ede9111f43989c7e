#pragma once
// The summary and the chips-an-hour picture of a query, worked out on a
// thread of its own with a store connection of its own (Qt SQL uses a
// connection only in the thread that opened it), so that a window paints at
// once and shows them when they arrive. Only the newest request is answered:
// one asked while an older one waits replaces it, and the answer to one
// overtaken while it ran is dropped.
#include "chipstore.h"

#include <QObject>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

class QThread;

namespace pyro {

struct ChipStats {
    quint64 ticket = 0;
    ChipSummary summary;
    QList<HourCount> hours;
    QString error;               // empty when the store answered
};

class ChipStatsWorker : public QObject {
    Q_OBJECT
public:
    // Called on the worker's thread, where the store is opened, used and closed.
    using StoreMaker = std::function<std::unique_ptr<ChipStore>()>;
    explicit ChipStatsWorker(StoreMaker make, QObject *parent = nullptr);
    ~ChipStatsWorker() override;

    // The ticket its answer will carry.
    quint64 request(const ChipQuery &q);
    // The newest ticket asked for, and whether its answer is still to come.
    quint64 latest() const { return m_latest; }
    bool waiting() const { return m_waiting; }

signals:
    // On the owner's thread, for the newest request only.
    void ready(const pyro::ChipStats &stats);

private:
    void run();
    StoreMaker m_make;
    QThread *m_thread = nullptr;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::optional<std::pair<quint64, ChipQuery>> m_next;
    bool m_stopping = false;
    quint64 m_latest = 0;        // the owner's thread only
    bool m_waiting = false;      // the owner's thread only
};

} // namespace pyro
