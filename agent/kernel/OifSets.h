// Sets of outgoing interfaces, each held once however many routes have it.
//
// Routes by the hundred thousand share a few dozen sets. So a route holds an OifSet, a counted pointer into the
// pool; two are equal when their pointers are; and the names of its interfaces, with which the sink is told of a
// route, are put together once a set. Each Mirror owns a pool, which outlives its routes. Read next: Interfaces.h.
#pragma once

#include "agent/host/RouteSource.h"
#include "state/Handle.h"

#include <cstdint>
#include <map>
#include <span>
#include <vector>

namespace Agent::Kernel {

class Interfaces;
class OifSets;

/// One set of ifindexes, sorted, without repetitions.
class OifSet {
  public:
    /// The empty one.
    OifSet() = default;

    bool operator==(const OifSet&) const = default;
    std::span<const int> members() const;
    bool contains(int ifindex) const;

  private:
    friend class OifSets;
    struct Node;

    explicit OifSet(State::Handle<Node> node)
        : node_(std::move(node)) {}

    State::Handle<Node> node_; // null: empty
};

class OifSets {
  public:
    OifSets() = default;
    OifSets(const OifSets&) = delete;
    OifSets& operator=(const OifSets&) = delete;

    /// @param members in any order, possibly repeated; sorted by the call.
    OifSet get(std::vector<int>& members);
    OifSet get(std::span<const Oif> members);

    /// The members that interfaces has a name for; these are marked as told, the others as missing. The span
    /// stands until the interfaces change or the last holder of the set goes.
    std::span<const Oif> named(const OifSet& set, Interfaces& interfaces);

    /// Whether any set in use has the interface.
    bool uses(int ifindex) const;

  private:
    friend class OifSet;

    std::map<std::vector<int>, OifSet::Node*> nodes_; // by members; those that someone holds
};

struct OifSet::Node final : State::RefCounted {
    explicit Node(OifSets& owner)
        : pool(owner) {}
    ~Node() override { pool.nodes_.erase(at); }

    OifSets& pool;
    std::map<std::vector<int>, Node*>::iterator at; // its place in the pool, where its members are
    std::uint64_t namedAt = 0; // the version of the interfaces that `named` is of; 0 is none
    std::vector<Oif> named;    // the members with their names
};

inline std::span<const int> OifSet::members() const {
    return node_ ? std::span<const int>(node_->at->first) : std::span<const int>();
}

} // namespace Agent::Kernel
