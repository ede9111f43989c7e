#pragma once
// A store connection on a thread of its own, for a window: its questions run
// there, one after another, and their answers come back through the event
// loop, so a store that is slow or a server that can't be reached costs the
// window, and the line's tick beside it, nothing. The store is opened by the
// first job that needs it, and again after it fails.
#include "chipstore.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

class QThread;

namespace pyro {

class ChipStoreThread {
public:
    using StoreMaker = std::function<std::unique_ptr<ChipStore>()>;
    // A job gets the open store, or null and why it could not be opened.
    using Job = std::function<void(ChipStore *store, const QString &openError)>;
    explicit ChipStoreThread(StoreMaker make);
    // Jobs not started are dropped; the one under way is let finish.
    ~ChipStoreThread();
    ChipStoreThread(const ChipStoreThread &) = delete;
    ChipStoreThread &operator=(const ChipStoreThread &) = delete;

    void post(Job job);

private:
    void run();
    StoreMaker m_make;
    QThread *m_thread = nullptr;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::deque<Job> m_jobs;
    bool m_stopping = false;
};

} // namespace pyro
