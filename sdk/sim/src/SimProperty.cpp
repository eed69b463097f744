#include "SimProperty.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace halden::sensor {

std::shared_ptr<LumoraProperty> make_property_32s(const std::string& key, const std::int32_t& value) {
    return sim::SimProperty::makeInt32(key, value);
}

std::shared_ptr<LumoraProperty> make_property_64f(const std::string& key, const double& value) {
    return sim::SimProperty::makeFloat64(key, value);
}

std::shared_ptr<LumoraProperty> make_property_bool(const std::string& key, const bool& value) {
    return sim::SimProperty::makeBool(key, value);
}

std::shared_ptr<LumoraProperty> make_property_string(const std::string& key, const std::string& value) {
    return sim::SimProperty::makeString(key, value);
}

std::shared_ptr<LumoraProperties> make_properties(const std::string& name) {
    return std::make_shared<sim::SimProperties>(name);
}

}  // namespace halden::sensor

namespace halden::sensor::sim {

SimProperty::SimProperty(std::string key, DataType type, bool readOnly)
    : mKey(std::move(key)), mType(type), mReadOnly(readOnly) {}

std::shared_ptr<SimProperty> SimProperty::makeBool(const std::string& key, bool value, bool readOnly) {
    auto p = std::make_shared<SimProperty>(key, DATA_TYPE_BOOL, readOnly);
    p->mValue.b = value;
    return p;
}

std::shared_ptr<SimProperty> SimProperty::makeInt32(const std::string& key, std::int32_t value, bool readOnly) {
    auto p = std::make_shared<SimProperty>(key, DATA_TYPE_INT32, readOnly);
    p->mValue.i32 = value;
    return p;
}

std::shared_ptr<SimProperty> SimProperty::makeFloat32(const std::string& key, float value, bool readOnly) {
    auto p = std::make_shared<SimProperty>(key, DATA_TYPE_FLOAT32, readOnly);
    p->mValue.f32 = value;
    return p;
}

std::shared_ptr<SimProperty> SimProperty::makeFloat64(const std::string& key, double value, bool readOnly) {
    auto p = std::make_shared<SimProperty>(key, DATA_TYPE_FLOAT64, readOnly);
    p->mValue.f64 = value;
    return p;
}

std::shared_ptr<SimProperty> SimProperty::makeString(const std::string& key, const std::string& value, bool readOnly) {
    auto p = std::make_shared<SimProperty>(key, DATA_TYPE_STRING, readOnly);
    p->mText = value;
    return p;
}

std::shared_ptr<SimProperty> SimProperty::makeBytes(const std::string& key, std::size_t size, bool readOnly) {
    auto p = std::make_shared<SimProperty>(key, DATA_TYPE_BYTES, readOnly);
    p->mBytes.assign(size, 0);
    return p;
}

std::size_t SimProperty::size() const {
    switch (mType) {
        case DATA_TYPE_BOOL:
            return sizeof(bool);
        case DATA_TYPE_INT32:
            return sizeof(std::int32_t);
        case DATA_TYPE_FLOAT32:
            return sizeof(float);
        case DATA_TYPE_FLOAT64:
            return sizeof(double);
        case DATA_TYPE_STRING:
            return mText.size();
        case DATA_TYPE_BYTES:
            return mBytes.size();
        default:
            return 0;
    }
}

const void* SimProperty::data() const {
    switch (mType) {
        case DATA_TYPE_STRING:
            return mText.data();
        case DATA_TYPE_BYTES:
            return mBytes.data();
        default:
            return &mValue;
    }
}

std::string SimProperty::toString() const {
    char text[64];
    switch (mType) {
        case DATA_TYPE_BOOL:
            return mValue.b ? "1" : "0";
        case DATA_TYPE_INT32:
            std::snprintf(text, sizeof text, "%" PRId32, mValue.i32);
            return text;
        case DATA_TYPE_FLOAT32:
            std::snprintf(text, sizeof text, "%f", static_cast<double>(mValue.f32));
            return text;
        case DATA_TYPE_FLOAT64:
            std::snprintf(text, sizeof text, "%f", mValue.f64);
            return text;
        case DATA_TYPE_STRING:
            return mText;
        default:
            return {};
    }
}

std::shared_ptr<LumoraProperty> SimProperty::clone() const { return std::make_shared<SimProperty>(*this); }

bool SimProperty::getBool(bool defaultValue) const { return mType == DATA_TYPE_BOOL ? mValue.b : defaultValue; }
std::int8_t SimProperty::getInt8(std::int8_t defaultValue) const { return defaultValue; }
std::uint8_t SimProperty::getUInt8(std::uint8_t defaultValue) const { return defaultValue; }
std::int16_t SimProperty::getInt16(std::int16_t defaultValue) const { return defaultValue; }
std::uint16_t SimProperty::getUInt16(std::uint16_t defaultValue) const { return defaultValue; }
std::int32_t SimProperty::getInt32(std::int32_t defaultValue) const {
    return mType == DATA_TYPE_INT32 ? mValue.i32 : defaultValue;
}
std::uint32_t SimProperty::getUInt32(std::uint32_t defaultValue) const { return defaultValue; }
float SimProperty::getFloat(float defaultValue) const { return mType == DATA_TYPE_FLOAT32 ? mValue.f32 : defaultValue; }
std::int64_t SimProperty::getInt64(std::int64_t defaultValue) const { return defaultValue; }
std::uint64_t SimProperty::getUInt64(std::uint64_t defaultValue) const { return defaultValue; }
double SimProperty::getDouble(double defaultValue) const {
    return mType == DATA_TYPE_FLOAT64 ? mValue.f64 : defaultValue;
}
std::string SimProperty::getString(const std::string& defaultValue) const {
    return mType == DATA_TYPE_STRING ? mText : defaultValue;
}
std::vector<std::uint8_t> SimProperty::getBytes() const { return mBytes; }

Result SimProperties::add(const std::shared_ptr<LumoraProperty>& property) {
    if (!property) return RESULT_INVALID_PARAMETER;
    if (find(property->key())) return RESULT_ALREADY_EXISTS;
    mItems.push_back(property);
    return RESULT_SUCCESS;
}

std::shared_ptr<LumoraProperty> SimProperties::at(std::size_t index) const {
    return index < mItems.size() ? mItems[index] : nullptr;
}

std::shared_ptr<LumoraProperty> SimProperties::find(const std::string& key) const {
    for (const auto& item : mItems) {
        if (item->key() == key) return item;
    }
    return nullptr;
}

bool numeric_value(const LumoraProperty* property, double& out) {
    if (property == nullptr) return false;
    const void* raw = property->data();
    switch (property->dataType()) {
        case DATA_TYPE_BOOL:
            out = *static_cast<const bool*>(raw) ? 1.0 : 0.0;
            return true;
        case DATA_TYPE_INT8:
            out = *static_cast<const std::int8_t*>(raw);
            return true;
        case DATA_TYPE_UINT8:
            out = *static_cast<const std::uint8_t*>(raw);
            return true;
        case DATA_TYPE_INT16:
            out = *static_cast<const std::int16_t*>(raw);
            return true;
        case DATA_TYPE_UINT16:
            out = *static_cast<const std::uint16_t*>(raw);
            return true;
        case DATA_TYPE_INT32:
            out = *static_cast<const std::int32_t*>(raw);
            return true;
        case DATA_TYPE_UINT32:
            out = *static_cast<const std::uint32_t*>(raw);
            return true;
        case DATA_TYPE_FLOAT32:
            out = *static_cast<const float*>(raw);
            return true;
        case DATA_TYPE_INT64:
            out = static_cast<double>(*static_cast<const std::int64_t*>(raw));
            return true;
        case DATA_TYPE_UINT64:
            out = static_cast<double>(*static_cast<const std::uint64_t*>(raw));
            return true;
        case DATA_TYPE_FLOAT64:
            out = *static_cast<const double*>(raw);
            return true;
        default:
            return false;
    }
}

Result integer_value(const LumoraProperty& property, double low, double high, int& out) {
    double value = 0.0;
    if (property.dataType() == DATA_TYPE_BOOL || !numeric_value(&property, value)) return RESULT_INVALID_PARAMETER;
    if (value != std::floor(value)) return RESULT_INVALID_PARAMETER;
    if (value < low || value > high) return RESULT_OUT_OF_RANGE;
    out = static_cast<int>(value);
    return RESULT_SUCCESS;
}

}  // namespace halden::sensor::sim
