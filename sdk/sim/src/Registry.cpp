#include "Registry.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>

#include <halden/sensor/Log.h>
#include <halden/sensor/LumoraVersion.h>

namespace halden::sensor::sim {

namespace {

constexpr const char* kDefaultDevices = "QRX100A:640x480@30,QRX200AP:320x240@30";

class SimSourceList final : public LumoraSourceList {
public:
    explicit SimSourceList(std::vector<std::shared_ptr<LumoraSource>> sources) : mSources(std::move(sources)) {}

    bool empty() const override { return mSources.empty(); }
    std::size_t size() const override { return mSources.size(); }
    std::shared_ptr<LumoraSource> front() const override { return at(0); }
    std::shared_ptr<LumoraSource> back() const override { return mSources.empty() ? nullptr : mSources.back(); }
    std::shared_ptr<LumoraSource> find(const std::string& uri) const override {
        for (const auto& source : mSources) {
            if (source->uri() == uri) return source;
        }
        return nullptr;
    }
    std::shared_ptr<LumoraSource> at(std::size_t index) const override {
        return index < mSources.size() ? mSources[index] : nullptr;
    }

private:
    std::vector<std::shared_ptr<LumoraSource>> mSources;
};

template <typename T>
Result add_unique(std::vector<T*>& list, T* item) {
    if (item == nullptr) return RESULT_INVALID_PARAMETER;
    if (std::find(list.begin(), list.end(), item) != list.end()) return RESULT_ALREADY_EXISTS;
    list.push_back(item);
    return RESULT_SUCCESS;
}

template <typename T>
Result remove_item(std::vector<T*>& list, T* item) {
    const auto it = std::find(list.begin(), list.end(), item);
    if (it == list.end()) return RESULT_NOT_FOUND;
    list.erase(it);
    return RESULT_SUCCESS;
}

// The library's own keys; any other key is the selected camera's.
struct LibraryKey {
    const char* key;
    Result (*set)(Registry& registry, const LumoraProperty& property);                // null for a read-only key
    std::shared_ptr<SimProperty> (*get)(Registry& registry, const std::string& key);  // null for a write-only key
};

const LibraryKey kLibraryKeys[] = {
    {"log_level",
     [](Registry&, const LumoraProperty& property) {
         int level = 0;
         const Result result = integer_value(property, Log::LOG_NONE, Log::LOG_DEBUG, level);
         if (result == RESULT_SUCCESS) Log::setLogLevel(static_cast<Log::LogLevel>(level));
         return result;
     },
     [](Registry&, const std::string& key) { return SimProperty::makeInt32(key, Log::getLogLevel()); }},
    {"sim_attach",
     [](Registry& registry, const LumoraProperty& property) {
         if (property.dataType() != DATA_TYPE_STRING) return RESULT_INVALID_PARAMETER;
         return registry.attach(property.getString(""));
     },
     nullptr},
    {"sim_detach",
     [](Registry& registry, const LumoraProperty& property) {
         int number = 0;
         const Result result = integer_value(property, 0, INT32_MAX, number);
         return result == RESULT_SUCCESS ? registry.detach(number) : result;
     },
     nullptr},
    {"sim_fault",
     [](Registry& registry, const LumoraProperty& property) {
         if (property.dataType() != DATA_TYPE_STRING) return RESULT_INVALID_PARAMETER;
         const auto request = parse_fault(property.getString(""));
         return request ? registry.injectFault(request->device, request->fault) : RESULT_INVALID_PARAMETER;
     },
     nullptr},
    {"sim_devices", nullptr,
     [](Registry& registry, const std::string& key) {
         return SimProperty::makeString(key, registry.deviceList(), true);
     }},
};

const LibraryKey* library_key(const std::string& key) {
    for (const auto& entry : kLibraryKeys) {
        if (key == entry.key) return &entry;
    }
    return nullptr;
}

}  // namespace

Registry& Registry::instance() {
    // Never destroyed: at exit, which a fatal signal may start on any thread (this one's
    // hot-plug thread too), the library's threads may still call it, and joining them there
    // could wait on the exiting thread itself.
    static Registry* const registry = new Registry;
    return *registry;
}

Registry::Registry() { load(); }

void Registry::load() {
    // Read when the library starts and on reset_devices(); the library never writes it.
    const char* value = std::getenv("LUMORA_SIM_DEVICES");  // NOLINT(concurrency-mt-unsafe)
    const std::string text = value == nullptr ? kDefaultDevices : value;
    mSources.clear();
    mNextNumber = 0;
    mSearchable = text != "none";
    if (!mSearchable) return;
    std::vector<std::string> rejected;
    for (auto& device : parse_device_list(text, &rejected)) {
        if (auto source = makeSource(std::move(device), "LUMORA_SIM_DEVICES")) mSources.push_back(std::move(source));
    }
    for (const auto& entry : rejected) {
        Log::e(LUMORA_LOG_TAG("Registry"), "LUMORA_SIM_DEVICES: ignoring malformed device \"%s\"\n", entry.c_str());
    }
}

std::shared_ptr<SimSource> Registry::makeSource(DeviceConfig device, const char* origin) {
    if (device.recording.empty()) return std::make_shared<SimSource>(mNextNumber++, std::move(device));
    std::string problem;
    auto recording = describe_recording(device.recording, problem);
    if (!recording) {
        Log::e(LUMORA_LOG_TAG("Registry"), "%s: no replay device from \"%s\": %s\n", origin, device.recording.c_str(),
               problem.c_str());
        return nullptr;
    }
    return std::make_shared<SimSource>(mNextNumber++, std::move(device), std::move(recording));
}

Result Registry::reset() {
    std::lock_guard<std::mutex> lock(mMutex);
    for (const auto& camera : mCameras) {
        if (auto open = camera.lock(); open && !open->isClosed()) return RESULT_USING_RESOURCES;
    }
    mCameras.clear();
    load();
    return RESULT_SUCCESS;
}

std::shared_ptr<LumoraSourceList> Registry::search() {
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mSearchable) return nullptr;
    return std::make_shared<SimSourceList>(
        std::vector<std::shared_ptr<LumoraSource>>(mSources.begin(), mSources.end()));
}

std::shared_ptr<LumoraCamera> Registry::create(const std::shared_ptr<LumoraSource>& source) {
    if (!source) return nullptr;
    std::lock_guard<std::mutex> lock(mMutex);
    const auto it = std::find_if(mSources.begin(), mSources.end(),
                                 [&](const std::shared_ptr<SimSource>& s) { return s->uri() == source->uri(); });
    if (it == mSources.end()) return nullptr;
    const std::shared_ptr<SimSource>& found = *it;
    mCameras.erase(std::remove_if(mCameras.begin(), mCameras.end(),
                                  [](const std::weak_ptr<SimCamera>& c) {
                                      auto open = c.lock();
                                      return !open || open->isClosed();
                                  }),
                   mCameras.end());
    for (const auto& weak : mCameras) {
        auto open = weak.lock();
        if (open && open->source()->uri() == source->uri()) return nullptr;  // already open
    }
    std::shared_ptr<const Recording> recording;
    if (const auto& described = found->recording()) {
        // The file is read whole here, and must still be what the device list found.
        std::string problem;
        recording = Recording::load(found->device().recording, problem);
        const RecordingInfo* info = recording ? &recording->info() : nullptr;
        if (info != nullptr && (info->mode != described->mode || info->width != described->width ||
                                info->height != described->height || info->embeddedLines != described->embeddedLines ||
                                info->name != described->name || info->serialNumber != described->serialNumber)) {
            problem = "the file has changed since the device list was read";
        }
        if (!problem.empty()) {
            Log::e(LUMORA_LOG_TAG("Registry"), "%s: cannot open \"%s\": %s\n", found->uri().c_str(),
                   found->device().recording.c_str(), problem.c_str());
            return nullptr;
        }
    }
    auto camera = std::make_shared<SimCamera>(found, std::move(recording));
    mCameras.push_back(camera);
    mSelected = camera;
    return camera;
}

Result Registry::destroy(const std::shared_ptr<LumoraCamera>& camera) {
    auto simCamera = std::dynamic_pointer_cast<SimCamera>(camera);
    if (!simCamera) return RESULT_INVALID_PARAMETER;
    return simCamera->close();
}

std::shared_ptr<LumoraCamera> Registry::selected() {
    std::lock_guard<std::mutex> lock(mMutex);
    auto camera = mSelected.lock();
    if (!camera || camera->isClosed()) return nullptr;
    return camera;
}

Result Registry::addSourceListener(LumoraSource::Listener* listener) {
    std::lock_guard<std::mutex> lock(mMutex);
    return add_unique(mSourceListeners, listener);
}

Result Registry::removeSourceListener(LumoraSource::Listener* listener) {
    std::lock_guard<std::mutex> lock(mMutex);
    return remove_item(mSourceListeners, listener);
}

Result Registry::addPreparedListener(LumoraCamera::PreparedListener* listener) {
    std::lock_guard<std::mutex> lock(mMutex);
    return add_unique(mPreparedListeners, listener);
}

Result Registry::removePreparedListener(LumoraCamera::PreparedListener* listener) {
    std::lock_guard<std::mutex> lock(mMutex);
    return remove_item(mPreparedListeners, listener);
}

std::vector<LumoraCamera::PreparedListener*> Registry::preparedListeners() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mPreparedListeners;
}

void Registry::announce(const std::shared_ptr<SimSource>& source, bool attached) {
    mHotplug.post([this, source, attached] {
        std::vector<LumoraSource::Listener*> listeners;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            listeners = mSourceListeners;
        }
        for (auto* listener : listeners) {
            if (attached) {
                listener->onAttachedLumoraSource(source.get());
            } else {
                listener->onDetachedLumoraSource(source.get());
            }
        }
    });
}

Result Registry::attach(const std::string& entry) {
    auto device = parse_device_entry(entry);
    if (!device) return RESULT_INVALID_PARAMETER;
    std::shared_ptr<SimSource> source;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        source = makeSource(std::move(*device), "sim_attach");
        if (!source) return RESULT_INVALID_PARAMETER;
        mSources.push_back(source);
        mSearchable = true;
    }
    announce(source, true);
    return RESULT_SUCCESS;
}

Result Registry::detach(int number) {
    std::shared_ptr<SimSource> source;
    std::shared_ptr<SimCamera> camera;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        const auto it = std::find_if(mSources.begin(), mSources.end(),
                                     [&](const std::shared_ptr<SimSource>& s) { return s->number() == number; });
        if (it == mSources.end()) return RESULT_NO_SUCH_DEVICE;
        source = *it;
        mSources.erase(it);
        for (const auto& weak : mCameras) {
            auto open = weak.lock();
            if (open && !open->isClosed() && open->source() == source) camera = open;
        }
    }
    if (camera) camera->unplug();
    announce(source, false);
    return RESULT_SUCCESS;
}

Result Registry::injectFault(int number, const Fault& fault) {
    std::shared_ptr<SimCamera> camera;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        const auto it = std::find_if(mSources.begin(), mSources.end(),
                                     [&](const std::shared_ptr<SimSource>& s) { return s->number() == number; });
        if (it == mSources.end()) return RESULT_NO_SUCH_DEVICE;
        for (const auto& weak : mCameras) {
            auto open = weak.lock();
            if (open && !open->isClosed() && open->source() == *it) camera = open;
        }
    }
    return camera ? camera->injectFault(fault) : RESULT_NOT_READY;
}

std::shared_ptr<SimCamera> Registry::openCamera(const std::string& uri) {
    std::lock_guard<std::mutex> lock(mMutex);
    for (const auto& weak : mCameras) {
        auto open = weak.lock();
        if (open && !open->isClosed() && open->source()->uri() == uri) return open;
    }
    return nullptr;
}

std::string Registry::deviceList() {
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mSearchable) return "none";
    std::string text;
    for (const auto& source : mSources) {
        text += (text.empty() ? "" : ",") + format_device(source->device());
    }
    return text;
}

Result Registry::setProperty(const std::shared_ptr<LumoraProperty>& property) {
    if (!property) return RESULT_INVALID_PARAMETER;
    if (const LibraryKey* own = library_key(property->key())) {
        return own->set == nullptr ? RESULT_INVALID_OPERATION : own->set(*this, *property);
    }
    const auto camera = selected();
    return camera ? camera->setProperty(property) : RESULT_NOT_SUPPORTED;
}

std::tuple<Result, std::shared_ptr<LumoraProperty>> Registry::getProperty(const std::string& key) {
    if (const LibraryKey* own = library_key(key)) {
        if (own->get == nullptr) return {RESULT_INVALID_OPERATION, nullptr};
        return {RESULT_SUCCESS, own->get(*this, key)};
    }
    const auto camera = selected();
    if (!camera) return {RESULT_NOT_SUPPORTED, nullptr};
    return camera->getProperty(key);
}

}  // namespace halden::sensor::sim

namespace halden::sensor {

using sim::Registry;

Result add_source_listener(LumoraSource::Listener* listener) {
    return Registry::instance().addSourceListener(listener);
}

Result remove_source_listener(LumoraSource::Listener* listener) {
    return Registry::instance().removeSourceListener(listener);
}

Result add_prepared_listener(LumoraCamera::PreparedListener* listener) {
    return Registry::instance().addPreparedListener(listener);
}

Result remove_prepared_listener(LumoraCamera::PreparedListener* listener) {
    return Registry::instance().removePreparedListener(listener);
}

std::shared_ptr<LumoraSourceList> search_camera_source() { return Registry::instance().search(); }

std::shared_ptr<LumoraCamera> create_camera(const std::shared_ptr<LumoraSource>& source) {
    return Registry::instance().create(source);
}

Result destroy_camera(const std::shared_ptr<LumoraCamera>& camera) { return Registry::instance().destroy(camera); }

Result set_property(const std::shared_ptr<LumoraProperty>& property) {
    return Registry::instance().setProperty(property);
}

std::tuple<Result, std::shared_ptr<LumoraProperty>> get_property(const std::string& key) {
    return Registry::instance().getProperty(key);
}

std::string last_released_version() { return "2.3.0"; }

std::string last_released_date() { return "2026-11-21"; }

}  // namespace halden::sensor
