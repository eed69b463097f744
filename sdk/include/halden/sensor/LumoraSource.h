// Attached camera devices and their discovery.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "LumoraResult.h"

namespace halden::sensor {

// One attached camera device. Sources stay valid after the device is unplugged; a camera
// can then no longer be created from them.
class LumoraSource {
public:
    // Hears devices being plugged in and unplugged, on a library thread. The source pointer
    // is valid for the duration of the call only.
    class Listener {
    public:
        virtual void onAttachedLumoraSource(LumoraSource* source) = 0;
        virtual void onDetachedLumoraSource(LumoraSource* source) = 0;
        virtual ~Listener() = default;
    };

    // The virtual slot order is part of the library's ABI.
    virtual std::string name() const = 0;          // the model, such as "QRX100A"
    virtual std::string serialNumber() const = 0;  // unique per device
    virtual std::string uri() const = 0;           // "transport:address", unique per device
    virtual ~LumoraSource() = default;
};

// A snapshot of the sources attached when the search was made.
class LumoraSourceList {
public:
    // The virtual slot order is part of the library's ABI.
    virtual bool empty() const = 0;
    virtual std::size_t size() const = 0;
    virtual std::shared_ptr<LumoraSource> front() const = 0;
    virtual std::shared_ptr<LumoraSource> back() const = 0;
    // The source with that URI, or null.
    virtual std::shared_ptr<LumoraSource> find(const std::string& uri) const = 0;
    // The source at a zero-based index, or null when the index is out of range.
    virtual std::shared_ptr<LumoraSource> at(std::size_t index) const = 0;
    virtual ~LumoraSourceList() = default;
};

// Registers a listener for attach and detach events; the caller keeps ownership and must
// remove it (or keep it alive) until the process ends. RESULT_ALREADY_EXISTS when already
// registered, RESULT_INVALID_PARAMETER for null.
Result add_source_listener(LumoraSource::Listener* listener);
// A callback already under way may still finish after the removal returns.
Result remove_source_listener(LumoraSource::Listener* listener);

// The attached sources; null when the library finds no transport to search at all.
std::shared_ptr<LumoraSourceList> search_camera_source();

}  // namespace halden::sensor
