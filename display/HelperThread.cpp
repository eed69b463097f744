// Design note: the owning thread produces jobs, one at a time; the helper consumes them. A
// job is offered under the mutex and the helper wakes; both then claim pieces from an atomic
// counter. When the caller runs out of pieces it withdraws the offer under the mutex and, only
// if the helper had taken it, waits until the helper has finished its last piece, so the job
// (which lives on the caller's stack) is never touched after share() returns. Shutdown: the
// destructor sets the stop flag under the mutex, wakes the helper and joins it; the helper
// only ever waits between jobs.
#include "HelperThread.h"

#include <algorithm>
#include <chrono>
#include <system_error>

namespace lumora::display {

namespace {

// Jobs run alone after one in which the helper did not work beside the caller: often enough
// to notice soon when the other core is free again, rarely enough that a busy machine pays
// the wake-up on few jobs.
constexpr int kAloneJobs = 15;

using Clock = std::chrono::steady_clock;

}  // namespace

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
    if (!mThread.joinable() || mAloneFor > 0) {
        mAloneFor = std::max(mAloneFor - 1, 0);
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
        mHelped = 0;
        mOffered = true;
    }
    mWake.notify_one();
    const auto start = Clock::now();
    const std::size_t mine = claim(work, count, piece);
    const auto claimed = Clock::now();
    std::unique_lock<std::mutex> lock(mMutex);
    mOffered = false;
    mDone.wait(lock, [this] { return !mBusy; });
    // Waiting longer than two of its own pieces took means the helper lost its core mid-piece.
    const bool heldUp = mine > 0 && (Clock::now() - claimed) * mine > 2 * (claimed - start);
    if (mine == 0 || mHelped == 0 || heldUp) mAloneFor = kAloneJobs;
}

std::size_t HelperThread::claim(const Work& work, std::size_t count, std::size_t piece) {
    std::size_t ran = 0;
    for (;;) {
        const std::size_t begin = mNext.fetch_add(piece, std::memory_order_relaxed);
        if (begin >= count) return ran;
        work(begin, std::min(count, begin + piece));
        ++ran;
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
        const std::size_t ran = claim(work, count, piece);
        lock.lock();
        mHelped = ran;
        mBusy = false;
        mDone.notify_one();
    }
}

HelperThread& helperOfThisThread() {
    thread_local HelperThread helper;
    return helper;
}

}  // namespace lumora::display
