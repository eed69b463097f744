// Announces cameras being plugged in and unplugged.
#pragma once

#include <functional>
#include <memory>

#include <halden/sensor/Lumora.h>

namespace lumora::shell {

// Callbacks run on a library thread. The camera and the stored callable are written by
// the shell thread only and never read by the callbacks.
class SourceListener : public halden::sensor::LumoraSource::Listener {
public:
    // Print "onAttachedLumoraSource(URI)" or "onDetachedLumoraSource(URI)".
    void onAttachedLumoraSource(halden::sensor::LumoraSource* source) override;
    void onDetachedLumoraSource(halden::sensor::LumoraSource* source) override;

    void setCamera(std::shared_ptr<halden::sensor::LumoraCamera> camera) { mCamera = std::move(camera); }
    // Keeps a callable that stops the stress test, for the listener's whole life.
    void setStopTest(std::function<void()> stopTest) { mStopTest = std::move(stopTest); }

private:
    // Destroyed in reverse: the callable first, then the camera.
    std::shared_ptr<halden::sensor::LumoraCamera> mCamera;
    std::function<void()> mStopTest;
};

// The one listener of the process, registered at start-up.
extern SourceListener gSourceListener;

}  // namespace lumora::shell
