// An opened camera: life cycle, streaming, properties, calibration and sinks.
//
// Life cycle: create_camera() gives STATE_NOT_PREPARED; prepare() gives STATE_PREPARED;
// run() gives STATE_RUNNING; stop() gives STATE_STOPPED; release() gives
// STATE_NOT_PREPARED again; destroy_camera() closes the camera, releasing it first when
// needed. Every change is reported to the camera's sinks in order, one callback at a time,
// on a library thread. The operations may be called from any thread, state callbacks
// included; see LumoraSink for the frame callback.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <tuple>

#include "LumoraCalibration.h"
#include "LumoraProperty.h"
#include "LumoraResult.h"
#include "LumoraSource.h"

namespace halden::sensor {

class LumoraSink;

class LumoraCamera {
public:
    enum State : int {
        STATE_NOT_PREPARED = 0,
        STATE_PREPARED = 1,
        STATE_STOPPED = 2,
        STATE_RUNNING = 3,
    };

    // Hears a camera become prepared, on a library thread, before its sinks hear the state.
    class PreparedListener {
    public:
        virtual void onLumoraCameraPrepared(LumoraCamera* camera) = 0;
        virtual ~PreparedListener() = default;
    };

    // The virtual slot order is part of the library's ABI.
    virtual State state() const = 0;
    virtual std::shared_ptr<LumoraSource> source() const = 0;
    virtual int lensCount() const = 0;
    // Calibration of lens 0 .. lensCount()-1; RESULT_OUT_OF_RANGE for any other index.
    virtual Result getDistortionCoefficients(int lens, DistortionCoefficients& out) const = 0;
    virtual Result getIntrinsicParameters(int lens, IntrinsicParameters& out) const = 0;
    virtual Result getExtrinsicParameters(int lens, ExtrinsicParameters& out) const = 0;
    virtual Result getFieldOfView(int lens, FieldOfView& out) const = 0;
    // Starts the preparation (sensor power-up, firmware, calibration). The camera is
    // prepared when this returns RESULT_SUCCESS; listeners and sinks hear of it afterwards.
    virtual Result prepare() = 0;
    // The mask of LumoraFrame::FrameType bits the camera can produce.
    virtual std::uint32_t supportedFrameTypes() const = 0;
    // Starts streaming the frame types in the mask; RESULT_INVALID_PARAMETER for a mask with
    // no supported type or with unknown bits.
    virtual Result run(int wantedFrame) = 0;
    virtual Result stop() = 0;
    virtual Result release() = 0;
    virtual Result setProperty(const std::shared_ptr<LumoraProperty>& property) = 0;
    // Applies a whole collection, all or nothing.
    virtual Result setProperties(const std::shared_ptr<LumoraProperties>& properties) = 0;
    virtual std::tuple<Result, std::shared_ptr<LumoraProperty>> getProperty(const std::string& key) const = 0;
    // A named collection, such as "fw_info".
    virtual std::tuple<Result, std::shared_ptr<LumoraProperties>> getProperties(const std::string& name) const = 0;
    // The sink is not owned; it must outlive its registration (destroy_camera ends it).
    virtual Result addSink(LumoraSink* sink) = 0;
    // A callback already under way may still finish after this returns; only
    // destroy_camera() waits for the sinks' last callbacks.
    virtual Result removeSink(LumoraSink* sink) = 0;
    // The mask given to the last successful run(), 0 before any.
    virtual std::uint32_t wantedFrame() const = 0;
    virtual ~LumoraCamera() = default;
};

// Registers a listener that hears every camera of the process become prepared. Registering
// the same listener again does nothing and answers RESULT_ALREADY_EXISTS.
Result add_prepared_listener(LumoraCamera::PreparedListener* listener);
// A callback already under way may still finish after the removal returns.
Result remove_prepared_listener(LumoraCamera::PreparedListener* listener);

// Opens the source's device; null when it is unplugged or already open. The caller owns
// the camera; the last reference must not be dropped on one of the camera's own threads
// (in a sink's callback), since closing waits for those threads.
std::shared_ptr<LumoraCamera> create_camera(const std::shared_ptr<LumoraSource>& source);

// Stops and releases the camera when needed, delivers its last state callbacks and closes
// it; no sink hears of it after this returns. RESULT_INVALID_OPERATION when the camera is
// already closed, or when called from one of the camera's own callbacks.
Result destroy_camera(const std::shared_ptr<LumoraCamera>& camera);

}  // namespace halden::sensor
