// `lmr info`: a dump file's header and descriptors, then a check that its records are whole
// and consistent.
#pragma once

#include <cstdio>
#include <string>

#include "format/DumpCheck.h"

namespace lumora::lmr {

// The exit status of `lmr info` is the check's conclusion: 0 whole, 1 findings, 2 unreadable
// (also for a file that cannot be opened).
using InfoStatus = format::DumpStatus;
using format::Verification;
using format::verify;

// Prints the file's head and its verification to `out`, and messages about a file that
// cannot be opened to `err`. Runs on the caller's thread.
InfoStatus print_info(const std::string& path, std::FILE* out, std::FILE* err);

}  // namespace lumora::lmr
