// What is told comes out as JSON, and as text for people.
#include "text/JsonWriter.h"
#include "text/TextWriter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <string_view>

namespace TextTest {
namespace {

template <class Writer>
std::string told(const Text::Tell& tell) {
    std::string out;
    Writer writer(out);
    tell(writer);
    return out;
}

std::string json(const Text::Tell& tell) {
    return told<Text::JsonWriter>(tell);
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

template <class... Elements>
void tellList(Text::Writer& writer, const Elements&... elements) {
    writer.beginList();
    (writer.value(elements), ...);
    writer.end();
}

void tellNested(Text::Writer& writer) {
    writer.beginRecord();
    writer.member("name", "a");
    writer.field("list");
    tellList(writer, 1, 2);
    writer.field("empty");
    tellList(writer);
    writer.member("no", "");
    writer.field("in");
    writer.beginRecord();
    writer.member("x", nullptr);
    writer.field("deep");
    writer.record("y", true);
    writer.end();
    writer.field("rows");
    writer.beginList();
    writer.beginRecord();
    writer.member("p", 1);
    writer.field("q");
    writer.beginList();
    writer.record("r", 2.5);
    writer.end();
    writer.end();
    writer.value("s");
    tellList(writer, 3, 4);
    tellList(writer);
    writer.end();
    writer.end();
}

TEST(Json, NestsWithCommasWhereTheyBelong) {
    EXPECT_EQ(json(tellNested),
              R"({"name":"a","list":[1,2],"empty":[],"no":"","in":{"x":null,"deep":{"y":true}},)"
              R"("rows":[{"p":1,"q":[{"r":2.5}]},"s",[3,4],[]]})");
    EXPECT_EQ(json([](Text::Writer& writer) { writer.record("a\n", "b", "c", false); }),
              R"({"a\n":"b","c":false})");
    EXPECT_EQ(json([](Text::Writer& writer) { writer.record(); }), "{}");
}

TEST(PlainText, NestedRecordsAndListsAreAnOutline) {
    EXPECT_EQ(told<Text::TextWriter>(tellNested), "name: a\n"
                                                  "list: 1, 2\n"
                                                  "empty: none\n"
                                                  "no:\n"
                                                  "in:\n"
                                                  "  x: null\n"
                                                  "  deep:\n"
                                                  "    y: true\n"
                                                  "rows:\n"
                                                  "  - p: 1\n"
                                                  "    q:\n"
                                                  "      - r: 2.5\n"
                                                  "  - s\n"
                                                  "  - 3, 4\n"
                                                  "  - none\n");
    EXPECT_EQ(told<Text::TextWriter>([](Text::Writer& writer) { tellList(writer, "a b", 2, false); }),
              "a b\n2\nfalse\n");
    EXPECT_EQ(told<Text::TextWriter>([](Text::Writer& writer) {
                  writer.beginList();
                  writer.record("p", 1, "q", -2);
                  writer.record("p", 3);
                  writer.end();
              }),
              "- p: 1\n  q: -2\n- p: 3\n");
    EXPECT_EQ(told<Text::TextWriter>([](Text::Writer& writer) { writer.value("alone"); }), "alone\n");
    EXPECT_EQ(told<Text::TextWriter>([](Text::Writer& writer) { tellList(writer); }), "");
}

constexpr std::string_view columns[] = {"vrf", "id", "oifs", "on"};

void tellTable(Text::Writer& writer) {
    writer.beginTable(columns);
    writer.beginRecord();
    writer.member("withdrawn", true); // no column
    writer.member("vrf", "default");
    writer.member("id", nullptr);
    writer.field("oifs");
    tellList(writer, "Ethernet1", "Ethernet2");
    writer.field("others");
    tellList(writer, "x");
    writer.member("on", true);
    writer.end();
    writer.beginRecord();
    writer.member("on", false); // in any order
    writer.field("oifs");
    tellList(writer);
    writer.member("vrf", "r\xc3\xa9");
    writer.end();
    writer.beginRecord();
    writer.member("vrf", "");
    writer.member("id", 16777215);
    writer.end();
    writer.end();
}

TEST(PlainText, TablesAreAligned) {
    EXPECT_EQ(told<Text::TextWriter>(tellTable), "VRF      ID        OIFS                 ON\n"
                                                 "default  -         Ethernet1 Ethernet2  yes\n"
                                                 "r\xc3\xa9       -         none                 no\n"
                                                 "-        16777215  -                    -\n");
    EXPECT_EQ(told<Text::TextWriter>([](Text::Writer& writer) {
                  writer.beginRecord();
                  writer.field("rows");
                  writer.beginTable(std::span(columns, 2));
                  writer.record("vrf", "red", "id", 3);
                  writer.end();
                  writer.member("more", false);
                  writer.end();
              }),
              "rows:\n  VRF  ID\n  red  3\nmore: false\n");
    EXPECT_EQ(told<Text::TextWriter>([](Text::Writer& writer) {
                  writer.beginTable(columns);
                  writer.end();
              }),
              "VRF  ID  OIFS  ON\n");
    EXPECT_EQ(json(tellTable).substr(0, 70),
              R"([{"withdrawn":true,"vrf":"default","id":null,"oifs":["Ethernet1","Ethe)");
}

} // namespace
} // namespace TextTest
