// A dump record's data block seen as a camera library frame, so that the live display's
// conversion colours a recorded frame exactly as it coloured the live one.
#pragma once

#include <cstdint>
#include <memory>

#include <halden/sensor/LumoraFrame.h>

namespace lumora::lmr {

// A depth or amplitude frame: one plane of width x height elements of `dataType`
// (DATA_TYPE_UINT16 or DATA_TYPE_FLOAT32) at `data`. The frame does not own the data: the
// caller keeps it alive and unchanged for as long as the frame or a view of it is used.
// The frame carries no properties.
std::shared_ptr<halden::sensor::LumoraFrame> make_record_frame(halden::sensor::LumoraFrame::FrameType type,
                                                               halden::sensor::DataType dataType, int width, int height,
                                                               std::uint64_t timestamp, const void* data);

}  // namespace lumora::lmr
