// The shell thread's body: the command loop at the prompt.
#pragma once

#include "ShellContext.h"

namespace lumora::shell {

// Reads and runs commands until "quit" sets context.quit. Owns the terminal while it runs.
void run_shell(ShellContext& context);

}  // namespace lumora::shell
