#include "ShellLoop.h"

#include <unistd.h>

#include "Commands.h"
#include "terminal/ScriptReader.h"
#include "terminal/Terminal.h"

namespace lumora::shell {

namespace {

std::string prompt_of(const ShellContext& context) {
    return context.promptName.empty() ? "LumoraShell>" : context.promptName + ":";
}

void run_on_terminal(ShellContext& context) {
    terminal::Terminal& terminal = terminal::Terminal::getInstance();
    context.history = &terminal.history();
    for (const Command& command : commands())
        terminal.addCommandWord(command.word);
    while (!context.quit) {
        terminal.setPrompt(prompt_of(context));
        const std::string line = terminal.readLine();
        if (!line.empty()) run_command(context, line);
    }
}

// The end of the input ends the session as "quit" would, so a dump under way keeps what it
// captured and the camera is closed in order.
void run_script(ShellContext& context) {
    terminal::ScriptReader reader(STDIN_FILENO);
    context.history = &reader.history();
    while (!context.quit) {
        const std::optional<std::string> line = reader.readLine(prompt_of(context));
        if (!line) {
            run_command(context, "quit");
        } else if (!line->empty()) {
            run_command(context, *line);
        }
    }
    context.history = nullptr;
}

}  // namespace

void run_shell(ShellContext& context) {
    if (isatty(STDIN_FILENO)) {
        run_on_terminal(context);
    } else {
        run_script(context);
    }
}

}  // namespace lumora::shell
