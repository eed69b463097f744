// The simulated library's process-wide state: the virtual devices, the open cameras and
// the registered listeners.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <halden/sensor/LumoraCamera.h>
#include <halden/sensor/LumoraSource.h>

#include "Faults.h"
#include "SerialExecutor.h"
#include "SimCamera.h"

namespace halden::sensor::sim {

class Registry {
public:
    // Made on first use and never destroyed.
    static Registry& instance();

    std::shared_ptr<LumoraSourceList> search();
    std::shared_ptr<LumoraCamera> create(const std::shared_ptr<LumoraSource>& source);
    Result destroy(const std::shared_ptr<LumoraCamera>& camera);

    Result addSourceListener(LumoraSource::Listener* listener);
    Result removeSourceListener(LumoraSource::Listener* listener);
    Result addPreparedListener(LumoraCamera::PreparedListener* listener);
    Result removePreparedListener(LumoraCamera::PreparedListener* listener);
    std::vector<LumoraCamera::PreparedListener*> preparedListeners();

    Result setProperty(const std::shared_ptr<LumoraProperty>& property);
    std::tuple<Result, std::shared_ptr<LumoraProperty>> getProperty(const std::string& key);

    // Hot-plug: a new device from an entry "MODEL[:WxH][@FPS]" or "replay:PATH", or the
    // device numbered N ("sim:N", "replay:N") gone. A replay file that cannot be played is
    // logged and refused with RESULT_INVALID_PARAMETER.
    Result attach(const std::string& entry);
    Result detach(int number);
    // The fault on the open camera of device N: RESULT_NO_SUCH_DEVICE without such a
    // device, RESULT_NOT_READY while no camera is open on it.
    Result injectFault(int number, const Fault& fault);
    // The attached devices as a LUMORA_SIM_DEVICES value.
    std::string deviceList();
    // The open camera on the device with this URI, or null.
    std::shared_ptr<SimCamera> openCamera(const std::string& uri);
    // Re-reads LUMORA_SIM_DEVICES; RESULT_USING_RESOURCES while a camera is open.
    Result reset();

private:
    Registry();
    void load();  // mMutex held
    // A source for a parsed entry, numbered next; empty for a replay file that cannot be
    // played, which is logged with `origin` (what named the file) first. mMutex held.
    std::shared_ptr<SimSource> makeSource(DeviceConfig device, const char* origin);
    std::shared_ptr<LumoraCamera> selected();
    // Tells the source listeners on the hot-plug thread.
    void announce(const std::shared_ptr<SimSource>& source, bool attached);

    std::mutex mMutex;
    bool mSearchable = true;
    int mNextNumber = 0;
    std::vector<std::shared_ptr<SimSource>> mSources;
    std::vector<std::weak_ptr<SimCamera>> mCameras;
    std::weak_ptr<SimCamera> mSelected;
    std::vector<LumoraSource::Listener*> mSourceListeners;
    std::vector<LumoraCamera::PreparedListener*> mPreparedListeners;
    SerialExecutor mHotplug;
};

}  // namespace halden::sensor::sim
