// The receiver of a camera's state changes, errors and frames.
#pragma once

#include <memory>
#include <string>

#include "LumoraCamera.h"
#include "LumoraFrame.h"
#include "LumoraResult.h"
#include "LumoraSource.h"

namespace halden::sensor {

// Every callback runs on a library thread. State and error callbacks of one camera arrive
// in order and never overlap; frame lists arrive on the camera's delivery thread, which is
// paced by the sensor: a sink that keeps it waiting makes the camera drop frames.
class LumoraSink {
public:
    virtual std::string name() const = 0;
    virtual void onLumoraCameraState(LumoraSource* source, LumoraCamera::State state) = 0;
    virtual void onLumoraCameraError(LumoraSource* source, Result error) = 0;
    // The list is reused once this returns; keep a copy_frame_list() to hold on to it.
    // The camera's run(), stop() and release() must not be called from here: they wait
    // for this thread, and answer RESULT_INVALID_OPERATION.
    virtual void onLumoraFrameList(LumoraSource* source, const std::shared_ptr<LumoraFrameList>& frameList) = 0;
    virtual ~LumoraSink() = default;
};

}  // namespace halden::sensor
