// Finding attached cameras and opening one: "search", "select" and "deselect". Each runs on
// the shell thread and prints its own lines; the result line is the caller's.
#pragma once

#include <string>

#include "Commands.h"

namespace lumora::shell {

Outcome search(ShellContext& context, const std::string& argument);
Outcome select(ShellContext& context, const std::string& argument);
Outcome deselect(ShellContext& context, const std::string& argument);

}  // namespace lumora::shell
