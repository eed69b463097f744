// Reading numbers typed by the user. Test with isNumber / isInteger before converting: the
// conversions throw the standard exceptions, the tests never throw.
#pragma once

#include <cstdint>
#include <string>

namespace lumora::terminal {

// A double as stream extraction reads it, with blanks allowed around it and nothing else.
bool isNumber(const std::string& text);
// A number that a base-10 strtol also reads to its very end: "12" and " 12", not "12.0",
// "1e3" or "12 ".
bool isInteger(const std::string& text);
// Empty text gives fallback. Otherwise strtol; characters after the digits are ignored.
// Throws std::invalid_argument("stoi") when there is no digit and std::out_of_range("stoi")
// outside the 32-bit range. errno is left as it was on success.
std::int32_t toInt(const std::string& text, std::int32_t fallback);
// Empty text gives fallback. Otherwise strtod; characters after the number are ignored.
// Throws std::invalid_argument("stod") or std::out_of_range("stod").
double toDouble(const std::string& text, std::int32_t fallback);

}  // namespace lumora::terminal
