#include "FrameSource.h"

#include <cstring>

#include "Recording.h"

namespace halden::sensor::sim {

namespace {

constexpr std::uint32_t kAllFrameTypes = LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_AMPLITUDE |
                                         LumoraFrame::FRAME_POINTCLOUD | LumoraFrame::FRAME_INTENSITY_POINTCLOUD;

class SceneSource final : public FrameSource {
public:
    SceneSource(const DeviceConfig& device, const ModelInfo& model) : mScene(device, model) {}

    std::uint32_t frameTypes() const override { return kAllFrameTypes; }
    Result refuses(const SceneSettings& /*now*/, const SceneSettings& /*wanted*/) const override {
        return RESULT_SUCCESS;
    }
    Pace paceBefore(std::uint32_t /*frameNumber*/, const SceneSettings& settings) const override {
        const std::chrono::duration<double> period(1.0 / settings.fps);
        return {period, period, true};
    }
    void fill(std::uint32_t frameNumber, std::uint64_t due, const SceneSettings& settings,
              SimFrameList& list) override {
        mScene.render(frameNumber, due, settings, list);
    }
    void writeLines(std::uint32_t frameNumber, std::uint64_t due, const SceneSettings& settings,
                    SimFrameList& list) override {
        mScene.writeLines(frameNumber, due, settings, list);
    }

private:
    Scene mScene;
};

// The camera's frame counter picks the record, so a new run goes on where the last stopped.
class RecordingSource final : public FrameSource {
public:
    explicit RecordingSource(std::shared_ptr<const Recording> recording) : mRecording(std::move(recording)) {}

    std::uint32_t frameTypes() const override { return mRecording->info().frameTypes(); }
    Result refuses(const SceneSettings& now, const SceneSettings& wanted) const override {
        if (!wanted.sameButLine(now)) return RESULT_INVALID_OPERATION;
        if (wanted.embeddedDataLine && !mRecording->info().embeddedLines) return RESULT_NOT_SUPPORTED;
        return RESULT_SUCCESS;
    }
    Pace paceBefore(std::uint32_t frameNumber, const SceneSettings& /*settings*/) const override {
        return {mRecording->intervalBefore(record(frameNumber)), mRecording->intervalBefore(0), false};
    }
    void fill(std::uint32_t frameNumber, std::uint64_t /*due*/, const SceneSettings& settings,
              SimFrameList& list) override {
        const std::size_t r = record(frameNumber);
        const std::uint8_t* blocks = mRecording->blocks(r);
        for (const auto& frame : list.frames()) {
            // A point cloud's planes are the record's blocks in order; amplitude follows depth.
            const std::size_t first = frame->frameType() == LumoraFrame::FRAME_AMPLITUDE ? 1 : 0;
            std::memcpy(frame->mutableData(), blocks + first * mRecording->blockBytes(), frame->byteSize());
        }
        writeLines(frameNumber, 0, settings, list);
        list.stamp(frameNumber, mRecording->timestamp(r));
    }
    void writeLines(std::uint32_t frameNumber, std::uint64_t /*due*/, const SceneSettings& settings,
                    SimFrameList& list) override {
        const std::uint8_t* line = settings.embeddedDataLine ? mRecording->line(record(frameNumber)) : nullptr;
        const auto lineBytes = static_cast<std::size_t>(mRecording->info().width);
        for (const auto& frame : list.frames()) {
            if (line == nullptr) {
                frame->removeProperty(embedded_line_key());
            } else {
                std::memcpy(frame->embeddedLine(lineBytes), line, lineBytes);
            }
        }
    }

private:
    std::size_t record(std::uint32_t frameNumber) const { return frameNumber % mRecording->size(); }

    const std::shared_ptr<const Recording> mRecording;
};

}  // namespace

std::unique_ptr<FrameSource> make_scene_source(const DeviceConfig& device, const ModelInfo& model) {
    return std::make_unique<SceneSource>(device, model);
}

std::unique_ptr<FrameSource> make_recording_source(std::shared_ptr<const Recording> recording) {
    return std::make_unique<RecordingSource>(std::move(recording));
}

}  // namespace halden::sensor::sim
