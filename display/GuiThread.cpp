// Design note: any thread posts a task and waits for it; the GUI thread, started on the
// first post, runs the tasks one at a time in the order posted. It never ends: highgui
// cannot move to another thread, so the thread and its queue are made once and left for
// the process's exit to reclaim (the waiters are gone by then).
#include "GuiThread.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include <X11/Xlib.h>

namespace lumora::display {

namespace {

class GuiThread {
public:
    GuiThread() : mThread([this] { loop(); }) { mThread.detach(); }

    void run(const std::function<void()>& task) {
        Job job{&task, false};
        std::unique_lock<std::mutex> lock(mMutex);
        mTasks.push_back(&job);
        mPosted.notify_one();
        mDone.wait(lock, [&job] { return job.done; });
    }

private:
    // A task of a waiting caller; it lives on the caller's stack until `done` is set.
    struct Job {
        const std::function<void()>* task;
        bool done;
    };

    [[noreturn]] void loop() {
        for (;;) {
            Job* job = nullptr;
            {
                std::unique_lock<std::mutex> lock(mMutex);
                mPosted.wait(lock, [this] { return !mTasks.empty(); });
                job = mTasks.front();
                mTasks.pop_front();
            }
            (*job->task)();
            {
                const std::lock_guard<std::mutex> lock(mMutex);
                job->done = true;
            }
            mDone.notify_all();
        }
    }

    std::mutex mMutex;
    std::condition_variable mPosted;
    std::condition_variable mDone;
    std::deque<Job*> mTasks;
    std::thread mThread;
};

}  // namespace

bool displayAvailable() {
    static const bool available = [] {
        // $DISPLAY, or an empty name when it is not set.
        const char* name = XDisplayName(nullptr);
        if (name == nullptr || *name == '\0') return false;
        Display* display = XOpenDisplay(name);
        if (display == nullptr) return false;
        XCloseDisplay(display);
        return true;
    }();
    return available;
}

void runOnGuiThread(const std::function<void()>& task) {
    // Never destroyed: its thread outlives every static object.
    static GuiThread* const thread = new GuiThread;
    thread->run(task);
}

}  // namespace lumora::display
