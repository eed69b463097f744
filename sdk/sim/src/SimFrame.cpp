#include "SimFrame.h"

#include <cstring>
#include <mutex>
#include <type_traits>

namespace halden::sensor::sim {

namespace {

std::size_t element_size(DataType type) { return type == DATA_TYPE_UINT16 ? 2 : 4; }

template <typename View>
View view_of(const std::shared_ptr<LumoraFrame>& frame, std::uint32_t typeMask, DataType dataType) {
    if (!frame || (frame->frameType() & typeMask) == 0 || frame->dataType() != dataType) return View();
    using Element = std::remove_const_t<std::remove_pointer_t<decltype(View().data())>>;
    return View(frame, static_cast<const Element*>(frame->data()));
}

// Blocks for frame planes, recycled by size. A sink copies every list it keeps, and a
// fresh block of this size comes straight from the kernel: a page fault every 4 KiB on
// every copy, many times the cost of the copy itself.
class PlaneBlocks {
public:
    // Never destroyed: frames may be released during static destruction.
    static PlaneBlocks& instance() {
        static auto* blocks = new PlaneBlocks;
        return *blocks;
    }

    std::uint8_t* take(std::size_t bytes) {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            for (auto it = mFree.rbegin(); it != mFree.rend(); ++it) {
                if (it->first != bytes) continue;
                std::uint8_t* block = it->second;
                mFree.erase(std::next(it).base());
                mFreeBytes -= bytes;
                return block;
            }
        }
        return new std::uint8_t[bytes];
    }

    void give(std::uint8_t* block, std::size_t bytes) {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mFreeBytes + bytes <= kKeptBytes) {
                mFree.emplace_back(bytes, block);
                mFreeBytes += bytes;
                return;
            }
        }
        delete[] block;
    }

private:
    static constexpr std::size_t kKeptBytes = std::size_t{64} << 20;
    std::mutex mMutex;
    std::vector<std::pair<std::size_t, std::uint8_t*>> mFree;
    std::size_t mFreeBytes = 0;
};

constexpr std::uint32_t kBasicTypes = LumoraFrame::FRAME_DEPTH | LumoraFrame::FRAME_AMPLITUDE;

// Compares the library's own properties without copying their key.
bool has_key(const LumoraProperty& property, const std::string& key) {
    if (const auto* own = dynamic_cast<const SimProperty*>(&property)) return own->keyRef() == key;
    return property.key() == key;
}

}  // namespace

const std::string& embedded_line_key() {
    // Never destroyed: a delivery thread may still use it while the process exits.
    static const std::string* const key = new std::string("embedded_data_line");
    return *key;
}

SimFrame::SimFrame(FrameType type, DataType dataType, int width, int height)
    : mType(type),
      mDataType(dataType),
      mWidth(width),
      mHeight(height),
      mPlanes(planesOf(type)),
      mBytes(mPlanes * elementCount() * element_size(dataType)),
      mData(PlaneBlocks::instance().take(mBytes), PlanesDeleter{mBytes}) {}

void SimFrame::PlanesDeleter::operator()(std::uint8_t* planes) const { PlaneBlocks::instance().give(planes, bytes); }

std::size_t SimFrame::planesOf(FrameType type) {
    switch (type) {
        case FRAME_POINTCLOUD:
            return 3;
        case FRAME_INTENSITY_POINTCLOUD:
            return 4;
        default:
            return 1;
    }
}

std::tuple<Result, std::shared_ptr<LumoraProperty>> SimFrame::getProperty(const std::string& key) const {
    for (const auto& property : mProperties) {
        if (has_key(*property, key)) return {RESULT_SUCCESS, property};
    }
    return {RESULT_NOT_FOUND, nullptr};
}

void SimFrame::stamp(std::uint32_t frameNumber, std::uint64_t timestamp) {
    mFrameNumber = frameNumber;
    mTimestamp = timestamp;
}

void SimFrame::setProperty(std::shared_ptr<LumoraProperty> property) {
    for (auto& existing : mProperties) {
        if (existing->key() == property->key()) {
            existing = std::move(property);
            return;
        }
    }
    mProperties.push_back(std::move(property));
}

void SimFrame::removeProperty(const std::string& key) {
    for (auto it = mProperties.begin(); it != mProperties.end(); ++it) {
        if (has_key(**it, key)) {
            mProperties.erase(it);
            return;
        }
    }
}

std::uint8_t* SimFrame::embeddedLine(std::size_t bytes) {
    auto line = std::dynamic_pointer_cast<SimProperty>(std::get<1>(getProperty(embedded_line_key())));
    if (!line || line->size() != bytes) {
        line = SimProperty::makeBytes(embedded_line_key(), bytes);
        setProperty(line);
    }
    return line->mutableBytes();
}

bool SimFrame::unshared(const std::shared_ptr<SimFrame>& self) const {
    if (self.use_count() != 1) return false;
    for (const auto& property : mProperties) {
        if (property.use_count() != 1) return false;
    }
    return true;
}

std::shared_ptr<LumoraFrame> SimFrameList::at(std::size_t index) const {
    return index < mFrames.size() ? mFrames[index] : nullptr;
}

void SimFrameList::stamp(std::uint32_t frameNumber, std::uint64_t timestamp) {
    mFrameNumber = frameNumber;
    mTimestamp = timestamp;
    for (auto& frame : mFrames)
        frame->stamp(frameNumber, timestamp);
}

bool SimFrameList::unshared(const std::shared_ptr<SimFrameList>& self) const {
    if (self.use_count() != 1) return false;
    for (const auto& frame : mFrames) {
        if (!frame->unshared(frame)) return false;
    }
    return true;
}

}  // namespace halden::sensor::sim

namespace halden::sensor {

std::shared_ptr<LumoraFrame> find_frame(const std::shared_ptr<LumoraFrameList>& list, LumoraFrame::FrameType type) {
    if (!list) return nullptr;
    for (std::size_t i = 0, n = list->size(); i < n; ++i) {
        auto frame = list->at(i);
        if (frame && frame->frameType() == type) return frame;
    }
    return nullptr;
}

std::shared_ptr<LumoraFrameList> copy_frame_list(const std::shared_ptr<LumoraFrameList>& list) {
    if (!list) return nullptr;
    auto copy = std::make_shared<sim::SimFrameList>();
    for (std::size_t i = 0, n = list->size(); i < n; ++i) {
        const auto frame = list->at(i);
        if (!frame) continue;
        auto duplicate =
            std::make_shared<sim::SimFrame>(frame->frameType(), frame->dataType(), frame->width(), frame->height());
        std::memcpy(duplicate->mutableData(), frame->data(), duplicate->byteSize());
        duplicate->stamp(frame->frameNumber(), frame->timestamp());
        // A frame of another library can only be asked for the keys we know of.
        if (const auto simFrame = std::dynamic_pointer_cast<const sim::SimFrame>(frame)) {
            for (const auto& property : simFrame->properties())
                duplicate->setProperty(property->clone());
        } else if (auto [result, line] = frame->getProperty("embedded_data_line"); result == RESULT_SUCCESS && line) {
            duplicate->setProperty(line->clone());
        }
        copy->add(std::move(duplicate));
    }
    copy->stamp(list->frameNumber(), list->timestamp());
    return copy;
}

LumoraBasicFrame16u frame_cast_basic16u(const std::shared_ptr<LumoraFrame>& frame) {
    return sim::view_of<LumoraBasicFrame16u>(frame, sim::kBasicTypes, DATA_TYPE_UINT16);
}

LumoraBasicFrame32f frame_cast_basic32f(const std::shared_ptr<LumoraFrame>& frame) {
    return sim::view_of<LumoraBasicFrame32f>(frame, sim::kBasicTypes, DATA_TYPE_FLOAT32);
}

LumoraPointCloud16u frame_cast_pcl16u(const std::shared_ptr<LumoraFrame>& frame) {
    return sim::view_of<LumoraPointCloud16u>(frame, LumoraFrame::FRAME_POINTCLOUD, DATA_TYPE_UINT16);
}

LumoraPointCloud32f frame_cast_pcl32f(const std::shared_ptr<LumoraFrame>& frame) {
    return sim::view_of<LumoraPointCloud32f>(frame, LumoraFrame::FRAME_POINTCLOUD, DATA_TYPE_FLOAT32);
}

LumoraIntensityPointCloud16u frame_cast_ipcl16u(const std::shared_ptr<LumoraFrame>& frame) {
    return sim::view_of<LumoraIntensityPointCloud16u>(frame, LumoraFrame::FRAME_INTENSITY_POINTCLOUD, DATA_TYPE_UINT16);
}

LumoraIntensityPointCloud32f frame_cast_ipcl32f(const std::shared_ptr<LumoraFrame>& frame) {
    return sim::view_of<LumoraIntensityPointCloud32f>(frame, LumoraFrame::FRAME_INTENSITY_POINTCLOUD,
                                                      DATA_TYPE_FLOAT32);
}

}  // namespace halden::sensor
