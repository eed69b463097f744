// A second thread that its owner keeps for sharing a job's pieces with it.
//
// The caller and the helper claim pieces of a job in turn until none are left. A helper that
// has not taken the job by the time the caller runs out of pieces never takes it, so a helper
// that the scheduler leaves waiting (the other core busy) costs the caller only the wake-up,
// never a wait for the helper to be scheduled. A job in which the two did not work side by
// side (the helper took no piece, or took them all while the caller waited for a core, or
// lost its core in the middle of a piece and held the caller up) tells that the other core
// is busy: the next jobs then run on the caller alone, without the wake-up, until one of
// them tries the helper again.
//
// Waking a sleeping thread can cost as much as a whole job (a virtual machine's idle core
// takes tens of microseconds to come back). So the two hand a job over through one atomic
// state and never sleep on each other inside a job, and after each job the helper keeps
// watching for the next one for a short while, yielding its core to any other thread that
// wants it, before it sleeps: jobs that follow each other closely (the frames of one list)
// find it awake.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>

namespace lumora::imaging {

class HelperThread {
public:
    // Pieces [begin, end) of a job; they must not throw and may run on either thread.
    using Work = std::function<void(std::size_t begin, std::size_t end)>;

    // The thread starts at the first share(); none is started here.
    HelperThread() = default;
    // Stops and joins the helper.
    ~HelperThread();
    HelperThread(const HelperThread&) = delete;
    HelperThread& operator=(const HelperThread&) = delete;

    // One calling thread at a time. Runs work over [0, count) in pieces of `piece` (at least 1), claimed
    // by the caller and the helper, and returns when every piece has run and the helper no
    // longer touches `work`. Without a helper (it could not be started, or the other core
    // looked busy in a recent job) the caller runs every piece.
    void share(std::size_t count, std::size_t piece, const Work& work);

private:
    // The hand-over: the caller offers (kOffered), the helper takes (kTaken) and finishes
    // (kDone), the caller withdraws an offer not taken or ends a finished job (kIdle).
    enum State { kIdle, kOffered, kTaken, kDone };

    void serve();
    // Wakes the helper if it sleeps, or is about to, on mWake.
    void wake();
    // Claims and runs pieces until none are left; returns how many it ran.
    std::size_t claim(const Work& work, std::size_t count, std::size_t piece);

    // The job on offer: written by the caller before it offers, read by the helper after it
    // has taken the job.
    const Work* mWork = nullptr;
    std::size_t mCount = 0;
    std::size_t mPiece = 1;
    // Written by the helper before it reports kDone.
    std::size_t mHelped = 0;
    std::atomic<State> mState{kIdle};
    // The next unclaimed position of the current job.
    std::atomic<std::size_t> mNext{0};
    std::atomic<bool> mStop{false};
    // Set by the helper, under the mutex, while it sleeps on mWake.
    std::atomic<bool> mSleeping{false};
    std::mutex mMutex;
    std::condition_variable mWake;
    // The calling thread only.
    bool mTried = false;
    int mAloneFor = 0;
    std::thread mThread;
};

}  // namespace lumora::imaging
