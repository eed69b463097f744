#include "ShellLoop.h"

#include <cstdio>
#include <iostream>
#include <string>

#include "ResultPrinter.h"

namespace lumora::shell {

namespace {

void quit(ShellContext& context) {
    context.stopStressTest();
    if (context.camera) {
        context.camera->stop();
        context.camera->release();
        halden::sensor::destroy_camera(context.camera);
        context.camera.reset();
        context.promptName.clear();
    }
    context.quit = true;
}

}  // namespace

// A line-based stand-in for the interactive interpreter: it knows "quit" only.
void run_shell(ShellContext& context) {
    std::string line;
    while (!context.quit) {
        std::printf("%s", context.promptName.empty() ? "LumoraShell>" : (context.promptName + ":").c_str());
        std::fflush(stdout);
        if (!std::getline(std::cin, line) || line == "quit") {
            quit(context);
        } else if (!line.empty()) {
            print_result(halden::sensor::RESULT_NOT_SUPPORTED);
        }
    }
}

}  // namespace lumora::shell
