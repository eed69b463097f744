#include "SerialExecutor.h"

#include <pthread.h>

namespace halden::sensor::sim {

SerialExecutor::SerialExecutor() : mWorker([this] { work(); }) { mWorkerId = mWorker.get_id(); }

SerialExecutor::~SerialExecutor() { shutdown(); }

void SerialExecutor::post(std::function<void()> task) {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mStopping) return;
        mTasks.push_back(std::move(task));
    }
    mWake.notify_one();
}

void SerialExecutor::drain() {
    std::unique_lock<std::mutex> lock(mMutex);
    mIdle.wait(lock, [this] { return mTasks.empty() && !mBusy; });
}

void SerialExecutor::shutdown() {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStopping = true;
    }
    mWake.notify_one();
    if (mWorker.joinable()) mWorker.join();
}

void SerialExecutor::work() {
    pthread_setname_np(pthread_self(), "lumora-events");
    std::unique_lock<std::mutex> lock(mMutex);
    while (true) {
        mWake.wait(lock, [this] { return mStopping || !mTasks.empty(); });
        if (mTasks.empty()) break;  // stopping, and everything queued has run
        auto task = std::move(mTasks.front());
        mTasks.pop_front();
        mBusy = true;
        lock.unlock();
        task();
        lock.lock();
        mBusy = false;
        if (mTasks.empty()) mIdle.notify_all();
    }
    mIdle.notify_all();
}

}  // namespace halden::sensor::sim
