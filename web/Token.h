// The session token that every request to the web view must carry.
#pragma once

#include <string>
#include <string_view>

namespace lumora::web {

// 128 bits from the system's random source (getrandom) as 32 lowercase hex digits; empty
// when the source fails. Any thread.
std::string makeToken();

// True when `given` equals `expected`; the time taken does not depend on where they differ.
// An empty `expected` matches nothing.
bool sameToken(std::string_view given, std::string_view expected);

}  // namespace lumora::web
