// Entities and values as an agent meets them: found by name, read and written as plain data.
#include "records/LumenFib.h"
#include "records/MrouteGroup.h"
#include "records/NatMgroup.h"
#include "records/NatMroute.h"
#include "records/NatStatus.h"
#include "records/QuillFib.h"
#include "records/RouteStatus.h"
#include "state/Entity.h"
#include "state/Errors.h"
#include "state/ValueType.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace {

using State::Attribute;
using State::Datum;
using State::EntityType;

// "ATTRIBUTE" for each change of an entity, in order.
class Heard {
  public:
    explicit Heard(const State::Entity& entity)
        : entity_(entity) {
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
    }
    const State::Entity& entity_;
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

TEST(Reflection, FindsEveryTypeByItsQualifiedName) {
    for (const char* name :
         {"L3::VrfName", "L3::VrfId", "L3::IpAddr", "L3::IpGenAddr", "L3::IpGenPrefix", "L3::IntfId",
          "L3::IntfSet", "KestrelNat::NatMrouteKey", "KestrelNat::NatRequestType",
          "KestrelNat::NatMrouteOifSet", "KestrelL3::IpMcastKey", "KestrelCommon::MrouteGroup::MgroupItem",
          "Routing::Multicast::Fib::IpGenRouteKey", "Quill::Multicast::Fib::OifIndex",
          "Quill::Multicast::Fib::OifIndexList", "Quill::Multicast::Fib::Route",
          "Lumen::Multicast::Fib::MfibVrfName"}) {
        const State::ValueType* type = State::findValueType(name);
        ASSERT_NE(type, nullptr) << name;
        EXPECT_EQ(type->name, name);
    }
    // Attributes in declared order, as "name kind key value/member".
    const std::map<std::string, Names> entities{
        {"Routing::Hardware::RouteStatus", {"vrfStatus members L3::VrfName Routing::Hardware::VrfStatus"}},
        {"Routing::Hardware::VrfStatus", {"vrfId value - uint32"}},
        {"Routing::Multicast::Fib::VrfEnabledStatus", {"vrfEnabled map L3::VrfName bool"}},
        {"Quill::Multicast::Fib::Status",
         {"route map Routing::Multicast::Fib::IpGenRouteKey Quill::Multicast::Fib::Route",
          "oifIndexIntf map Quill::Multicast::Fib::OifIndex L3::IntfId"}},
        {"Lumen::Multicast::Fib::StatusByVrf",
         {"status members Lumen::Multicast::Fib::MfibVrfName Lumen::Multicast::Fib::Status"}},
        {"Lumen::Multicast::Fib::Status",
         {"route members Routing::Multicast::Fib::IpGenRouteKey Lumen::Multicast::Fib::Route"}},
        {"Lumen::Multicast::Fib::Route",
         {"intf value - L3::IntfSet", "ready value - uint32", "version value - uint32"}},
        {"KestrelNat::NatMrouteRequestSet", {"mrouteReq set KestrelNat::NatMrouteKey -"}},
        {"KestrelNat::NatMrouteResponseMap",
         {"mrouteResp map KestrelNat::NatMrouteKey KestrelNat::NatMrouteOifSet"}},
        {"KestrelNat::NatMgroupRequestSet", {"mgroupReq set KestrelNat::NatMrouteKey -"}},
        {"KestrelNat::NatMgroupResponseMap", {"mgroupId map KestrelNat::NatMrouteKey uint32"}},
        {"KestrelNat::MulticastSmStatus", {"mrouteSmReady value - bool", "mgroupSmReady value - bool"}},
        {"KestrelNat::CapabilityConfig", {"egressFromAllVrfs value - bool"}},
        {"KestrelCommon::MrouteGroup::MrouteColl", {"mroutes set KestrelL3::IpMcastKey -"}},
        {"KestrelCommon::MrouteGroup::MgroupColl",
         {"mgroups map KestrelL3::IpMcastKey KestrelCommon::MrouteGroup::MgroupItem"}},
    };
    for (const auto& [name, expected] : entities) {
        const EntityType* type = EntityType::find(name);
        ASSERT_NE(type, nullptr) << name;
        Names found;
        for (const auto& each : type->attributes()) {
            const char* kinds[] = {"value", "set", "map", "members"};
            const std::string key(each->keyType() == nullptr ? "-" : each->keyType()->name);
            const std::string value(each->memberType() != nullptr  ? each->memberType()->name()
                                    : each->valueType() != nullptr ? each->valueType()->name
                                                                   : "-");
            EXPECT_EQ(type->attribute(each->id()), each.get());
            std::string line(each->name());
            line.append(" ").append(kinds[static_cast<int>(each->kind())]);
            line.append(" ").append(key).append(" ").append(value);
            found.push_back(line);
        }
        EXPECT_EQ(found, expected) << name;
    }
    EXPECT_EQ(EntityType::find("Routing::Hardware::Nothing"), nullptr);
    EXPECT_THROW(Routing::Hardware::VrfStatus::type().create("red"), State::CreationError);
}

TEST(Reflection, SetsMembersOfASet) {
    const auto requests = State::makeHandle<KestrelNat::NatMrouteRequestSet>();
    const Attribute& mrouteReq = attribute(*requests, "mrouteReq");
    const Heard heard(*requests);
    EXPECT_TRUE(mrouteReq.set(*requests, &requestKey, nullptr));
    EXPECT_FALSE(mrouteReq.set(*requests, &requestKey, nullptr));
    EXPECT_TRUE(mrouteReq.find(*requests, requestKey).has_value());
    EXPECT_TRUE(requests->mrouteReqHas(State::fromDatum<KestrelNat::NatMrouteKey>(requestKey)));
    struct : State::MemberVisitor {
        std::vector<Datum> keys;
        bool member(const Datum& key, const Datum& value) override {
            keys.push_back(key);
            return value.isNull();
        }
    } visitor;
    mrouteReq.walk(*requests, nullptr, visitor);
    EXPECT_EQ(visitor.keys, std::vector<Datum>{requestKey});
    mrouteReq.walk(*requests, &requestKey, visitor); // nothing is behind it
    EXPECT_EQ(visitor.keys.size(), 1U);
    EXPECT_TRUE(mrouteReq.del(*requests, requestKey));
    EXPECT_FALSE(mrouteReq.del(*requests, requestKey));
    EXPECT_EQ(heard.attributes, (Names{"mrouteReq", "mrouteReq"}));

    const Datum value(true);
    const Datum wrongVrf = record({{"vrfId", number(0x01000000)}});
    EXPECT_EQ(refusal(*requests, "mrouteReq", &wrongVrf, nullptr),
              "KestrelNat::NatMrouteKey, attribute vrfId: VrfId::value > 0x00ffffff not allowed");
    EXPECT_EQ(refusal(*requests, "mrouteReq", &requestKey, &value),
              "attribute mrouteReq cannot be written with a value: it is a set");
    EXPECT_EQ(refusal(*requests, "mrouteReq", nullptr, nullptr),
              "attribute mrouteReq cannot be written without a key");
}

TEST(Reflection, SetsMembersOfAMap) {
    const auto table = State::makeHandle<Quill::Multicast::Fib::Status>("static");
    const Attribute& route = attribute(*table, "route");
    const Attribute& oifIndexIntf = attribute(*table, "oifIndexIntf");
    const Heard heard(*table);
    const Datum oifs = record({{"oifs", Datum(Datum::List{number(1), number(2)})}});
    const Datum index = number(1);
    const Datum intf("Ethernet1");
    EXPECT_TRUE(route.set(*table, &routeKey, &oifs));
    EXPECT_FALSE(route.set(*table, &routeKey, &oifs));
    EXPECT_TRUE(oifIndexIntf.set(*table, &index, &intf));
    EXPECT_EQ(route.find(*table, routeKey), oifs);
    EXPECT_EQ(oifIndexIntf.find(*table, index), intf);
    EXPECT_EQ(table->intf(1), L3::IntfId("Ethernet1"));
    EXPECT_EQ(heard.attributes, (Names{"route", "oifIndexIntf"}));

    const Datum wrongIndex = number(513);
    const Datum wrongName("Ethernet 1");
    const Datum wrongOifs = record({{"oifs", Datum(Datum::List{number(65536)})}});
    const Datum wrongField = record({{"intf", Datum(Datum::List{})}});
    EXPECT_NE(refusal(*table, "oifIndexIntf", &wrongIndex, &intf), "");
    EXPECT_NE(refusal(*table, "oifIndexIntf", &index, &wrongName), "");
    EXPECT_EQ(refusal(*table, "oifIndexIntf", &index, nullptr),
              "attribute oifIndexIntf cannot be written without a value");
    EXPECT_EQ(refusal(*table, "route", &routeKey, &wrongOifs),
              "Quill::Multicast::Fib::Route, attribute oifs: uint16 takes no number above 65535, not 65536");
    EXPECT_EQ(refusal(*table, "route", &routeKey, &wrongField),
              "Quill::Multicast::Fib::Route has no attribute \"intf\"");
    EXPECT_EQ(route.find(*table, routeKey), oifs);
    EXPECT_EQ(oifIndexIntf.find(*table, index), intf);
}

TEST(Reflection, SetsAValueWithoutAKey) {
    const auto config = State::makeHandle<KestrelNat::CapabilityConfig>();
    const Attribute& all = attribute(*config, "egressFromAllVrfs");
    const Heard heard(*config);
    const Datum on(true);
    const Datum wrong = number(1);
    EXPECT_TRUE(all.set(*config, nullptr, &on));
    EXPECT_FALSE(all.set(*config, nullptr, &on));
    EXPECT_EQ(all.value(*config), on);
    EXPECT_EQ(heard.attributes, Names{"egressFromAllVrfs"});
    EXPECT_EQ(refusal(*config, "egressFromAllVrfs", nullptr, &wrong),
              "bool takes true or false, not a number");
    EXPECT_EQ(refusal(*config, "egressFromAllVrfs", &on, &on),
              "attribute egressFromAllVrfs cannot be written by key");
    EXPECT_EQ(refusal(*config, "egressFromAllVrfs", nullptr, nullptr),
              "attribute egressFromAllVrfs cannot be written without a value");
    EXPECT_THROW(all.del(*config, on), State::ParseError);
}

TEST(Reflection, ANewMemberIsOneChangeAndAnExistingOneChangesInPlace) {
    const auto routeStatus = State::makeHandle<Routing::Hardware::RouteStatus>();
    const Attribute& vrfStatus = attribute(*routeStatus, "vrfStatus");
    const Datum red("red");
    const Datum three = record({{"vrfId", number(3)}});
    Heard heard(*routeStatus);
    unsigned idAtInsertion = 0;
    struct Insertion {
        const Routing::Hardware::RouteStatus& status;
        unsigned& id;
        static void hear(void* self, const State::Notification& change) {
            auto& [status, id] = *static_cast<Insertion*>(self);
            id = status.vrfStatus(change.keyAs<L3::VrfName>())->vrfId();
        }
    } insertion{*routeStatus, idAtInsertion};
    routeStatus->subscribe(&insertion, &Insertion::hear);
    EXPECT_TRUE(vrfStatus.set(*routeStatus, &red, &three));
    EXPECT_EQ(idAtInsertion, 3U); // filled in before it is inserted
    EXPECT_EQ(heard.attributes, Names{"vrfStatus"});

    const auto member = routeStatus->vrfStatus("red");
    const Datum four = record({{"vrfId", number(4)}});
    const Heard memberHeard(*member);
    EXPECT_TRUE(vrfStatus.set(*routeStatus, &red, &four));
    EXPECT_FALSE(vrfStatus.set(*routeStatus, &red, &four));
    EXPECT_FALSE(vrfStatus.set(*routeStatus, &red, nullptr)); // no field is given
    EXPECT_EQ(routeStatus->vrfStatus("red"), member);
    EXPECT_EQ(memberHeard.attributes, Names{"vrfId"});
    EXPECT_EQ(heard.attributes, Names{"vrfStatus"});
    EXPECT_EQ(vrfStatus.find(*routeStatus, red), four);
    EXPECT_EQ(vrfStatus.member(*routeStatus, red), member);

    const Datum tooLong(std::string(101, 'a'));
    const Datum wrongField = record({{"id", number(4)}});
    EXPECT_NE(refusal(*routeStatus, "vrfStatus", &tooLong, &three), "");
    EXPECT_EQ(refusal(*routeStatus, "vrfStatus", &red, &wrongField),
              "Routing::Hardware::VrfStatus has no attribute \"id\"");
    routeStatus->unsubscribe(&insertion, &Insertion::hear);
}

TEST(Reflection, ARouteOfTheLumenFibAdvancesItsVersionLast) {
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
