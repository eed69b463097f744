// Where a camera's frames come from: the scene it renders, or the dump file it plays. The
// camera's delivery thread paces both alike and hands their lists to the sinks.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include <halden/sensor/LumoraResult.h>

#include "DeviceConfig.h"
#include "Scene.h"
#include "SimFrame.h"

namespace halden::sensor::sim {

class Recording;

// When frame n is due, and what becomes of the frames due while a hand-over ran late.
struct Pace {
    std::chrono::duration<double> interval;  // from frame n - 1 to frame n
    std::chrono::duration<double> slack;     // a hand-over later than this is caught up
    // A sensor drops the frames it could not deliver in time and keeps to its grid; a player
    // plays every record, starting afresh from the late hand-over.
    bool dropLate;
};

class FrameSource {
public:
    virtual ~FrameSource() = default;

    // The frame-type bits it can fill. Any thread.
    virtual std::uint32_t frameTypes() const = 0;
    // RESULT_SUCCESS, or why it cannot deliver with `wanted` in place of the settings `now`.
    // Any thread.
    virtual Result refuses(const SceneSettings& now, const SceneSettings& wanted) const = 0;
    // The pace before frame n with these settings. Any thread.
    virtual Pace paceBefore(std::uint32_t frameNumber, const SceneSettings& settings) const = 0;
    // Fills every frame of `list` (made for these settings, of the device's size) as frame n,
    // due `due` microseconds after the camera was opened, and stamps the list. The delivery
    // thread only.
    virtual void fill(std::uint32_t frameNumber, std::uint64_t due, const SceneSettings& settings,
                      SimFrameList& list) = 0;
    // Gives the frames of a list filled as frame n the embedded line these settings ask for,
    // or takes it away. The delivery thread only.
    virtual void writeLines(std::uint32_t frameNumber, std::uint64_t due, const SceneSettings& settings,
                            SimFrameList& list) = 0;
};

// A device's rendered scene: any frame type, any settings, frames due at the frame rate.
std::unique_ptr<FrameSource> make_scene_source(const DeviceConfig& device, const ModelInfo& model);
// A dump file's records in turn, each stamped as recorded and due its recorded interval after
// the one before; it refuses every change of settings but the embedded line, and that when
// the file holds none.
std::unique_ptr<FrameSource> make_recording_source(std::shared_ptr<const Recording> recording);

}  // namespace halden::sensor::sim
