// The shell thread's body: the command loop.
#pragma once

#include "ShellContext.h"

namespace lumora::shell {

// Reads and runs commands until "quit" sets context.quit. On a terminal it owns the
// terminal and reads through the line editor; when standard input is not a terminal it
// reads a script line by line, writes no control sequences, and takes the end of the
// input as "quit".
void run_shell(ShellContext& context);

}  // namespace lumora::shell
