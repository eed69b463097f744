// The shell's own settings: the display, the colour and gray scales, the frame-rate check,
// the frame dump, the web view and the depth-quality measurement. "set" and "get" reach them
// only once the library, and then the selected camera, have answered "not supported" for the
// key. Each setting is stored once, where it acts (the renderer, the colour maps, the dump
// sink, the web view, the live measurement); nothing here keeps a copy.
#pragma once

#include <string>

#include <halden/sensor/LumoraProperty.h>

#include "Commands.h"

namespace lumora::shell {

// Shell thread. Applies KEY with the value typed from its first word (`value`; null when
// the command gave none) and the whole argument text after KEY (`rest`, for "frame_dump
// MODE COUNT"). The result is RESULT_NOT_SUPPORTED for a key that is no setting, for a
// number where a setting takes a word, and while the shell has no sinks.
Outcome set_setting(ShellContext& context, const std::string& key, const halden::sensor::LumoraProperty* value,
                    const std::string& rest);

// Shell thread. Prints "-> result : KEY VALUE" for a setting and returns nothing;
// "frame_dump" with a file name prints what that dump file holds instead, and
// "depth_quality" measures the selected camera's next lists (waiting for them) and prints the
// figures, or why there are none, before its result line. Any other key answers
// RESULT_NOT_SUPPORTED and prints nothing.
Outcome get_setting(ShellContext& context, const std::string& key, const halden::sensor::LumoraProperty* value);

}  // namespace lumora::shell
