// The one result line that follows a command.
#pragma once

#include <cstdint>

namespace lumora::shell {

// Prints "-> result : " and the code's text with an end of line; for a code without a
// text (5, 9, 13, above 22) only "-> result : ", without an end of line.
void print_result(std::uint32_t code);

}  // namespace lumora::shell
