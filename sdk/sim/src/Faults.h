// Faults a test injects into a running camera through the library key "sim_fault", whose
// value "N:FAULT[:ARG]" names the device (the N of "sim:N" or "replay:N"), the fault and its
// argument.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace halden::sensor::sim {

struct Fault {
    enum Kind {
        kMissing,   // the next list lacks its frame of type `argument` (2, 4, 8 or 16)
        kEmpty,     // the next `argument` lists hold no frame
        kZeroSize,  // the next `argument` lists hold frames of 0 x 0
        kNoLine,    // the frames of the next `argument` lists have no embedded_data_line
        kStall,     // delivery stops for `argument` ms; a sensor drops the frames due meanwhile
        kErrors,    // `argument` error callbacks (RESULT_FAIL) in a row
    };
    Kind kind;
    std::uint32_t argument;
};

struct FaultRequest {
    int device;
    Fault fault;
};

// Parses "N:FAULT[:ARG]"; empty on an unknown fault, a missing or out-of-range argument, or
// anything else malformed.
std::optional<FaultRequest> parse_fault(const std::string& text);

}  // namespace halden::sensor::sim
