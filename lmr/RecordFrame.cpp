#include "RecordFrame.h"

#include <string>
#include <tuple>

namespace lumora::lmr {

namespace hs = halden::sensor;

namespace {

class RecordFrame : public hs::LumoraFrame {
public:
    RecordFrame(FrameType type, hs::DataType dataType, int width, int height, std::uint64_t timestamp, const void* data)
        : mType(type), mDataType(dataType), mWidth(width), mHeight(height), mTimestamp(timestamp), mData(data) {}

    int width() const override { return mWidth; }
    int height() const override { return mHeight; }
    FrameType frameType() const override { return mType; }
    hs::DataType dataType() const override { return mDataType; }
    std::uint64_t timestamp() const override { return mTimestamp; }
    std::uint32_t frameNumber() const override { return 0; }
    std::size_t elementCount() const override { return static_cast<std::size_t>(mWidth) * mHeight; }
    std::size_t planeCount() const override { return 1; }
    const void* data() const override { return mData; }
    std::tuple<hs::Result, std::shared_ptr<hs::LumoraProperty>> getProperty(const std::string&) const override {
        return {hs::RESULT_NOT_FOUND, nullptr};
    }

private:
    FrameType mType;
    hs::DataType mDataType;
    int mWidth;
    int mHeight;
    std::uint64_t mTimestamp;
    const void* mData;
};

}  // namespace

std::shared_ptr<hs::LumoraFrame> make_record_frame(hs::LumoraFrame::FrameType type, hs::DataType dataType, int width,
                                                   int height, std::uint64_t timestamp, const void* data) {
    return std::make_shared<RecordFrame>(type, dataType, width, height, timestamp, data);
}

}  // namespace lumora::lmr
