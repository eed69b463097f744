#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>

#include "terminal/TextHelpers.h"

namespace {

using namespace lumora::terminal;

TEST(TextHelpersTest, NumberAndIntegerTests) {
    struct Case {
        const char* text;
        bool number;
        bool integer;
    };
    const Case cases[] = {
        {"3.5", true, false},  {" 3.5 ", true, false}, {"3.5x", false, false},      {"", false, false},
        {"-1e2", true, false}, {"-7", true, true},     {"7.0", true, false},        {"007", true, true},
        {"12", true, true},    {" 12", true, true},    {"12 ", true, false},        {"1e3", true, false},
        {"+4", true, true},    {"abc", false, false},  {" ", false, false},         {"1 2", false, false},
        {".5", true, false},   {"0x10", false, false}, {"99999999999", true, true},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(isNumber(c.text), c.number) << '"' << c.text << '"';
        EXPECT_EQ(isInteger(c.text), c.integer) << '"' << c.text << '"';
    }
}

TEST(TextHelpersTest, ToIntConvertsOrThrowsStoi) {
    EXPECT_EQ(toInt("", 5), 5);
    EXPECT_EQ(toInt("42", 5), 42);
    EXPECT_EQ(toInt(" -42", 5), -42);
    EXPECT_EQ(toInt("12ab", 0), 12);
    EXPECT_EQ(toInt("2147483647", 0), 2147483647);
    EXPECT_EQ(toInt("-2147483648", 0), -2147483647 - 1);
    errno = EDOM;
    toInt("7", 0);
    EXPECT_EQ(errno, EDOM) << "errno is kept on success";
    for (const char* text : {"abc", "-", " "}) {
        try {
            toInt(text, 0);
            ADD_FAILURE() << text << " converted";
        } catch (const std::invalid_argument& e) {
            EXPECT_STREQ(e.what(), "stoi");
        }
    }
    for (const char* text : {"2147483648", "-2147483649", "99999999999999999999"}) {
        try {
            toInt(text, 0);
            ADD_FAILURE() << text << " converted";
        } catch (const std::out_of_range& e) {
            EXPECT_STREQ(e.what(), "stoi");
        }
    }
}

TEST(TextHelpersTest, ToDoubleConvertsOrThrowsStod) {
    EXPECT_EQ(toDouble("", 2), 2.0);
    EXPECT_EQ(toDouble("2.5", 0), 2.5);
    EXPECT_EQ(toDouble("-1e2x", 0), -100.0);
    errno = EDOM;
    toDouble("1", 0);
    EXPECT_EQ(errno, EDOM);
    try {
        toDouble("abc", 0);
        ADD_FAILURE() << "abc converted";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "stod");
    }
    try {
        toDouble("1e999", 0);
        ADD_FAILURE() << "1e999 converted";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "stod");
    }
}

}  // namespace
