// The group tables and their key: MrouteGroup.h, IpMcastKey.h.
#include "records/MrouteGroup.h"

#include "state/Attribute.h"

namespace KestrelL3 {

std::uint32_t IpMcastKey::hash(std::uint32_t seed) const {
    State::Hasher hasher(seed);
    source.mixInto(hasher);
    group.mixInto(hasher);
    return hasher.mix(static_cast<std::uint32_t>(vrfId) << 16 | vlanId).result();
}

STATE_VALUE_TYPE(IpMcastKey);

} // namespace KestrelL3

namespace KestrelCommon::MrouteGroup {

MrouteColl::Rows::Rows(MrouteColl& table)
    : SetAttribute(table, mroutesAttribute,
                   State::seedConstant("KestrelCommon::MrouteGroup::MrouteColl::mroutes"))
    , table_(table) {}

bool MrouteColl::Rows::is(const Key& key) {
    return (has(key) || table_.roomFor(size())) && SetAttribute::is(key);
}

const State::EntityType& MrouteColl::type() {
    static const State::EntityType made(
        "KestrelCommon::MrouteGroup::MrouteColl", &State::createEntity<MrouteColl>,
        State::attributes(State::setAttribute<MrouteColl>(
            "mroutes", mroutesAttribute, [](auto& entity) -> auto& { return entity.mroutesCollection(); })));
    return made;
}

const State::EntityType& MgroupColl::type() {
    static const State::EntityType made(
        "KestrelCommon::MrouteGroup::MgroupColl", &State::createEntity<MgroupColl>,
        State::attributes(State::mapAttribute<MgroupColl>(
            "mgroups", mgroupsAttribute, [](auto& entity) -> auto& { return entity.mgroupsCollection(); })));
    return made;
}

STATE_VALUE_TYPE(Mgroup);
STATE_ENTITY_TYPE(MrouteColl);
STATE_ENTITY_TYPE(MgroupColl);

} // namespace KestrelCommon::MrouteGroup
