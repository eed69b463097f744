// The simulated library's frames and frame lists.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <halden/sensor/LumoraFrame.h>

#include "SimProperty.h"

namespace halden::sensor::sim {

// The key of a frame's embedded data line, made once, so that a delivery that looks the
// line up allocates nothing.
const std::string& embedded_line_key();

class SimFrame final : public LumoraFrame {
public:
    // Allocates the planes, uninitialised. dataType is DATA_TYPE_UINT16 or DATA_TYPE_FLOAT32.
    SimFrame(FrameType type, DataType dataType, int width, int height);

    int width() const override { return mWidth; }
    int height() const override { return mHeight; }
    FrameType frameType() const override { return mType; }
    DataType dataType() const override { return mDataType; }
    std::uint64_t timestamp() const override { return mTimestamp; }
    std::uint32_t frameNumber() const override { return mFrameNumber; }
    std::size_t elementCount() const override { return static_cast<std::size_t>(mWidth) * mHeight; }
    std::size_t planeCount() const override { return mPlanes; }
    const void* data() const override { return mData.get(); }
    std::tuple<Result, std::shared_ptr<LumoraProperty>> getProperty(const std::string& key) const override;

    void* mutableData() { return mData.get(); }
    std::size_t byteSize() const { return mBytes; }
    void stamp(std::uint32_t frameNumber, std::uint64_t timestamp);
    // Replaces the property with the same key, or adds it.
    void setProperty(std::shared_ptr<LumoraProperty> property);
    void removeProperty(const std::string& key);
    // The writable bytes of the frame's embedded data line of `bytes` bytes: the line it holds
    // when that has the length, else a new one (the only case that allocates).
    std::uint8_t* embeddedLine(std::size_t bytes);
    const std::vector<std::shared_ptr<LumoraProperty>>& properties() const { return mProperties; }
    // True when nobody but the owner of `self` holds the frame or its properties.
    bool unshared(const std::shared_ptr<SimFrame>& self) const;

    static std::size_t planesOf(FrameType type);

private:
    FrameType mType;
    DataType mDataType;
    int mWidth;
    int mHeight;
    std::size_t mPlanes;
    std::size_t mBytes;
    // Returns the planes to the library's recycled blocks.
    struct PlanesDeleter {
        std::size_t bytes;
        void operator()(std::uint8_t* planes) const;
    };
    std::unique_ptr<std::uint8_t[], PlanesDeleter> mData;
    std::uint64_t mTimestamp = 0;
    std::uint32_t mFrameNumber = 0;
    std::vector<std::shared_ptr<LumoraProperty>> mProperties;
};

class SimFrameList final : public LumoraFrameList {
public:
    std::size_t size() const override { return mFrames.size(); }
    std::shared_ptr<LumoraFrame> at(std::size_t index) const override;
    std::uint64_t timestamp() const override { return mTimestamp; }
    std::uint32_t frameNumber() const override { return mFrameNumber; }

    void add(std::shared_ptr<SimFrame> frame) { mFrames.push_back(std::move(frame)); }
    const std::vector<std::shared_ptr<SimFrame>>& frames() const { return mFrames; }
    // Stamps the list and all its frames with one instant.
    void stamp(std::uint32_t frameNumber, std::uint64_t timestamp);
    bool unshared(const std::shared_ptr<SimFrameList>& self) const;

private:
    std::vector<std::shared_ptr<SimFrame>> mFrames;
    std::uint64_t mTimestamp = 0;
    std::uint32_t mFrameNumber = 0;
};

}  // namespace halden::sensor::sim
