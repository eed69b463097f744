// The simulated library's property and property-collection objects.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <halden/sensor/LumoraProperty.h>

namespace halden::sensor::sim {

class SimProperty final : public LumoraProperty {
public:
    static std::shared_ptr<SimProperty> makeBool(const std::string& key, bool value, bool readOnly = false);
    static std::shared_ptr<SimProperty> makeInt32(const std::string& key, std::int32_t value, bool readOnly = false);
    static std::shared_ptr<SimProperty> makeFloat32(const std::string& key, float value, bool readOnly = false);
    static std::shared_ptr<SimProperty> makeFloat64(const std::string& key, double value, bool readOnly = false);
    static std::shared_ptr<SimProperty> makeString(const std::string& key, const std::string& value,
                                                   bool readOnly = false);
    static std::shared_ptr<SimProperty> makeBytes(const std::string& key, std::size_t size, bool readOnly = true);

    SimProperty(std::string key, DataType type, bool readOnly);

    bool isReadOnly() const override { return mReadOnly; }
    std::size_t size() const override;
    const void* data() const override;
    DataType dataType() const override { return mType; }
    std::string toString() const override;
    std::shared_ptr<LumoraProperty> clone() const override;
    std::string key() const override { return mKey; }
    // The key without a copy.
    const std::string& keyRef() const { return mKey; }

    bool getBool(bool defaultValue) const override;
    std::int8_t getInt8(std::int8_t defaultValue) const override;
    std::uint8_t getUInt8(std::uint8_t defaultValue) const override;
    std::int16_t getInt16(std::int16_t defaultValue) const override;
    std::uint16_t getUInt16(std::uint16_t defaultValue) const override;
    std::int32_t getInt32(std::int32_t defaultValue) const override;
    std::uint32_t getUInt32(std::uint32_t defaultValue) const override;
    float getFloat(float defaultValue) const override;
    std::int64_t getInt64(std::int64_t defaultValue) const override;
    std::uint64_t getUInt64(std::uint64_t defaultValue) const override;
    double getDouble(double defaultValue) const override;
    std::string getString(const std::string& defaultValue) const override;
    std::vector<std::uint8_t> getBytes() const override;

    // A byte block's storage, rewritten in place by the library while it alone holds it.
    std::uint8_t* mutableBytes() { return mBytes.data(); }

private:
    std::string mKey;
    DataType mType;
    bool mReadOnly;
    union {
        bool b;
        std::int32_t i32;
        float f32;
        double f64;
    } mValue{};
    std::string mText;                 // DATA_TYPE_STRING
    std::vector<std::uint8_t> mBytes;  // DATA_TYPE_BYTES
};

class SimProperties final : public LumoraProperties {
public:
    explicit SimProperties(std::string name) : mName(std::move(name)) {}

    std::string name() const override { return mName; }
    std::size_t size() const override { return mItems.size(); }
    Result add(const std::shared_ptr<LumoraProperty>& property) override;
    std::shared_ptr<LumoraProperty> at(std::size_t index) const override;
    std::shared_ptr<LumoraProperty> find(const std::string& key) const override;

private:
    std::string mName;
    std::vector<std::shared_ptr<LumoraProperty>> mItems;
};

// A numeric reading of any numeric or boolean property; false for text, bytes and null.
bool numeric_value(const LumoraProperty* property, double& out);

// A whole number within [low, high]: RESULT_INVALID_PARAMETER for anything that is not a
// whole number (booleans, text, fractions), RESULT_OUT_OF_RANGE outside the bounds.
Result integer_value(const LumoraProperty& property, double low, double high, int& out);

}  // namespace halden::sensor::sim
