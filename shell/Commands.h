// The command table: each word with the condition under which it runs and its handler.
// Dispatch and the line editor's word list both read it, in its order.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "ShellContext.h"

namespace lumora::shell {

// A handler prints its own output and returns the code for the result line, or nothing
// when the command prints no result line.
using Outcome = std::optional<std::uint32_t>;

struct Command {
    const char* word;
    // Null: always runs.
    bool (*condition)(const ShellContext& context, const std::string& argument);
    Outcome (*handler)(ShellContext& context, const std::string& argument);
};

// Trivially destructible, so that it stays readable while a fatal signal ends the process.
const std::array<Command, 14>& commands();

// Runs one non-empty command line on the shell thread: the word before the first blank
// picks the command, the text after that blank is its argument. A word that matches
// nothing, or a command whose condition does not hold, answers "not supported".
void run_command(ShellContext& context, const std::string& line);

}  // namespace lumora::shell
