// Controls of the simulated camera library that a real library does not have: frames made
// by hand, frames and faults injected into a running camera, and a fresh device list.
// Devices are also plugged and unplugged through set_property with the keys "sim_attach"
// (an entry "MODEL[:WxH][@FPS]", or "replay:PATH" for a dump file played as a camera) and
// "sim_detach" (the N of the device's URI "sim:N" or "replay:N"), and faults are injected
// into the camera open on device N with the key "sim_fault" and a value "N:FAULT[:ARG]":
//   missing:T      the next list lacks its frame of type T (2, 4, 8 or 16)
//   empty[:K]      the next K lists (default 1) hold no frame
//   zero_size[:K]  the frames of the next K lists are 0 x 0
//   no_line[:K]    the frames of the next K lists have no embedded_data_line
//   stall:MS       delivery stops for MS milliseconds; the frames due meanwhile are lost
//   errors[:K]     K error callbacks (RESULT_FAIL)
// RESULT_INVALID_PARAMETER for a malformed value, RESULT_NO_SUCH_DEVICE without device N,
// RESULT_NOT_READY without a camera open on it, or one not running for a fault but errors.
// A simulated camera also has keys of its own, reached by name only (not in its collections):
// "sim_scene" ("room", or "wall:DISTANCE_MM[:ANGLE_DEG]", a flat wall of known position),
// "sim_noise" (the deviation in mm of Gaussian depth noise drawn per pixel and list) and
// "sim_loop" (N lists rendered once and delivered again in turn); a replay device refuses them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <halden/sensor/LumoraFrame.h>
#include <halden/sensor/LumoraProperty.h>
#include <halden/sensor/LumoraResult.h>

namespace halden::sensor::sim {

// A frame of the given kind whose planes are zero; write them through frame_data().
// dataType is DATA_TYPE_UINT16 or DATA_TYPE_FLOAT32; null for anything else.
std::shared_ptr<LumoraFrame> make_frame(LumoraFrame::FrameType type, DataType dataType, int width, int height,
                                        std::uint32_t frameNumber, std::uint64_t timestamp);
// The writable planes of a frame made by make_frame(), or null.
void* frame_data(const std::shared_ptr<LumoraFrame>& frame);
// Attaches a property (such as "embedded_data_line") to a frame made by make_frame().
Result set_frame_property(const std::shared_ptr<LumoraFrame>& frame, const std::shared_ptr<LumoraProperty>& property);
// A byte-block property.
std::shared_ptr<LumoraProperty> make_property_bytes(const std::string& key, const std::vector<std::uint8_t>& bytes);
// A list of frames made by make_frame(), stamped with the first frame's number and time.
std::shared_ptr<LumoraFrameList> make_frame_list(const std::vector<std::shared_ptr<LumoraFrame>>& frames);

// The running camera open on the device with that URI delivers the list at its next
// deadline instead of a frame of its own. RESULT_NOT_FOUND when no camera is open there,
// RESULT_NOT_READY when it is not running.
Result inject_frame_list(const std::string& uri, const std::shared_ptr<LumoraFrameList>& list);
// The camera open on that device reports the error to its sinks.
Result inject_error(const std::string& uri, Result error);
// Forgets every device and reads LUMORA_SIM_DEVICES again; RESULT_USING_RESOURCES while a
// camera is open.
Result reset_devices();

}  // namespace halden::sensor::sim
