// Design note: the calling thread produces jobs, one at a time; the helper consumes them. The
// caller writes the job and stores kOffered; the helper takes it by exchanging kOffered for
// kTaken; both then claim pieces from an atomic counter. When the caller runs out of pieces
// it exchanges kOffered back for kIdle: if that fails the helper has taken the job, and the
// caller waits (watching, not sleeping) for kDone, so the job, which lives on the caller's
// stack, is never touched after share() returns. Between jobs the helper watches the state for
// kWatch, then sleeps on the condition variable; the caller, having stored kOffered, wakes it
// only if it has said it sleeps. Shutdown: the destructor sets the stop flag, wakes the helper
// and joins it; the helper only ever watches or sleeps between jobs.
#include "imaging/HelperThread.h"

#include <algorithm>
#include <chrono>
#include <system_error>
#include <thread>

namespace lumora::imaging {

namespace {

// Jobs run alone after one in which the helper did not work beside the caller: often enough
// to notice soon when the other core is free again, rarely enough that a busy machine pays
// the wake-up on few jobs.
constexpr int kAloneJobs = 15;
// Longer than the gaps between the conversions of one list; at 30 lists a second, at most
// 3% of a core that nothing else wants.
constexpr std::chrono::microseconds kWatch{1000};

using Clock = std::chrono::steady_clock;

// Watches `ready` for at most `limit`, yielding the core between looks; returns its last answer.
template <typename Ready>
bool watchFor(std::chrono::microseconds limit, const Ready& ready) {
    const auto until = Clock::now() + limit;
    while (!ready()) {
        if (Clock::now() >= until) return false;
        std::this_thread::yield();
    }
    return true;
}

}  // namespace

HelperThread::~HelperThread() {
    if (!mThread.joinable()) return;
    mStop = true;
    wake();
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
    mWork = &work;
    mCount = count;
    mPiece = piece;
    mNext.store(0, std::memory_order_relaxed);
    mState.store(kOffered);
    // Sequentially consistent with the helper's own store and look: either it sees the offer
    // before it sleeps, or this sees that it sleeps.
    if (mSleeping) wake();
    const auto start = Clock::now();
    const std::size_t mine = claim(work, count, piece);
    const auto claimed = Clock::now();
    State offered = kOffered;
    std::size_t helped = 0;
    if (!mState.compare_exchange_strong(offered, kIdle)) {
        // Its last piece at most, unless it lost its core in the middle of it.
        while (!watchFor(kWatch, [this] { return mState.load(std::memory_order_acquire) == kDone; }))
            std::this_thread::sleep_for(kWatch / 10);
        helped = mHelped;
        mState.store(kIdle, std::memory_order_relaxed);
    }
    // Waiting longer than two of its own pieces took means the helper lost its core mid-piece.
    const bool heldUp = mine > 0 && (Clock::now() - claimed) * mine > 2 * (claimed - start);
    if (mine == 0 || helped == 0 || heldUp) mAloneFor = kAloneJobs;
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

void HelperThread::wake() {
    // Taking the mutex once makes sure the helper is not between its last look and its sleep.
    mMutex.lock();
    mMutex.unlock();
    mWake.notify_one();
}

void HelperThread::serve() {
    const auto offered = [this] { return mStop || mState == kOffered; };
    for (;;) {
        if (!watchFor(kWatch, offered)) {
            std::unique_lock<std::mutex> lock(mMutex);
            mSleeping = true;
            mWake.wait(lock, offered);
            mSleeping = false;
        }
        if (mStop) return;
        State expected = kOffered;
        if (!mState.compare_exchange_strong(expected, kTaken)) continue;
        mHelped = claim(*mWork, mCount, mPiece);
        mState.store(kDone, std::memory_order_release);
    }
}

}  // namespace lumora::imaging
