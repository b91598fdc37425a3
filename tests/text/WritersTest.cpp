// What is told comes out as JSON.
#include "text/JsonWriter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <string_view>

namespace TextTest {
namespace {

std::string json(const Text::Tell& tell) {
    std::string out;
    Text::JsonWriter writer(out);
    tell(writer);
    return out;
}

std::string json(std::string_view text) {
    std::string out;
    Text::appendJson(out, text);
    return out;
}

TEST(Json, StringsAreEscapedAndAlwaysUtf8) {
    EXPECT_EQ(json("plain \x7f"), "\"plain \x7f\"");
    EXPECT_EQ(json(std::string("a\"b\\c\n\x1f\0d", 9)), R"("a\"b\\c\n\u001f\u0000d")");
    for (const std::string valid :
         {"\xc3\xa9", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"})
        EXPECT_EQ(json("a" + valid + "b"), "\"a" + valid + "b\"");
    const std::string bad = "\xef\xbf\xbd";
    EXPECT_EQ(json("a\xff\"b"), "\"a" + bad + "\\\"b\"");
    EXPECT_EQ(json("\xe2\x82"), "\"" + bad + bad + "\"") << "cut";
    EXPECT_EQ(json("\xc3("), "\"" + bad + "(\"");
    // Too long, a surrogate, beyond the last character: each byte by itself.
    for (const std::string invalid :
         {"\xc0\x80", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80"}) {
        std::string expected = "\"";
        for (std::size_t at = 0; at < invalid.size(); ++at)
            expected += bad;
        EXPECT_EQ(json(invalid), expected + "\"");
    }
}

TEST(Json, NestsWithCommasWhereTheyBelong) {
    EXPECT_EQ(json([](Text::Writer& writer) {
                  writer.beginRecord();
                  writer.field("none");
                  writer.beginRecord();
                  writer.end();
                  writer.field("list");
                  writer.beginList();
                  writer.value(1);
                  writer.beginList();
                  writer.end();
                  writer.beginRecord();
                  writer.member("a\n", "b");
                  writer.member("c", nullptr);
                  writer.end();
                  writer.value(true);
                  writer.end();
                  writer.member("last", false);
                  writer.end();
              }),
              R"({"none":{},"list":[1,[],{"a\n":"b","c":null},true],"last":false})");
}

TEST(Json, NumbersReadBackAsTheyWere) {
    const auto number = [](auto value) { return json([&](Text::Writer& writer) { writer.value(value); }); };
    EXPECT_EQ(number(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
    EXPECT_EQ(number(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
    EXPECT_EQ(number(std::uint8_t{200}), "200");
    EXPECT_EQ(number(0.1), "0.1");
    EXPECT_EQ(number(1e300), "1e+300");
    for (const double value : {1.0 / 3, 5e-324, 123456789.125, -0.0, 1e22})
        EXPECT_EQ(std::strtod(number(value).c_str(), nullptr), value);
    EXPECT_EQ(number(std::nan("")), "null");
}

} // namespace
} // namespace TextTest
