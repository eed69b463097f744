// Properties: a key with one typed value, and named collections of them.
//
// Properties are immutable once made. Library keys ("log_level", ...) are set and read
// through set_property()/get_property(); camera keys through the camera's own setter and
// getter, or through the same free functions, which then act on the selected camera (the
// one created last and not destroyed yet).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "LumoraDataType.h"
#include "LumoraResult.h"

namespace halden::sensor {

class LumoraProperty {
public:
    // The virtual slot order is part of the library's ABI.
    virtual bool isReadOnly() const = 0;
    // Size of the value in bytes (the length of a string or byte block).
    virtual std::size_t size() const = 0;
    // The value's raw bytes, in host order; valid while the property lives.
    virtual const void* data() const = 0;
    virtual DataType dataType() const = 0;
    // The value as text, in the same form the shell would print it.
    virtual std::string toString() const = 0;
    virtual std::shared_ptr<LumoraProperty> clone() const = 0;
    virtual std::string key() const = 0;

    // Typed getters: the value when the property holds that type, otherwise the default.
    virtual bool getBool(bool defaultValue = false) const = 0;
    virtual std::int8_t getInt8(std::int8_t defaultValue = 0) const = 0;
    virtual std::uint8_t getUInt8(std::uint8_t defaultValue = 0) const = 0;
    virtual std::int16_t getInt16(std::int16_t defaultValue = 0) const = 0;
    virtual std::uint16_t getUInt16(std::uint16_t defaultValue = 0) const = 0;
    virtual std::int32_t getInt32(std::int32_t defaultValue = 0) const = 0;
    virtual std::uint32_t getUInt32(std::uint32_t defaultValue = 0) const = 0;
    virtual float getFloat(float defaultValue = 0.0F) const = 0;
    virtual std::int64_t getInt64(std::int64_t defaultValue = 0) const = 0;
    virtual std::uint64_t getUInt64(std::uint64_t defaultValue = 0) const = 0;
    virtual double getDouble(double defaultValue = 0.0) const = 0;
    virtual std::string getString(const std::string& defaultValue) const = 0;
    // A byte block's bytes; empty for any other type.
    virtual std::vector<std::uint8_t> getBytes() const = 0;

    virtual ~LumoraProperty() = default;
};

// A named, ordered collection of properties with distinct keys.
class LumoraProperties {
public:
    virtual std::string name() const = 0;
    virtual std::size_t size() const = 0;
    // Adds a property; RESULT_INVALID_PARAMETER for null, RESULT_ALREADY_EXISTS for a key
    // that is already in the collection.
    virtual Result add(const std::shared_ptr<LumoraProperty>& property) = 0;
    // The property at a zero-based index, or null.
    virtual std::shared_ptr<LumoraProperty> at(std::size_t index) const = 0;
    // The property with that key, or null.
    virtual std::shared_ptr<LumoraProperty> find(const std::string& key) const = 0;
    virtual ~LumoraProperties() = default;
};

std::shared_ptr<LumoraProperty> make_property_32s(const std::string& key, const std::int32_t& value);
std::shared_ptr<LumoraProperty> make_property_64f(const std::string& key, const double& value);
std::shared_ptr<LumoraProperty> make_property_bool(const std::string& key, const bool& value);
std::shared_ptr<LumoraProperty> make_property_string(const std::string& key, const std::string& value);
std::shared_ptr<LumoraProperties> make_properties(const std::string& name);

// Applies a library key, or a camera key to the selected camera.
// RESULT_NOT_SUPPORTED: the key is neither the library's nor the selected camera's (or no
// camera is selected); RESULT_INVALID_PARAMETER: the value has the wrong type;
// RESULT_OUT_OF_RANGE: the value is outside the key's range; RESULT_INVALID_OPERATION: the
// key is read-only.
Result set_property(const std::shared_ptr<LumoraProperty>& property);

// Reads a library key, or a camera key of the selected camera. The property is null unless
// the result is RESULT_SUCCESS.
std::tuple<Result, std::shared_ptr<LumoraProperty>> get_property(const std::string& key);

}  // namespace halden::sensor
