#include "Commands.h"

#include <cstdio>

#include "terminal/TextHelpers.h"

#include "Discovery.h"
#include "PropertyCommands.h"
#include "ResultPrinter.h"
#include "StressTest.h"

namespace lumora::shell {

namespace hs = halden::sensor;

namespace {

bool camera_selected(const ShellContext& context, const std::string& /*argument*/) { return context.camera != nullptr; }

bool camera_and_argument(const ShellContext& context, const std::string& argument) {
    return !argument.empty() && context.camera != nullptr;
}

bool camera_running(const ShellContext& context, const std::string& /*argument*/) {
    return context.camera != nullptr && context.camera->state() == hs::LumoraCamera::STATE_RUNNING;
}

Outcome quit(ShellContext& context, const std::string& /*argument*/) {
    context.stopStressTest();
    if (context.camera) {
        context.camera->stop();
        context.camera->release();
        hs::destroy_camera(context.camera);
        forget_camera(context);
    }
    context.quit = true;
    return std::nullopt;
}

Outcome help(ShellContext& /*context*/, const std::string& /*argument*/) {
    static const char* const kLines[] = {
        "\rUsage: [COMMAND]... [OPTION]...\n", "\r\t search\t\tsearching for ToF camera device\n",
        "\r\t select\t\tselect camera device in the searched list\n",
        "\r\t run\t\trun the selected camera device & You can see the image frames\n",
        "\r\t stop\t\tstop the camera device\n", "\r\t get\t\tget property from selected camera device\n",
        "\r\t set\t\tset property to selected camera device\n", "\r\t deselect\trelease the camera device\n",
        "\r\t history\tdisplay manipulate the history list\n", "\r\t version\tdisplay last released version\n",
        "\r\t quit\t\trelease the camera device & exit\n", "\r\t help\t\tdisplay this help\n", "\r\nExamples:\n",
        "\r\tselect 0\t\t\tselect ToF camera device index 0\n",
        // clang-format off
        "\r\tset amplitude_threshold 100\tsetting amplitude_threshold property with 100 to the selected camera device\n",
        // clang-format on
    };
    for (const char* line : kLines)
        std::fputs(line, stdout);
    return std::nullopt;
}

Outcome version(ShellContext& /*context*/, const std::string& /*argument*/) {
    std::printf("\rv%s : %s\n", hs::last_released_version().c_str(), hs::last_released_date().c_str());
    return std::nullopt;
}

Outcome history(ShellContext& context, const std::string& /*argument*/) {
    if (context.history != nullptr) context.history->print();
    return std::nullopt;
}

Outcome run(ShellContext& context, const std::string& argument) {
    if (terminal::isInteger(argument)) {
        try {
            context.runArgument = terminal::toInt(argument, context.runArgument);
        } catch (const std::out_of_range&) {
            // Too large for a frame selector: keep the previous one.
        }
    }
    const hs::Result result = context.camera->run(context.runArgument);
    if (result == hs::RESULT_SUCCESS) context.running = true;
    return result;
}

Outcome stop(ShellContext& context, const std::string& /*argument*/) {
    context.stopStressTest();
    return context.camera->stop();
}

}  // namespace

const std::array<Command, 14>& commands() {
    static constexpr std::array<Command, 14> kCommands = {{
        {"quit", nullptr, quit},
        {"help", nullptr, help},
        {"version", nullptr, version},
        {"history", nullptr, history},
        {"search", nullptr, search},
        {"select", nullptr, select},
        {"deselect", camera_selected, deselect},
        {"run", camera_selected, run},
        {"stop", camera_selected, stop},
        {"set", nullptr, set},
        {"get", nullptr, get},
        {"setpl", nullptr, setpl},
        {"getpl", camera_and_argument, getpl},
        {"_run_stop_test", camera_running, start_stress_test},
    }};
    return kCommands;
}

void run_command(ShellContext& context, const std::string& line) {
    const size_t blank = line.find(' ');
    const std::string word = line.substr(0, blank);
    const std::string argument = blank == std::string::npos ? std::string() : line.substr(blank + 1);
    for (const Command& command : commands()) {
        if (word != command.word || (command.condition != nullptr && !command.condition(context, argument))) continue;
        if (const Outcome result = command.handler(context, argument)) print_result(*result);
        std::fflush(stdout);
        return;
    }
    print_result(hs::RESULT_NOT_SUPPORTED);
}

}  // namespace lumora::shell
