#include "agent/changes/NameSweep.h"

#include "state/Trace.h"
#include "state/ValueType.h"

#include <algorithm>

TRACE_FACILITY("Agent");

namespace Agent {

namespace {

using State::AttributeKind;
using State::Datum;
using State::EntityType;
using State::ValueType;

// A search of large stores takes a tenth of the time at most.
constexpr std::chrono::seconds shortestPause(1);
constexpr int pauseFactor = 9;

// Whether values of the type hold interfaces, or those of the attribute, its members' among them.
bool holdsInterfaces(const ValueType* type) {
    return type != nullptr && (type->name == L3::IntfId::typeName || holdsInterfaces(type->element) ||
                               std::ranges::any_of(type->fields, [](const auto& field) {
                                   return holdsInterfaces(field.second);
                               }));
}

bool holdsInterfaces(const State::Attribute& attribute) {
    return holdsInterfaces(attribute.keyType()) || holdsInterfaces(attribute.valueType()) ||
           (attribute.memberType() != nullptr &&
            std::ranges::any_of(attribute.memberType()->attributes(),
                                [](const auto& ofMember) { return holdsInterfaces(*ofMember); }));
}

void collect(const Datum& value, const ValueType* type, L3::IntfUnion& carried) {
    if (!holdsInterfaces(type))
        return;
    if (type->name == L3::IntfId::typeName) {
        if (const auto known = L3::IntfId::find(*value.text()))
            carried.add(*known);
    } else if (type->element != nullptr) {
        for (const Datum& element : *value.list())
            collect(element, type->element, carried);
    } else {
        for (std::size_t i = 0; i < type->fields.size(); ++i) // the record has all, in their order
            collect((*value.record())[i].second, type->fields[i].second, carried);
    }
}

// @param fields of an entity of the type: its value attributes, in their order.
void collectFields(const Datum& fields, const EntityType& type, L3::IntfUnion& carried) {
    auto field = fields.record()->begin();
    for (const auto& attribute : type.attributes())
        if (attribute->kind() == AttributeKind::value)
            collect((field++)->second, attribute->valueType(), carried);
}

void collectMembers(const State::Entity& entity, L3::IntfUnion& carried) {
    for (const auto& attribute : entity.entityType().attributes()) {
        if (attribute->kind() == AttributeKind::value || !holdsInterfaces(*attribute))
            continue;
        const EntityType* members = attribute->memberType();
        const bool isDeeper =
            members != nullptr && std::ranges::any_of(members->attributes(), [](const auto& ofMember) {
                return ofMember->kind() != AttributeKind::value && holdsInterfaces(*ofMember);
            });
        attribute->walk(entity, nullptr, [&](const Datum& key, const Datum& value) {
            collect(key, attribute->keyType(), carried);
            if (members == nullptr)
                collect(value, attribute->valueType(), carried);
            else
                collectFields(value, *members, carried);
            if (isDeeper)
                collectMembers(*attribute->member(entity, key), carried);
            return true;
        });
    }
}

} // namespace

std::size_t NameSweep::sweep() {
    const Clock::time_point begin = Clock::now();
    if (begin < notBefore_)
        return 0;
    L3::IntfUnion carried;
    for (const auto& store : {stores_.database, stores_.tables, stores_.entities})
        for (const auto& [path, entity] : store->entities()) {
            collectFields(entity->entityType().fields(*entity), entity->entityType(), carried);
            collectMembers(*entity, carried);
        }
    for (const Holder& holder : holders_)
        holder(carried);
    const std::size_t count =
        L3::IntfId::sweep([inUse = carried.take()](L3::IntfId intf) { return inUse.has(intf); });
    TRACE(6, "NameSweep::", "sweep", " swept=", count, " names=", L3::IntfId::names());
    ++sweeps_;
    swept_ += count;
    const Clock::time_point end = Clock::now();
    notBefore_ = end + std::max<Clock::duration>(pauseFactor * (end - begin), shortestPause);
    return count;
}

} // namespace Agent
