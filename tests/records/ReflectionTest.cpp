// Entities and values as an agent meets them: found by name, read and written as plain data.
#include "records/LumenFib.h"
#include "records/NatMroute.h"
#include "records/NatStatus.h"
#include "records/QuillFib.h"
#include "records/RouteStatus.h"
#include "state/Entity.h"
#include "state/Errors.h"
#include "state/ValueType.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace {

using State::Attribute;
using State::Datum;

// The attribute's name for each change of an entity, in order; `body` is called with each.
class Heard {
  public:
    using Body = std::function<void(const State::Notification&)>;
    explicit Heard(const State::Entity& entity, Body body = {})
        : entity_(entity)
        , body_(std::move(body)) {
        entity_.subscribe(this, &dispatch);
    }
    ~Heard() { entity_.unsubscribe(this, &dispatch); }
    Heard(const Heard&) = delete;
    Heard& operator=(const Heard&) = delete;

    std::vector<std::string> attributes;

  private:
    static void dispatch(void* self, const State::Notification& change) {
        auto& heard = *static_cast<Heard*>(self);
        heard.attributes.emplace_back(heard.entity_.entityType().attribute(change.attribute)->name());
        if (heard.body_)
            heard.body_(change);
    }
    const State::Entity& entity_;
    Body body_;
};
using Names = std::vector<std::string>;

const Attribute& attribute(const State::Entity& entity, std::string_view name) {
    return *entity.entityType().attribute(name);
}
Datum number(std::uint64_t value) {
    return Datum(value);
}
Datum record(Datum::Record fields) {
    return Datum(std::move(fields));
}
// The error of a write, which must have changed nothing.
std::string refusal(State::Entity& entity, std::string_view name, const Datum* key, const Datum* value) {
    const Heard heard(entity);
    const std::size_t before = attribute(entity, name).size(entity);
    std::string text;
    try {
        attribute(entity, name).set(entity, key, value);
    } catch (const State::Error& error) {
        text = error.what();
    }
    EXPECT_TRUE(heard.attributes.empty());
    EXPECT_EQ(attribute(entity, name).size(entity), before);
    return text;
}

const Datum requestKey = record({{"intf", "Ethernet5"},
                                 {"vrfId", number(3)},
                                 {"vlanId", number(10)},
                                 {"sourceIp", "10.0.0.1"},
                                 {"groupIp", "239.1.1.1"},
                                 {"type", "mrouteRequest"}});
const Datum routeKey = record({{"source", "10.0.0.1/32"}, {"group", "239.1.1.1/32"}});

TEST(Reflection, WritesChangeOnceAndRefusedOnesNothing) {
    const auto requests = State::makeHandle<KestrelNat::NatMrouteRequestSet>();
    const auto table = State::makeHandle<Quill::Multicast::Fib::Status>("static");
    const auto config = State::makeHandle<KestrelNat::CapabilityConfig>();
    const Datum oifs = record({{"oifs", Datum(Datum::List{number(1), number(2)})}});
    const Datum index = number(1);
    const Datum intf("Ethernet1");
    const Datum on(true);
    struct Write {
        State::Entity& entity;
        const char* name;
        const Datum* key;
        const Datum* value;
    };
    for (const auto& [entity, name, key, value] : {Write{*requests, "mrouteReq", &requestKey, nullptr},
                                                   {*table, "route", &routeKey, &oifs},
                                                   {*table, "oifIndexIntf", &index, &intf},
                                                   {*config, "egressFromAllVrfs", nullptr, &on}}) {
        SCOPED_TRACE(name);
        const Attribute& written = attribute(entity, name);
        const Heard heard(entity);
        EXPECT_TRUE(written.set(entity, key, value));
        EXPECT_FALSE(written.set(entity, key, value));
        EXPECT_EQ(key == nullptr ? written.value(entity) : *written.find(entity, *key),
                  value == nullptr ? Datum() : *value);
        EXPECT_EQ(heard.attributes, Names{name});
    }
    EXPECT_EQ(table->intf(1), L3::IntfId("Ethernet1"));
    EXPECT_TRUE(requests->mrouteReqHas(State::fromDatum<KestrelNat::NatMrouteKey>(requestKey)));
    EXPECT_TRUE(attribute(*requests, "mrouteReq").del(*requests, requestKey));
    EXPECT_FALSE(attribute(*requests, "mrouteReq").del(*requests, requestKey));
    EXPECT_THROW(attribute(*config, "egressFromAllVrfs").del(*config, on), State::ParseError);

    const Datum wrongVrf = record({{"vrfId", number(0x01000000)}});
    const Datum wrongIndex = number(513);
    const Datum wrongOifs = record({{"oifs", Datum(Datum::List{number(65536)})}});
    const Datum broken(1.5);
    const Datum huge(1e20);
    const std::string cannot = " cannot be written ";
    const std::string oifIndex = "Quill::Multicast::Fib::OifIndex";
    struct Refused {
        Write write;
        std::string text;
    };
    for (const auto& [write, text] : {
             Refused{{*requests, "mrouteReq", &wrongVrf, nullptr},
                     "KestrelNat::NatMrouteKey, attribute vrfId: VrfId::value > 0x00ffffff not allowed"},
             {{*requests, "mrouteReq", &requestKey, &on},
              "attribute mrouteReq" + cannot + "with a value: it is a set"},
             {{*requests, "mrouteReq", nullptr, nullptr}, "attribute mrouteReq" + cannot + "without a key"},
             {{*table, "oifIndexIntf", &wrongIndex, &intf},
              "Quill::Multicast::Fib::OifIndex::value < Quill::Multicast::Fib::OifIndex::min or > "
              "Quill::Multicast::Fib::OifIndex::null not allowed"},
             {{*table, "oifIndexIntf", &index, nullptr},
              "attribute oifIndexIntf" + cannot + "without a value"},
             {{*table, "oifIndexIntf", &broken, &intf}, oifIndex + " takes a number, not 1.5"},
             {{*table, "oifIndexIntf", &huge, &intf}, oifIndex + " takes a number, not 1e+20"},
             {{*table, "oifIndexIntf", &index, &broken}, "L3::IntfId takes a string, not 1.5"},
             {{*table, "route", &routeKey, &wrongOifs},
              "Quill::Multicast::Fib::Route, attribute oifs: uint16 takes no number above 65535, not 65536"},
             {{*config, "egressFromAllVrfs", nullptr, &index}, "bool takes true or false, not a number"},
             {{*config, "egressFromAllVrfs", &on, &on}, "attribute egressFromAllVrfs" + cannot + "by key"},
         })
        EXPECT_EQ(refusal(write.entity, write.name, write.key, write.value), text);
    EXPECT_EQ(table->oifIndexIntfCollection().size(), 1U);
}

TEST(Reflection, ANewMemberIsOneChange) {
    const auto routeStatus = State::makeHandle<Routing::Hardware::RouteStatus>();
    const Attribute& vrfStatus = attribute(*routeStatus, "vrfStatus");
    const Datum red("red");
    const Datum three = record({{"vrfId", number(3)}});
    unsigned idAtInsertion = 0;
    const Heard heard(*routeStatus, [&](const State::Notification& change) {
        idAtInsertion = routeStatus->vrfStatus(change.keyAs<L3::VrfName>())->vrfId();
    });
    EXPECT_TRUE(vrfStatus.set(*routeStatus, &red, &three));
    EXPECT_EQ(idAtInsertion, 3U); // filled in before it is inserted
    EXPECT_EQ(heard.attributes, Names{"vrfStatus"});
    EXPECT_EQ(vrfStatus.find(*routeStatus, red), three);

    const Datum tooLong(std::string(101, 'a'));
    const Datum wrongField = record({{"id", number(4)}});
    EXPECT_NE(refusal(*routeStatus, "vrfStatus", &tooLong, &three), "");
    EXPECT_EQ(refusal(*routeStatus, "vrfStatus", &red, &wrongField),
              "Routing::Hardware::VrfStatus has no attribute \"id\"");

    // Made first and inserted by hand: for who looks at a member before it is there.
    const Datum blue("blue");
    idAtInsertion = 0;
    const auto made = vrfStatus.memberMade(*routeStatus, blue);
    EXPECT_FALSE(routeStatus->vrfStatusHas("blue"));
    EXPECT_TRUE(made->entityType().setFields(*made, three));
    vrfStatus.memberIs(*routeStatus, blue, made);
    EXPECT_EQ(vrfStatus.member(*routeStatus, blue), made);
    EXPECT_EQ(idAtInsertion, 3U);
    EXPECT_EQ(heard.attributes, (Names{"vrfStatus", "vrfStatus"}));
    EXPECT_THROW(vrfStatus.memberIs(*routeStatus, blue, routeStatus), State::ParseError); // no VrfStatus
    EXPECT_THROW(attribute(*made, "vrfId").memberMade(*made, blue), State::ParseError);
    EXPECT_THROW(attribute(*made, "vrfId").memberIs(*made, blue, made), State::ParseError);
}

TEST(Reflection, AnExistingMemberChangesInPlaceAndAdvancesItsVersionLast) {
    const auto fib = State::makeHandle<Lumen::Multicast::Fib::Status>("user");
    const Attribute& route = attribute(*fib, "route");
    const Datum one = record({{"intf", Datum(Datum::List{"Ethernet1"})}});
    EXPECT_TRUE(route.set(*fib, &routeKey, &one));
    const auto member = fib->route(State::fromDatum<Routing::Multicast::Fib::IpGenRouteKey>(routeKey));
    ASSERT_TRUE(member);
    EXPECT_TRUE(member->ready() == 1 && member->version() == 0 && member->intf().size() == 1);

    const Heard heard(*fib);
    const Heard memberHeard(*member);
    // Written in declared order, whatever the order given.
    const Datum both = record({{"ready", number(0)}, {"intf", Datum(Datum::List{"Ethernet2"})}});
    EXPECT_TRUE(route.set(*fib, &routeKey, &both));
    EXPECT_EQ(memberHeard.attributes, (Names{"intf", "ready", "version"}));
    EXPECT_EQ(member->version(), 1U);
    EXPECT_FALSE(route.set(*fib, &routeKey, &both));
    EXPECT_FALSE(route.set(*fib, &routeKey, nullptr)); // no field is given
    EXPECT_EQ(route.member(*fib, routeKey), member);
    EXPECT_EQ(member->version(), 1U);
    EXPECT_TRUE(heard.attributes.empty());

    // One bad field refuses them all.
    const Datum halfWrong = record({{"intf", Datum(Datum::List{"Ethernet3"})}, {"ready", "yes"}});
    EXPECT_EQ(refusal(*fib, "route", &routeKey, &halfWrong),
              "Lumen::Multicast::Fib::Route, attribute ready: uint32 takes a number, not a string");
    EXPECT_EQ(member->intf(), (L3::IntfSet{L3::IntfId("Ethernet2")}));

    const auto byVrf = State::makeHandle<Lumen::Multicast::Fib::StatusByVrf>("sparsemode");
    const Datum red("red");
    EXPECT_TRUE(attribute(*byVrf, "status").set(*byVrf, &red, nullptr));
    EXPECT_EQ(byVrf->status(Lumen::Multicast::Fib::MfibVrfName("red"))->name(),
              "sparsemode"); // by route type
    EXPECT_EQ(Lumen::Multicast::Fib::StatusByVrf::mountPath(L3::AddressFamily::ipv4, "user"),
              "lumen/multicast/fib/ipv4/user");
}

} // namespace
