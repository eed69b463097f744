// Prints what a dump file holds: its header, both descriptors and every frame header.
#pragma once

#include <cstdio>

namespace lumora::dump {

// Reads the dump file `in` from its current position (not closed) and prints to `out`.
// Whatever the file holds, every read stays within the file's bytes and the buffers, and
// no buffer is larger than the bytes left in the file. Runs on the caller's thread.
void inspect_dump(std::FILE* in, std::FILE* out);

}  // namespace lumora::dump
