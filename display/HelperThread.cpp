// Design note: the owning thread produces jobs, one at a time; the helper consumes them. A
// job is offered under the mutex and the helper wakes; both then claim pieces from an atomic
// counter. When the caller runs out of pieces it withdraws the offer under the mutex and, only
// if the helper had taken it, waits until the helper has finished its last piece, so the job
// (which lives on the caller's stack) is never touched after share() returns. Shutdown: the
// destructor sets the stop flag under the mutex, wakes the helper and joins it; the helper
// only ever waits between jobs.
#include "HelperThread.h"

#include <algorithm>
#include <system_error>

namespace lumora::display {

HelperThread::~HelperThread() {
    if (!mThread.joinable()) return;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mStop = true;
    }
    mWake.notify_one();
    mThread.join();
}

void HelperThread::share(std::size_t count, std::size_t piece, const Work& work) {
    piece = std::max<std::size_t>(piece, 1);
    if (!mTried) {
        mTried = true;
        try {
            mThread = std::thread([this] { serve(); });
        } catch (const std::system_error&) {
            // Without a helper the caller claims every piece.
        }
    }
    if (!mThread.joinable()) {
        for (std::size_t begin = 0; begin < count; begin += piece)
            work(begin, std::min(count, begin + piece));
        return;
    }
    mNext.store(0, std::memory_order_relaxed);
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mWork = &work;
        mCount = count;
        mPiece = piece;
        mOffered = true;
    }
    mWake.notify_one();
    claim(work, count, piece);
    std::unique_lock<std::mutex> lock(mMutex);
    mOffered = false;
    mDone.wait(lock, [this] { return !mBusy; });
}

void HelperThread::claim(const Work& work, std::size_t count, std::size_t piece) {
    for (;;) {
        const std::size_t begin = mNext.fetch_add(piece, std::memory_order_relaxed);
        if (begin >= count) return;
        work(begin, std::min(count, begin + piece));
    }
}

void HelperThread::serve() {
    std::unique_lock<std::mutex> lock(mMutex);
    for (;;) {
        mWake.wait(lock, [this] { return mStop || mOffered; });
        if (mStop) return;
        mOffered = false;
        mBusy = true;
        const Work& work = *mWork;
        const std::size_t count = mCount;
        const std::size_t piece = mPiece;
        lock.unlock();
        claim(work, count, piece);
        lock.lock();
        mBusy = false;
        mDone.notify_one();
    }
}

HelperThread& helperOfThisThread() {
    thread_local HelperThread helper;
    return helper;
}

}  // namespace lumora::display
