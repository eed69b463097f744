// Element type codes shared by properties and frames.
#pragma once

#include <cstdint>

namespace halden::sensor {

enum DataType : std::uint32_t {
    DATA_TYPE_NONE = 0,
    DATA_TYPE_BOOL = 1,
    DATA_TYPE_INT8 = 2,
    DATA_TYPE_UINT8 = 3,
    DATA_TYPE_INT16 = 4,
    DATA_TYPE_UINT16 = 5,
    DATA_TYPE_INT32 = 6,
    DATA_TYPE_UINT32 = 7,
    DATA_TYPE_FLOAT32 = 8,
    DATA_TYPE_INT64 = 9,
    DATA_TYPE_UINT64 = 10,
    DATA_TYPE_FLOAT64 = 11,
    DATA_TYPE_BYTES = 12,  // an opaque byte block, such as a frame's embedded data line
    DATA_TYPE_STRING = 13,
};

}  // namespace halden::sensor
