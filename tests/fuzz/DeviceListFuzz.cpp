// Fuzzes the parser of LUMORA_SIM_DEVICES: whatever the text, it must not crash, every
// device it accepts must be within bounds, and a device's own text must parse back to it
// (a replay device's to its path).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "DeviceConfig.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace halden::sensor::sim;
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> rejected;
    for (const auto& device : parse_device_list(text, &rejected)) {
        if (!device.recording.empty()) {
            const auto again = parse_device_entry(format_device(device));
            if (!again || again->recording != device.recording) std::abort();
            continue;
        }
        if (device.model.empty() || device.width < 8 || device.height < 8 || device.width > 4096 ||
            device.height > 4096 || device.fps < 1.0 || device.fps > 120.0) {
            std::abort();
        }
        const auto again = parse_device_entry(format_device(device));
        if (!again || again->model != device.model || again->width != device.width || again->height != device.height) {
            std::abort();
        }
    }
    return 0;
}
