#include "KestrelNat/KestrelNatMulticastSm/NatMrouteMatcher.h"

#include "KestrelNat/KestrelNatMulticastSm/Requesters.h"
#include "state/Fatal.h"
#include "state/TypeRegistry.h"
#include "state/ValueType.h"

namespace KestrelNat {

NatMrouteMatcher::MrouteKeySet::MrouteKeySet(std::string_view) {
    State::fatal("No String constructor for MrouteKeySet - has collection", __FILE__, __LINE__,
                 __PRETTY_FUNCTION__);
}

State::Handle<NatMrouteMatcher> NatMrouteMatcher::NatMrouteMatcherIs() {
    return State::makeHandle<NatMrouteMatcher>();
}

State::Handle<NatMrouteMatcher> natMrouteMatcherFactory() {
    return NatMrouteMatcher::NatMrouteMatcherIs();
}

void NatMrouteMatcher::add(const MrouteSourceAndGroup& sg, const NatMrouteKey& key) {
    edit(sg,
         [&](MrouteKeySet& keys) { return editSet(keys, [&](MrouteKeySet& set) { set.mrouteKeyIs(key); }); });
}

void NatMrouteMatcher::remove(const MrouteSourceAndGroup& sg, const NatMrouteKey& key) {
    edit(sg, [&](MrouteKeySet& keys) {
        return editSet(keys, [&](MrouteKeySet& set) { set.mrouteKeyDel(key); });
    });
}

// The source is looked at first: a request for any source and any group is filed under the group 0.0.0.0,
// where only routes of that group find it. This is meant; request handling and route updates count on the
// same precedence.
template <class Change>
void NatMrouteMatcher::edit(const MrouteSourceAndGroup& sg, Change change) {
    if (sg.sourceIp.isZero())
        groupsWithAnySource_.edit(sg.groupIp, change);
    else if (sg.groupIp.isZero())
        sourcesWithAnyGroup_.edit(sg.sourceIp, change);
    else
        sourceGroups_.edit(sg, change);
}

bool NatMrouteMatcher::matches(const MrouteSourceAndGroup& sg) const {
    return groupsWithAnySource_.has(sg.groupIp) || sourcesWithAnyGroup_.has(sg.sourceIp) ||
           sourceGroups_.has(sg);
}

NatMrouteMatcher::Waiting NatMrouteMatcher::waiting(const MrouteSourceAndGroup& sg) const {
    const bool anySource = groupsWithAnySource_.has(sg.groupIp);
    const bool anyGroup = sourcesWithAnyGroup_.has(sg.sourceIp);
    // A flow that itself stands for any source or any group is filed there.
    const bool own = sg.sourceIp.isZero()  ? anySource
                     : sg.groupIp.isZero() ? anyGroup
                                           : sourceGroups_.has(sg);
    return {.own = own, .anySource = anySource, .anyGroup = anyGroup};
}

bool NatMrouteMatcher::empty() const {
    return sourceGroups_.size() == 0 && groupsWithAnySource_.size() == 0 && sourcesWithAnyGroup_.size() == 0;
}

STATE_FACTORY("KestrelNat::NatMrouteMatcher", &natMrouteMatcherFactory);
STATE_VALUE_TYPE(NatMrouteMatcher::MrouteKeySet);

} // namespace KestrelNat
