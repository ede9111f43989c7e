#include "storethread.h"

#include <QThread>

namespace pyro {

ChipStoreThread::ChipStoreThread(StoreMaker make) : m_make(std::move(make))
{
    m_thread = QThread::create([this] { run(); });
    m_thread->start();
}

ChipStoreThread::~ChipStoreThread()
{
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
        m_jobs.clear();
    }
    m_cv.notify_one();
    m_thread->wait();
    delete m_thread;
}

void ChipStoreThread::post(Job job)
{
    {
        std::lock_guard lock(m_mutex);
        m_jobs.push_back(std::move(job));
    }
    m_cv.notify_one();
}

void ChipStoreThread::run()
{
    std::unique_ptr<ChipStore> store;
    for (;;) {
        Job job;
        {
            std::unique_lock lock(m_mutex);
            m_cv.wait(lock, [&] { return m_stopping || !m_jobs.empty(); });
            if (m_stopping)
                break;
            job = std::move(m_jobs.front());
            m_jobs.pop_front();
        }
        if (!store)
            store = m_make();
        QString error;
        if (!store)
            error = QStringLiteral("no chip store");
        else if (!store->isOpen())
            store->open(&error);
        const bool open = store && store->isOpen();
        job(open ? store.get() : nullptr, error);
    }
    // The connection closes on the thread that opened it.
    store.reset();
}

} // namespace pyro
