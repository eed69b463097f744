// The one thread that makes every highgui call of the process.
//
// OpenCV's highgui on Qt binds its GUI objects to the first thread that uses it: a later
// thread's call hangs once that thread has ended, and with no display Qt aborts the process.
// So highgui is reached only through this thread, which lives for the whole process, and
// only after displayAvailable() has said yes.
//
// At exit (std::exit, from main's return or a fatal-signal handler on any thread) the GUI
// thread closes every window and frees the Qt objects that hold timers on its own thread,
// then stops touching Qt for good, before Qt's own static objects are destroyed.
#pragma once

#include <functional>
#include <memory>

namespace lumora::display {

// A task posted to the GUI thread without waiting for it: postToGuiThread() makes it, the
// poster waits for it when it must (before it touches what the task reads).
class GuiTask {
public:
    virtual ~GuiTask() = default;
    // Returns once the task has run.
    virtual void wait() = 0;
};

// Any thread. Whether an X display can be reached: decided once per process, by opening and
// closing a connection to $DISPLAY, before any highgui call.
bool displayAvailable();

// Any thread except the GUI thread itself. Runs `task` on the GUI thread, after the tasks
// posted before it, and returns true when it has run. Returns false at once, without running
// it, once the exit has begun to close the GUI thread down. Mouse callbacks registered by a
// task run on the GUI thread too, while a later task services the windows (cv::waitKey).
// Exceptions must not leave `task`. Must only be called when displayAvailable() is true.
bool runOnGuiThread(const std::function<void()>& task);

// The same without waiting: queues `task` after the tasks posted before it and returns a
// handle to wait on; null, without queueing it, once the exit has begun to close the GUI
// thread down. Whatever `task` reads must stay valid and unchanged until it has run: the
// close-down at exit runs the tasks queued before it, waiting at most its bounded time.
std::shared_ptr<GuiTask> postToGuiThread(std::function<void()> task);

}  // namespace lumora::display
