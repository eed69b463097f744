#include "Discovery.h"

#include <cstdio>
#include <stdexcept>

#include "ResultPrinter.h"
#include "SourceListener.h"
#include "display/OpenCVVideoRendererSink.h"
#include "dump/FrameDumpSink.h"
#include "imaging/ColorMaps.h"
#include "quality/LiveQuality.h"
#include "terminal/TextHelpers.h"

namespace lumora::shell {

namespace hs = halden::sensor;

Outcome search(ShellContext& context, const std::string& /*argument*/) {
    if (context.camera) return hs::RESULT_INVALID_OPERATION;
    context.sources = hs::search_camera_source();
    if (!context.sources) return hs::RESULT_NOT_FOUND;
    for (size_t i = 0; i < context.sources->size(); ++i) {
        const auto source = context.sources->at(i);
        if (!source) continue;
        std::printf("%zu) source name : %s, serialNumber : %s, uri : %s\n\r", i, source->name().c_str(),
                    source->serialNumber().c_str(), source->uri().c_str());
    }
    return std::nullopt;
}

Outcome select(ShellContext& context, const std::string& argument) {
    if (!terminal::isInteger(argument)) return hs::RESULT_INVALID_PARAMETER;
    if (context.camera) return hs::RESULT_ALREADY_EXISTS;
    if (!context.sources) return hs::RESULT_NO_SUCH_DEVICE;
    std::int64_t index = -1;
    try {
        index = terminal::toInt(argument, -1);
    } catch (const std::out_of_range&) {
        // Beyond any list: fails like any other index out of range.
    }
    std::shared_ptr<hs::LumoraSource> source;
    if (index >= 0 && context.sources->size() > static_cast<size_t>(index))
        source = context.sources->at(static_cast<size_t>(index));
    if (source) context.camera = hs::create_camera(source);
    if (!context.camera) return hs::RESULT_FAIL;

    const std::string name = source->name();
    std::printf("selected device(%s:%s)\n\r", name.c_str(), source->serialNumber().c_str());
    context.promptName = name;
    // The renderer is a prepared listener from start-up (main.cpp); the dump sink and the live
    // measurement become one here, for this camera, and stop being one when it is closed
    // (forget_camera below).
    if (context.renderer != nullptr) context.camera->addSink(context.renderer);
    gSourceListener.setCamera(context.camera);
    if (context.dumpSink != nullptr) {
        context.camera->addSink(context.dumpSink);
        hs::add_prepared_listener(context.dumpSink);
    }
    if (context.liveQuality != nullptr) {
        context.camera->addSink(context.liveQuality);
        hs::add_prepared_listener(context.liveQuality);
    }
    if (context.camera->state() == hs::LumoraCamera::STATE_NOT_PREPARED) {
        const hs::Result result = context.camera->prepare();
        if (result != hs::RESULT_SUCCESS) print_result(result);
    }
    const imaging::ModelRanges ranges = imaging::modelRanges(name);
    imaging::setDepthRange(ranges.depth);
    imaging::setGrayRange(ranges.gray);
    return std::nullopt;
}

Outcome deselect(ShellContext& context, const std::string& /*argument*/) {
    gSourceListener.setCamera(nullptr);
    context.stopStressTest();
    context.camera->stop();
    const hs::Result result = hs::destroy_camera(context.camera);
    forget_camera(context);
    return result;
}

// Removes the prepared listeners that select (above) added.
void forget_camera(ShellContext& context) {
    if (context.dumpSink != nullptr) hs::remove_prepared_listener(context.dumpSink);
    if (context.liveQuality != nullptr) hs::remove_prepared_listener(context.liveQuality);
    context.camera.reset();
    context.promptName.clear();
}

}  // namespace lumora::shell
