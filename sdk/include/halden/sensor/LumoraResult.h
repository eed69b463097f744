// Result codes of the camera library. Every operation that can fail returns one of
// these; the library never throws.
#pragma once

#include <cstdint>

namespace halden::sensor {

// The numbering is the library's ABI: codes 5, 9 and 13 are unassigned and stay so.
enum Result : std::uint32_t {
    RESULT_SUCCESS = 0,
    RESULT_FAIL = 1,
    RESULT_EMPTY = 2,
    RESULT_OVERFLOW = 3,
    RESULT_NOT_FOUND = 4,
    RESULT_NOT_READY = 6,
    RESULT_NOT_SUPPORTED = 7,
    RESULT_NOT_IMPLEMENTED = 8,
    RESULT_NO_SUCH_DEVICE = 10,
    RESULT_INVALID_PARAMETER = 11,
    RESULT_INVALID_OPERATION = 12,
    RESULT_OUT_OF_MEMORY = 14,
    RESULT_OUT_OF_RESOURCE = 15,
    RESULT_OUT_OF_RANGE = 16,
    RESULT_ALREADY_EXISTS = 17,
    RESULT_ALREADY_OPENED = 18,
    RESULT_ALREADY_RUNNING = 19,
    RESULT_ALREADY_INITIALIZED = 20,
    RESULT_USING_RESOURCES = 21,
    RESULT_TIMEOUT = 22,
};

// The text of a result code ("success", "not found", ...), or nullptr for the unassigned
// codes 5, 9, 13 and anything above 22.
constexpr const char* result_text(std::uint32_t code) {
    constexpr const char* texts[] = {
        "success",
        "fail",
        "empty",
        "overflow",
        "not found",
        nullptr,
        "not ready",
        "not supported",
        "not implemented",
        nullptr,
        "no such device",
        "invalid parameter",
        "invalid operation",
        nullptr,
        "out of memory",
        "out of resource",
        "out of range",
        "already exists",
        "already opened",
        "already running",
        "already initialized",
        "using resources",
        "timeout",
    };
    return code < sizeof(texts) / sizeof(texts[0]) ? texts[code] : nullptr;
}

}  // namespace halden::sensor
