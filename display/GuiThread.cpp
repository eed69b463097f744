// Design note: any thread posts a task and waits for it, at once or later (the render thread
// converts the next list while its last one is shown); the GUI thread, started on the first
// post, runs the tasks one at a time in the order posted. It never ends: highgui
// cannot move to another thread, so the thread and its queue are made once and never freed.
//
// Exit: std::exit destroys Qt's static objects on the exiting thread while this thread may
// still be painting with them, and objects it made (Qt's pixmap cache, with a timer of this
// thread) would be destroyed from another thread. So an atexit hook, registered from this
// thread after highgui's calls (and so run before the destructors of the Qt globals those
// calls made), appends a close-down job after the tasks already posted and waits for it at
// most a bounded time: this thread closes every window, empties the pixmap cache, and then
// waits for good without touching Qt again; posts from then on return at once without
// running. Ctrl-C and Ctrl-Z are blocked on this thread (and the Qt threads it starts), so
// the terminal's handler never calls exit here.
#include "GuiThread.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

// Before Xlib, whose macros (Bool, Status) break Qt's headers.
#include <QPixmapCache>
#include <QtGlobal>

#include <X11/Xlib.h>
#include <pthread.h>
#include <opencv2/highgui.hpp>

#include <halden/sensor/Log.h>

namespace lumora::display {

namespace {

// How long exit waits for the windows to close before it goes on regardless.
constexpr auto kCloseDownWait = std::chrono::seconds(2);

void closeHighgui() {
    try {
        cv::destroyAllWindows();
        // Lets the window system see the windows go, as a closing run does.
        cv::waitKey(1);
    } catch (const cv::Exception&) {
        // No window left to close.
    }
    QPixmapCache::clear();
}

void closeDownAtExit();

// Qt writes its own notices (a missing XDG_RUNTIME_DIR, a font or GL fallback) to standard
// error, which is the shell's terminal: they become the shell's log entries instead, shown
// at the log level they call for.
void logQtMessage(QtMsgType type, const QMessageLogContext& /*context*/, const QString& message) {
    const QByteArray text = message.toLocal8Bit();
    const auto tag = LUMORA_LOG_TAG("Qt");
    switch (type) {
        case QtFatalMsg:
        case QtCriticalMsg:
            halden::sensor::Log::e(tag, "%s\n", text.constData());
            break;
        case QtWarningMsg:
            halden::sensor::Log::w(tag, "%s\n", text.constData());
            break;
        default:
            halden::sensor::Log::d(tag, "%s\n", text.constData());
            break;
    }
}

// A task and whether it has run; `done` is guarded by the GUI thread's mutex.
struct Job final : GuiTask {
    explicit Job(std::function<void()> work) : task(std::move(work)) {}
    void wait() override;

    const std::function<void()> task;
    bool done = false;
};

class GuiThread {
public:
    GuiThread() : mThread([this] { loop(); }) { mThread.detach(); }

    std::shared_ptr<Job> post(std::function<void()> task) {
        auto job = std::make_shared<Job>(std::move(task));
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mClosing.load()) return nullptr;
        mTasks.push_back(job);
        mPosted.notify_one();
        return job;
    }

    void wait(const Job& job) {
        std::unique_lock<std::mutex> lock(mMutex);
        mDone.wait(lock, [&job] { return job.done; });
    }

    // The atexit hook, on the exiting thread. Only its first call acts, so that the exit as a
    // whole never waits longer than kCloseDownWait, also when a task hangs or the exiting
    // thread itself holds the lock (a fatal signal's handler).
    void closeDown() {
        // Set before the lock is taken: a post that comes after it returns at once, and one
        // that came before is queued ahead of the close-down job.
        if (mClosing.exchange(true)) return;
        // A fault inside a task: Qt's state is unknown, so it is left as it is.
        if (tOnGuiThread) return;
        const auto deadline = std::chrono::steady_clock::now() + kCloseDownWait;
        std::unique_lock<std::mutex> lock(mMutex, std::defer_lock);
        // Polled rather than a timed lock, which ThreadSanitizer does not see as a lock.
        while (!lock.try_lock()) {
            if (std::chrono::steady_clock::now() >= deadline) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        mTasks.push_back(mCloseJob);
        mPosted.notify_one();
        mDone.wait_until(lock, deadline, [this] { return mCloseJob->done; });
    }

private:
    [[noreturn]] void loop() {
        tOnGuiThread = true;
        qInstallMessageHandler(logQtMessage);
        sigset_t interactive;
        sigemptyset(&interactive);
        sigaddset(&interactive, SIGINT);
        sigaddset(&interactive, SIGTSTP);
        pthread_sigmask(SIG_BLOCK, &interactive, nullptr);
        std::uint64_t tasksRun = 0;
        for (;;) {
            std::shared_ptr<Job> job;
            {
                std::unique_lock<std::mutex> lock(mMutex);
                mPosted.wait(lock, [this] { return !mTasks.empty(); });
                job = std::move(mTasks.front());
                mTasks.pop_front();
            }
            job->task();
            {
                const std::lock_guard<std::mutex> lock(mMutex);
                job->done = true;
            }
            mDone.notify_all();
            // Qt registers the destructor of each global at its first use, which may come with
            // any later task. The hook is registered anew after the 1st, 2nd, 4th, 8th... task,
            // so that it runs before nearly all of them for a few dozen registrations at most.
            ++tasksRun;
            if ((tasksRun & (tasksRun - 1)) == 0 && !mClosing.load()) std::atexit(closeDownAtExit);
        }
    }

    static thread_local bool tOnGuiThread;
    std::mutex mMutex;
    std::condition_variable mPosted;
    std::condition_variable mDone;
    std::deque<std::shared_ptr<Job>> mTasks;
    std::atomic<bool> mClosing{false};
    // Made up front: the exiting thread must not allocate while another may hold the heap's lock.
    const std::shared_ptr<Job> mCloseJob = std::make_shared<Job>(closeHighgui);
    std::thread mThread;
};

thread_local bool GuiThread::tOnGuiThread = false;

GuiThread& guiThread() {
    // Never destroyed: its thread outlives every static object.
    static GuiThread* const thread = new GuiThread;
    return *thread;
}

void closeDownAtExit() { guiThread().closeDown(); }

void Job::wait() { guiThread().wait(*this); }

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

bool runOnGuiThread(const std::function<void()>& task) {
    // The task is run by reference: this frame outlives it.
    const auto job = guiThread().post([&task] { task(); });
    if (!job) return false;
    guiThread().wait(*job);
    return true;
}

std::shared_ptr<GuiTask> postToGuiThread(std::function<void()> task) { return guiThread().post(std::move(task)); }

}  // namespace lumora::display
