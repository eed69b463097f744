#include "SourceListener.h"

#include <cstdio>

namespace lumora::shell {

SourceListener gSourceListener;

void SourceListener::onAttachedLumoraSource(halden::sensor::LumoraSource* source) {
    if (source != nullptr) std::printf("%s(%s)\n", "onAttachedLumoraSource", source->uri().c_str());
}

void SourceListener::onDetachedLumoraSource(halden::sensor::LumoraSource* source) {
    if (source != nullptr) std::printf("%s(%s)\n", "onDetachedLumoraSource", source->uri().c_str());
}

}  // namespace lumora::shell
