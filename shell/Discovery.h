// Finding attached cameras and opening one: "search", "select" and "deselect". Each runs on
// the shell thread and prints its own lines; the result line is the caller's.
#pragma once

#include <string>

#include "Commands.h"

namespace lumora::shell {

Outcome search(ShellContext& context, const std::string& argument);
Outcome select(ShellContext& context, const std::string& argument);
Outcome deselect(ShellContext& context, const std::string& argument);

// The display ranges a model's depth and amplitude are shown with, each as (max, min).
struct DisplayRanges {
    float depthMax;
    float depthMin;
    float grayMax;
    float grayMin;
};
DisplayRanges display_ranges_for(const std::string& model);

}  // namespace lumora::shell
