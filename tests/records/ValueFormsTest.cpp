// The text forms of values, byte for byte and back, and what each type refuses.
#include "records/IpGenRouteKey.h"
#include "records/IpMcastKey.h"
#include "records/MrouteGroup.h"
#include "records/NatMrouteKey.h"
#include "records/NatMrouteOifSet.h"
#include "records/OifIndex.h"
#include "records/VrfName.h"
#include "state/Value.h"

#include "tests/TestSeed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using KestrelNat::NatMrouteKey;
using KestrelNat::NatMrouteOifSet;
using KestrelNat::NatRequestType;
using L3::IntfId;
using L3::IpAddr;
using L3::IpGenAddr;
using L3::IpGenPrefix;
using Routing::Multicast::Fib::IpGenRouteKey;

// What() of the error that `body` raises; empty if it raises none.
template <class Body>
std::string refusal(Body body) {
    try {
        body();
    } catch (const State::Error& error) {
        return error.what();
    }
    return "";
}

template <class T>
void expectRoundTrip(const T& value, const std::string& text) {
    EXPECT_EQ(State::valueText(value), text);
    EXPECT_EQ(State::parseValue<T>(text), value);
    EXPECT_EQ(State::fromDatum<T>(State::toDatum(value)), value);
    if constexpr (requires { value.hash(1); }) {
        EXPECT_EQ(State::parseValue<T>(text).hash(1), value.hash(1));
        EXPECT_NE(value.hash(1), value.hash(2));
    }
}

NatMrouteKey request() {
    return {IntfId("Ethernet1"),          3U, 10, IpAddr("10.0.0.1"), IpAddr("239.1.1.1"),
            NatRequestType::mgroupRequest};
}

TEST(ValueForms, OfTheRequestKeyAndTheAnswer) {
    EXPECT_EQ(request().stringValue(),
              "NatMrouteKey (I=Ethernet1, vrfId=3, V=10, S=10.0.0.1, G=239.1.1.1), type=mgroupRequest");
    EXPECT_EQ(State::valueText(NatMrouteKey{}),
              "NatMrouteKey (I=, vrfId=0, V=0, S=0.0.0.0, G=0.0.0.0), type=mrouteRequest");
    NatMrouteKey unknown = request();
    EXPECT_TRUE(unknown.isEq(request()));
    unknown.type = NatRequestType{255};
    EXPECT_FALSE(unknown.isEq(request()));
    EXPECT_TRUE(unknown.stringValue().ends_with("), type=255"));

    NatMrouteOifSet answer;
    EXPECT_EQ(answer.stringValue(), "NatMrouteOifSet {}");
    answer.oifIs(IntfId("ValueForms1"));
    EXPECT_EQ(answer.stringValue(), "NatMrouteOifSet {ValueForms1, }");
    answer.oifIs(IntfId("ValueForms2"));
    answer.oifIs(IntfId("ValueForms1"));
    EXPECT_EQ(State::valueText(answer), "NatMrouteOifSet {ValueForms1, ValueForms2, }");
}

TEST(ValueForms, OfKeysReadBackAsTheyWereWritten) {
    expectRoundTrip(IpGenRouteKey::host(IpAddr("10.0.0.1"), IpAddr("239.1.1.1")),
                    "Routing::Multicast::Fib::IpGenRouteKey(source=10.0.0.1/32, group=239.1.1.1/32)");
    expectRoundTrip(IpGenRouteKey{IpGenPrefix::fromString("0.0.0.0/0"), IpGenPrefix::fromString("ff0e::/16")},
                    "Routing::Multicast::Fib::IpGenRouteKey(source=0.0.0.0/0, group=ff0e::/16)");
    expectRoundTrip(KestrelL3::IpMcastKey{.vrfId = 65535,
                                          .source = IpAddr("10.0.0.1"),
                                          .group = IpGenAddr::fromString("ff0e::1"),
                                          .vlanId = 4094},
                    "KestrelL3::IpMcastKey(vrfId=65535, source=10.0.0.1, group=ff0e::1, vlanId=4094)");
    expectRoundTrip(KestrelCommon::MrouteGroup::Mgroup{.groupId = 4294967295U},
                    "KestrelCommon::MrouteGroup::Mgroup(groupId=4294967295)");
    expectRoundTrip(L3::VrfName("red"), "\"red\"");
    expectRoundTrip(L3::VrfName("\"a\\b\"\n\t\x01\x7f, (c=d)\xc3\xa9"), R"("\"a\\b\"\n\t\x01\x7f, (c=d)é")");
    expectRoundTrip(L3::VrfId(0x00ffffff), "16777215");
    expectRoundTrip(IntfId("Ethernet1"), "Ethernet1");
    expectRoundTrip(IntfId(), "");
    expectRoundTrip(NatRequestType::mgroupRequest, "mgroupRequest");
    expectRoundTrip(NatRequestType{7}, "7");
}

TEST(ValueForms, OfAddressesReadBackAndNormalise) {
    for (const char* text : {"0.0.0.0", "10.0.0.1", "255.255.255.255"}) {
        expectRoundTrip(IpAddr(text), text);
        expectRoundTrip(IpGenAddr(IpAddr(text)), text);
    }
    EXPECT_LT(IpAddr("9.255.255.255"), IpAddr("10.0.0.0"));
    // Shortened as RFC 5952 has it: the longest run of zero groups, the first of equals, never a single one.
    const std::vector<std::pair<std::string, std::string>> forms{
        {"::", "::"},
        {"::1", "::1"},
        {"1::", "1::"},
        {"2001:DB8:0:0:0:0:0:1", "2001:db8::1"},
        {"2001:0db8::0001", "2001:db8::1"},
        {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},
        {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},
        {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},
        {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"},
        {"ff0e:0:0:0:0:0:1:0", "ff0e::1:0"},
    };
    for (const auto& [given, shown] : forms)
        EXPECT_EQ(IpGenAddr::fromString(given).stringValue(), shown);
    const std::uint32_t seed = testSeed();
    SCOPED_TRACE(seedText(seed));
    std::mt19937 random(seed);
    for (int i = 0; i < 2000; ++i) {
        std::array<std::uint8_t, 16> bytes{};
        for (std::size_t group = 0; group < bytes.size(); group += 2) {
            if (random() % 2 == 0) {
                bytes[group] = static_cast<std::uint8_t>(random() % 3);
                bytes[group + 1] = static_cast<std::uint8_t>(random());
            }
        }
        const IpGenAddr address(L3::AddressFamily::ipv6, bytes);
        ASSERT_EQ(IpGenAddr::fromString(address.stringValue()), address) << address.stringValue();
    }
}

template <class T>
std::string parseRefusal(const std::string& text) {
    return refusal([&] { State::parseValue<T>(text); });
}

template <class T>
void expectNone(std::initializer_list<const char*> texts) {
    for (const std::string text : texts)
        EXPECT_EQ(parseRefusal<T>(text), std::string(T::typeName) + ": '" + text + "' is none");
}

TEST(RefusedValues, AreNamedWithTheirTypeAndTheRule) {
    expectNone<IpAddr>({"", "10.0.0", "10.0.0.256", "10.0.0.01", "10.0.0.1 ", " 10.0.0.1", "10.0.0.1.",
                        "10.0.0.-1", "10..0.1", "0x10.0.0.1", "10.0.0.1/32"});
    expectNone<IpGenAddr>({"", ":", "1", "1::2::3", "12345::", "1:2:3:4:5:6:7", "1:2:3:4:5:6:7:8:9",
                           "1:2:3:4:5:6:7:8::", ":1:2:3:4:5:6:7",
                           "1:2:3:4:5:6:7:", ":::", "g::", "::1%eth0"});
    expectNone<IpGenPrefix>(
        {"10.0.0.1", "10.0.0.1/", "10.0.0.1/032", "10.0.0.1/-1", "10.0.0.1/256", "10.0.0.1/3 "});
    for (const char* name : {" ", "a b", "a\t", "\n", "a\x7f", "\x01"}) {
        EXPECT_EQ(refusal([&] { IntfId{name}; }), "L3::IntfId: name '" + std::string(name) +
                                                      "' not allowed: it holds a blank or a control byte");
    }
    for (const char* text : {"red", "\"red", "\"a\\q\"", "\"a\\x1\"", "\"a\\xg0\"", "\"a\"b", "\"a\\"})
        EXPECT_NE(parseRefusal<L3::VrfName>(text), "") << text;
    for (const char* text : {"", "-1", "+1", "x", "1x", "18446744073709551616"})
        EXPECT_NE(parseRefusal<L3::VrfId>(text), "") << text;
    const std::string a64(64, 'a');
    const std::string a101(101, 'a');
    const std::uint64_t names = IntfId::names();
    using Quill::Multicast::Fib::OifIndex;
    const std::pair<std::string, std::string> texts[] = {
        {parseRefusal<IpGenPrefix>("10.0.0.1/33"), "IpGenPrefix::length > 32 not allowed: 10.0.0.1/33"},
        {parseRefusal<IpGenPrefix>("::/129"), "IpGenPrefix::length > 128 not allowed: ::/129"},
        {refusal([&] { L3::VrfName{a101}; }),
         "L3::VrfName::length > 100 not allowed, not 101: \"" + a101 + "\""},
        {refusal([&] { IntfId{a64}; }), "L3::IntfId::length > 63 not allowed, not 64: \"" + a64 + "\""},
        {refusal([&] { IntfId::fromNumber(names + 1); }),
         "L3::IntfId: there is no interface number " + std::to_string(names + 1)},
        {refusal([] { L3::VrfId(0x01000000); }), "VrfId::value > 0x00ffffff not allowed"},
        {refusal([] { L3::VrfId::fromNumber(0x100000000); }), "VrfId::value > 0x00ffffff not allowed"},
        {refusal([] { OifIndex(513); }),
         "Quill::Multicast::Fib::OifIndex::value < Quill::Multicast::Fib::OifIndex::min or > "
         "Quill::Multicast::Fib::OifIndex::null not allowed"},
        {parseRefusal<NatRequestType>("mcastRequest"),
         "KestrelNat::NatRequestType has no enumerator \"mcastRequest\""},
    };
    for (const auto& [refused, text] : texts)
        EXPECT_EQ(refused, text);
    EXPECT_NE(refusal([] { OifIndex::fromNumber(65536); }), "");
    EXPECT_NE(parseRefusal<NatRequestType>("256"), "");
    EXPECT_EQ(IntfId::names(), names); // a refused name takes no number
    EXPECT_DEATH(State::parseValue<NatMrouteOifSet>("NatMrouteOifSet {}"),
                 "No String constructor for NatMrouteOifSet - has collection");
    EXPECT_TRUE(OifIndex(512).isNull() && !OifIndex(0).isNull()); // and what is just allowed
    EXPECT_EQ(L3::VrfName(a101.substr(1)).stringValue().size(), 100U);
    EXPECT_EQ(IntfId(a64.substr(1)).stringValue(), a64.substr(1));
}

TEST(RefusedValues, OfRecordsAreNamedByAttributeAndPlace) {
    const std::string type = "Routing::Multicast::Fib::IpGenRouteKey";
    const auto parse = parseRefusal<IpGenRouteKey>;
    EXPECT_EQ(parse(""), type + ": expected '" + type + "' at column 1 of ''");
    EXPECT_EQ(parse(type + "(source=10.0.0.1/32, group=nobody)"),
              type + ", attribute group: L3::IpGenPrefix: 'nobody' is none");
    EXPECT_TRUE(parse(type + "(source=10.0.0.1/32)")
                    .starts_with(type + ", attribute group: " + type + ": expected ', ' at column "));
    const std::string whole = State::valueText(IpGenRouteKey{});
    EXPECT_TRUE(parse(whole + " ").starts_with(type + ": expected the end at column "));
    for (std::size_t length = 0; length < whole.size(); ++length)
        EXPECT_NE(parse(whole.substr(0, length)), "") << length;

    using State::Datum;
    const std::string key = "KestrelNat::NatMrouteKey";
    const std::tuple<const char*, Datum, std::string> fields[] = {
        {"vlanId", Datum(std::uint64_t{65536}), "uint16 takes no number above 65535, not 65536"},
        {"vlanId", "10", "uint16 takes a number, not a string"},
        {"vlanId", Datum(std::int64_t{-1}), "uint16 takes a number, not a negative number"},
        {"vrfId", Datum(std::uint64_t{0x01000000}), "VrfId::value > 0x00ffffff not allowed"},
        {"intf", Datum(Datum::List{}), "L3::IntfId takes a string, not an array"},
        {"sourceIp", "10.0.0", "L3::IpAddr: '10.0.0' is none"},
        {"type", Datum(true),
         "KestrelNat::NatRequestType takes an enumerator's name or number, not a boolean"},
    };
    for (const auto& [field, content, text] : fields) {
        const Datum record(Datum::Record{{field, content}});
        std::string wanted = key + ", attribute ";
        wanted.append(field).append(": ").append(text);
        EXPECT_EQ(refusal([&] { State::fromDatum<NatMrouteKey>(record); }), wanted);
    }
    EXPECT_EQ(refusal([] {
                  State::fromDatum<NatMrouteKey>(Datum(Datum::Record{{"vrf", Datum("3")}}));
              }),
              key + " has no attribute \"vrf\"");
    EXPECT_EQ(refusal([] { State::fromDatum<NatMrouteKey>(Datum("key")); }),
              key + " takes an object, not a string");
    EXPECT_EQ(refusal([] { State::fromDatum<NatMrouteOifSet>(Datum(Datum::Record{})); }),
              "KestrelNat::NatMrouteOifSet takes an array, not an object");
    NatMrouteKey expected; // fields that are left out keep their defaults
    expected.type = NatRequestType::mgroupRequest;
    EXPECT_EQ(State::fromDatum<NatMrouteKey>(Datum(Datum::Record{{"type", "mgroupRequest"}})), expected);
}

} // namespace
