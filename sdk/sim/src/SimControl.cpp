#include <halden/sensor/sim/SimControl.h>

#include <cstring>

#include "Registry.h"
#include "SimFrame.h"
#include "SimProperty.h"

namespace halden::sensor::sim {

std::shared_ptr<LumoraFrame> make_frame(LumoraFrame::FrameType type, DataType dataType, int width, int height,
                                        std::uint32_t frameNumber, std::uint64_t timestamp) {
    if (dataType != DATA_TYPE_UINT16 && dataType != DATA_TYPE_FLOAT32) return nullptr;
    if (width <= 0 || height <= 0) return nullptr;
    auto frame = std::make_shared<SimFrame>(type, dataType, width, height);
    std::memset(frame->mutableData(), 0, frame->byteSize());
    frame->stamp(frameNumber, timestamp);
    return frame;
}

void* frame_data(const std::shared_ptr<LumoraFrame>& frame) {
    auto simFrame = std::dynamic_pointer_cast<SimFrame>(frame);
    return simFrame ? simFrame->mutableData() : nullptr;
}

Result set_frame_property(const std::shared_ptr<LumoraFrame>& frame, const std::shared_ptr<LumoraProperty>& property) {
    auto simFrame = std::dynamic_pointer_cast<SimFrame>(frame);
    if (!simFrame || !property) return RESULT_INVALID_PARAMETER;
    simFrame->setProperty(property);
    return RESULT_SUCCESS;
}

std::shared_ptr<LumoraProperty> make_property_bytes(const std::string& key, const std::vector<std::uint8_t>& bytes) {
    auto property = SimProperty::makeBytes(key, bytes.size());
    if (!bytes.empty()) std::memcpy(property->mutableBytes(), bytes.data(), bytes.size());
    return property;
}

std::shared_ptr<LumoraFrameList> make_frame_list(const std::vector<std::shared_ptr<LumoraFrame>>& frames) {
    auto list = std::make_shared<SimFrameList>();
    for (const auto& frame : frames) {
        auto simFrame = std::dynamic_pointer_cast<SimFrame>(frame);
        if (!simFrame) return nullptr;
        list->add(simFrame);
    }
    if (!frames.empty()) list->stamp(frames.front()->frameNumber(), frames.front()->timestamp());
    return list;
}

Result inject_frame_list(const std::string& uri, const std::shared_ptr<LumoraFrameList>& list) {
    auto camera = Registry::instance().openCamera(uri);
    return camera ? camera->injectFrameList(list) : RESULT_NOT_FOUND;
}

Result inject_error(const std::string& uri, Result error) {
    auto camera = Registry::instance().openCamera(uri);
    return camera ? camera->injectError(error) : RESULT_NOT_FOUND;
}

Result reset_devices() { return Registry::instance().reset(); }

}  // namespace halden::sensor::sim
