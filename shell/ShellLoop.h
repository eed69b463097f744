// The shell thread's body.
#pragma once

#include "ShellContext.h"

namespace lumora::shell {

// Reads commands from standard input until "quit" (or the end of input), which stops and
// closes the selected camera and sets context.quit.
void run_shell(ShellContext& context);

}  // namespace lumora::shell
