// KestrelNat::NatMrouteOifSet: the answer to one mroute request, a set of outgoing interfaces, empty when the
// flow leaves nowhere. A copy shares the array of interfaces (records/IntfSet.h).
#pragma once

#include "records/IntfSet.h"

#include <compare>
#include <cstddef>
#include <string>
#include <string_view>

namespace State {
class TraceReader;
class TraceWriter;
} // namespace State

namespace KestrelNat {

class NatMrouteOifSet {
  public:
    using Element = L3::IntfId;
    static constexpr std::string_view typeName = "KestrelNat::NatMrouteOifSet";

    NatMrouteOifSet() = default;
    explicit NatMrouteOifSet(L3::IntfSet oif)
        : oif_(std::move(oif)) {}
    NatMrouteOifSet(std::initializer_list<L3::IntfId> members)
        : oif_(members) {}
    explicit NatMrouteOifSet(std::string_view text); // fatal: sets are not built from text

    const L3::IntfSet& oif() const { return oif_; }
    bool oifHas(L3::IntfId member) const { return oif_.has(member); }
    /// Inserts if absent.
    void oifIs(L3::IntfId member) { oif_.insert(member); }
    void insert(L3::IntfId member) { oif_.insert(member); }
    /// Inserts all that `other` holds.
    void oifIs(const NatMrouteOifSet& other) { oif_.insertAll(other.oif_); }

    bool empty() const { return oif_.empty(); }
    std::size_t size() const { return oif_.size(); }
    explicit operator bool() const { return !empty(); }
    auto begin() const { return oif_.begin(); }
    auto end() const { return oif_.end(); }

    /// "NatMrouteOifSet {Ethernet1, Ethernet2, }": a separator follows every member, the last one too.
    std::string stringValue() const;
    void traceEncode(State::TraceWriter& writer) const;
    static void traceDecode(State::TraceReader& reader, std::string& out);

    bool operator==(const NatMrouteOifSet&) const = default;
    auto operator<=>(const NatMrouteOifSet&) const = default;

  private:
    L3::IntfSet oif_;
};

} // namespace KestrelNat
