#include "Faults.h"

#include <cstdlib>

#include <halden/sensor/LumoraFrame.h>

namespace halden::sensor::sim {

namespace {

struct FaultName {
    const char* name;
    Fault::Kind kind;
    std::uint32_t fallback;  // the argument when none is given; 0: one must be given
    std::uint32_t low, high;
};

const FaultName kFaults[] = {
    {"missing", Fault::kMissing, 0, LumoraFrame::FRAME_DEPTH, LumoraFrame::FRAME_INTENSITY_POINTCLOUD},
    {"empty", Fault::kEmpty, 1, 1, 1000},
    {"zero_size", Fault::kZeroSize, 1, 1, 1000},
    {"no_line", Fault::kNoLine, 1, 1, 1000},
    {"stall", Fault::kStall, 0, 1, 60000},
    {"errors", Fault::kErrors, 1, 1, 100000},
};

std::optional<std::uint32_t> number(const std::string& text) {
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(std::strtoul(text.c_str(), nullptr, 10));
}

bool one_frame_type(std::uint32_t type) { return type != 0 && (type & (type - 1)) == 0; }

}  // namespace

std::optional<FaultRequest> parse_fault(const std::string& text) {
    const auto first = text.find(':');
    if (first == std::string::npos) return std::nullopt;
    const auto device = number(text.substr(0, first));
    const auto second = text.find(':', first + 1);
    const std::string name =
        text.substr(first + 1, second == std::string::npos ? std::string::npos : second - first - 1);
    if (!device) return std::nullopt;
    for (const auto& fault : kFaults) {
        if (name != fault.name) continue;
        std::optional<std::uint32_t> argument = fault.fallback;
        if (second != std::string::npos) argument = number(text.substr(second + 1));
        if (!argument || *argument < fault.low || *argument > fault.high) return std::nullopt;
        if (fault.kind == Fault::kMissing && !one_frame_type(*argument)) return std::nullopt;
        return FaultRequest{static_cast<int>(*device), {fault.kind, *argument}};
    }
    return std::nullopt;
}

}  // namespace halden::sensor::sim
