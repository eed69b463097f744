// The hidden "_run_stop_test": a thread that stops and restarts the selected camera until
// "stop", "deselect" or "quit" clears `running` and joins it.
#pragma once

#include <string>

#include "Commands.h"

namespace lumora::shell {

// Starts the stress test thread; "already running" while an earlier one still runs.
Outcome start_stress_test(ShellContext& context, const std::string& argument);

}  // namespace lumora::shell
