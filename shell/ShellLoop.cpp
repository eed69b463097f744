#include "ShellLoop.h"

#include "Commands.h"
#include "Terminal.h"

namespace lumora::shell {

void run_shell(ShellContext& context) {
    terminal::Terminal& terminal = terminal::Terminal::getInstance();
    for (const Command& command : commands())
        terminal.addCommandWord(command.word);
    while (!context.quit) {
        terminal.setPrompt(context.promptName.empty() ? "LumoraShell>" : context.promptName + ":");
        const std::string line = terminal.readLine();
        if (!line.empty()) run_command(context, line);
    }
}

}  // namespace lumora::shell
