// Finding attached cameras and opening one: "search", "select" and "deselect". Each runs on
// the shell thread and prints its own lines; the result line is the caller's.
#pragma once

#include <string>

#include "Commands.h"

namespace lumora::shell {

Outcome search(ShellContext& context, const std::string& argument);
Outcome select(ShellContext& context, const std::string& argument);
Outcome deselect(ShellContext& context, const std::string& argument);

// After the selected camera has been closed ("deselect", "quit"): undoes what "select" set up
// beside the camera's own sinks (the prepared listeners of the dump sink and the live
// measurement) and forgets the camera.
void forget_camera(ShellContext& context);

}  // namespace lumora::shell
