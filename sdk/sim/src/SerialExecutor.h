// A worker thread that runs posted tasks one at a time, in the order they were posted.
//
// Design: any thread produces (post), the worker consumes. Tasks run without the queue's
// lock held, so a task may post more tasks or block on other threads. Shutdown runs what
// is queued, then ends and joins the worker; it must not be called from the worker.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace halden::sensor::sim {

class SerialExecutor {
public:
    SerialExecutor();
    ~SerialExecutor();
    SerialExecutor(const SerialExecutor&) = delete;
    SerialExecutor& operator=(const SerialExecutor&) = delete;

    // Queues a task; after shutdown the task is dropped.
    void post(std::function<void()> task);
    // Returns once every task posted before the call has run.
    void drain();
    void shutdown();
    bool onWorkerThread() const { return std::this_thread::get_id() == mWorkerId; }

private:
    void work();

    std::mutex mMutex;
    std::condition_variable mWake;
    std::condition_variable mIdle;
    std::deque<std::function<void()>> mTasks;
    bool mBusy = false;
    bool mStopping = false;
    std::thread mWorker;
    std::thread::id mWorkerId;
};

}  // namespace halden::sensor::sim
