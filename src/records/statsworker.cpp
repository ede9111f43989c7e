#include "statsworker.h"

#include <QThread>

namespace pyro {

ChipStatsWorker::ChipStatsWorker(StoreMaker make, QObject *parent) : QObject(parent), m_make(std::move(make))
{
    m_thread = QThread::create([this] { run(); });
    m_thread->start();
}

ChipStatsWorker::~ChipStatsWorker()
{
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
        m_next.reset();
    }
    m_cv.notify_one();
    // A query under way is let finish: its connection closes on its own thread.
    m_thread->wait();
    delete m_thread;
}

quint64 ChipStatsWorker::request(const ChipQuery &q)
{
    {
        std::lock_guard lock(m_mutex);
        m_next = std::make_pair(++m_latest, q);
    }
    m_waiting = true;
    m_cv.notify_one();
    return m_latest;
}

void ChipStatsWorker::run()
{
    std::unique_ptr<ChipStore> store;
    for (;;) {
        std::pair<quint64, ChipQuery> job;
        {
            std::unique_lock lock(m_mutex);
            m_cv.wait(lock, [&] { return m_stopping || m_next; });
            if (m_stopping)
                break;
            job = std::move(*m_next);
            m_next.reset();
        }
        ChipStats stats;
        stats.ticket = job.first;
        if (!store)
            store = m_make();
        if (!store) {
            stats.error = QStringLiteral("no chip store");
        } else if (!store->isOpen() && !store->open(&stats.error)) {
            // Opened again with the next request: the store may come later.
        } else if (!store->summaryAndHours(job.second, &stats.summary, &stats.hours, &stats.error)) {
            if (stats.error.isEmpty())
                stats.error = QStringLiteral("the chip store gave no answer");
            store->close();
        }
        QMetaObject::invokeMethod(this, [this, stats] {
            if (stats.ticket != m_latest)
                return;
            m_waiting = false;
            emit ready(stats);
        }, Qt::QueuedConnection);
    }
    store.reset();
}

} // namespace pyro
