// Property values print in the format of their data type, and typed text becomes the
// property a user would expect.
#include <gtest/gtest.h>

#include <cstdio>

#include "PropertyCommands.h"

namespace {

namespace hs = halden::sensor;

// A property of any data type, every getter answering from one raw 64-bit pattern.
class AnyProperty : public hs::LumoraProperty {
public:
    AnyProperty(hs::DataType type, std::uint64_t bits, double real = 0, std::string text = {})
        : mType(type), mBits(bits), mReal(real), mText(std::move(text)) {}
    bool isReadOnly() const override { return true; }
    std::size_t size() const override { return 8; }
    const void* data() const override { return &mBits; }
    hs::DataType dataType() const override { return mType; }
    std::string toString() const override { return {}; }
    std::shared_ptr<LumoraProperty> clone() const override { return std::make_shared<AnyProperty>(*this); }
    std::string key() const override { return "k"; }
    bool getBool(bool) const override { return mBits != 0; }
    std::int8_t getInt8(std::int8_t) const override { return static_cast<std::int8_t>(mBits); }
    std::uint8_t getUInt8(std::uint8_t) const override { return static_cast<std::uint8_t>(mBits); }
    std::int16_t getInt16(std::int16_t) const override { return static_cast<std::int16_t>(mBits); }
    std::uint16_t getUInt16(std::uint16_t) const override { return static_cast<std::uint16_t>(mBits); }
    std::int32_t getInt32(std::int32_t) const override { return static_cast<std::int32_t>(mBits); }
    std::uint32_t getUInt32(std::uint32_t) const override { return static_cast<std::uint32_t>(mBits); }
    float getFloat(float) const override { return static_cast<float>(mReal); }
    std::int64_t getInt64(std::int64_t) const override { return static_cast<std::int64_t>(mBits); }
    std::uint64_t getUInt64(std::uint64_t) const override { return mBits; }
    double getDouble(double) const override { return mReal; }
    std::string getString(const std::string&) const override { return mText; }
    std::vector<std::uint8_t> getBytes() const override { return {}; }

private:
    hs::DataType mType;
    std::uint64_t mBits;
    double mReal;
    std::string mText;
};

std::string printed(const hs::LumoraProperty& property) {
    testing::internal::CaptureStdout();
    lumora::shell::print_property("> ", property);
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

TEST(PropertyPrintTest, EachDataTypeHasItsFormat) {
    const std::uint64_t minusOne = ~std::uint64_t{0};
    struct Case {
        AnyProperty property;
        const char* expected;
    };
    const Case cases[] = {
        {{hs::DATA_TYPE_NONE, 1}, "> k\n"},
        {{hs::DATA_TYPE_BOOL, 1}, "> k, 1\n"},
        {{hs::DATA_TYPE_INT8, minusOne}, "> k, -1\n"},
        {{hs::DATA_TYPE_UINT8, minusOne}, "> k, 255\n"},
        {{hs::DATA_TYPE_INT16, minusOne}, "> k, -1\n"},
        {{hs::DATA_TYPE_UINT16, minusOne}, "> k, 65535\n"},
        {{hs::DATA_TYPE_INT32, minusOne}, "> k, -1\n"},
        {{hs::DATA_TYPE_UINT32, minusOne}, "> k, 4294967295\n"},
        {{hs::DATA_TYPE_FLOAT32, 0, 2.5}, "> k, 2.500000\n"},
        {{hs::DATA_TYPE_INT64, minusOne}, "> k, -1\n"},
        {{hs::DATA_TYPE_UINT64, minusOne}, "> k, 18446744073709551615\n"},
        {{hs::DATA_TYPE_FLOAT64, 0, -0.125}, "> k, -0.125000\n"},
        {{hs::DATA_TYPE_BYTES, 7}, "> k\n"},
        {{hs::DATA_TYPE_STRING, 0, 0, "on air"}, "> k, on air\n"},
        {{static_cast<hs::DataType>(14), 7}, "> k\n"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(printed(c.property), c.expected) << "data type " << c.property.dataType();
}

TEST(PropertyPrintTest, TypedTextBecomesStringFloatOrInteger) {
    using lumora::shell::make_typed_property;
    struct Case {
        const char* text;
        hs::DataType type;
    };
    const Case cases[] = {
        {"on", hs::DATA_TYPE_STRING},
        {"", hs::DATA_TYPE_STRING},
        {"12", hs::DATA_TYPE_INT32},
        {"-7", hs::DATA_TYPE_INT32},
        {"2.5", hs::DATA_TYPE_FLOAT64},
        {"1e3", hs::DATA_TYPE_FLOAT64},
        {"99999999999", hs::DATA_TYPE_FLOAT64},
        {"12ab", hs::DATA_TYPE_STRING},
    };
    for (const Case& c : cases) {
        const auto property = make_typed_property("key", c.text);
        ASSERT_TRUE(property) << c.text;
        EXPECT_EQ(property->dataType(), c.type) << '"' << c.text << '"';
        EXPECT_EQ(property->key(), "key");
    }
    EXPECT_EQ(make_typed_property("k", "99999999999")->getDouble(0), 99999999999.0);
    EXPECT_EQ(make_typed_property("k", "-7")->getInt32(0), -7);
}

}  // namespace
