// "set", "get", "setpl" and "getpl": library and camera properties by key, and named
// property collections. They run on the shell thread and print their own lines.
#pragma once

#include <string>

#include <halden/sensor/LumoraProperty.h>

#include "Commands.h"

namespace lumora::shell {

Outcome set(ShellContext& context, const std::string& argument);
Outcome get(ShellContext& context, const std::string& argument);
Outcome setpl(ShellContext& context, const std::string& argument);
Outcome getpl(ShellContext& context, const std::string& argument);

// A property typed from the text: a string, a 64-bit float, or a 32-bit integer.
std::shared_ptr<halden::sensor::LumoraProperty> make_typed_property(const std::string& key, const std::string& value);
// The prefix, the key, then the value in the format of its data type and an end of line.
void print_property(const char* prefix, const halden::sensor::LumoraProperty& property);

}  // namespace lumora::shell
