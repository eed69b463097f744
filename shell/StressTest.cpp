// The run/stop stress test thread.
//
// The shell thread starts it; it calls stop() and run() on the selected camera, which the
// shell thread may use at the same time (the library allows that). It ends by itself when a
// run fails, or when `running` or `quit` is cleared; whoever clears `running` joins it
// before touching the camera, so the camera outlives the thread. It reads `runArgument`
// afresh for every run.
#include "StressTest.h"

#include <cerrno>
#include <cstdio>
#include <ctime>

namespace lumora::shell {

namespace hs = halden::sensor;

namespace {

void sleep_for(timespec remaining) {
    while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
    }
}

void stress(ShellContext& context) {
    int count = 0;
    while (context.running && !context.quit) {
        context.camera->stop();
        sleep_for({0, 500000000});
        if (context.camera->run(context.runArgument) != hs::RESULT_SUCCESS) break;
        sleep_for({3, 0});
        ++count;
    }
    std::printf("run_stop test count = %d\n", count);
    context.testActive = false;
}

}  // namespace

Outcome start_stress_test(ShellContext& context, const std::string& /*argument*/) {
    if (context.testActive) return hs::RESULT_ALREADY_RUNNING;
    if (context.testThread.joinable()) context.testThread.join();
    context.testActive = true;
    context.testThread = std::thread(stress, std::ref(context));
    return hs::RESULT_SUCCESS;
}

}  // namespace lumora::shell
