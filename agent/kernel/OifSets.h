// Sets of outgoing interfaces, each held once however many routes have it.
//
// Routes by the hundred thousand share a few dozen sets. So a route holds an OifSet, a counted pointer into
// the pool; two are equal when their pointers are; and what a route is told with, the names of its
// interfaces, is built once a set. Each MfcMirror owns a pool that outlives its routes. Read next:
// Interfaces.h.
#pragma once

#include "agent/kernel/KernelSink.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <unordered_set>
#include <utility>
#include <vector>

namespace Agent::Kernel {

class Interfaces;
class OifSets;

/// One set of ifindexes, sorted, without repetitions; null is the empty one.
class OifSet {
  public:
    OifSet() = default;
    OifSet(const OifSet& other)
        : node_(other.node_) {
        if (node_)
            ++node_->holders;
    }
    OifSet(OifSet&& other) noexcept
        : node_(std::exchange(other.node_, nullptr)) {}
    OifSet& operator=(OifSet other) noexcept {
        std::swap(node_, other.node_);
        return *this;
    }
    ~OifSet() {
        if (node_ && --node_->holders == 0)
            drop();
    }

    bool operator==(const OifSet&) const = default;
    bool empty() const { return !node_; }
    std::span<const int> members() const {
        return node_ ? std::span<const int>(node_->members) : std::span<const int>();
    }
    bool contains(int ifindex) const;

  private:
    friend class OifSets;
    struct Node {
        OifSets* pool = nullptr;
        std::size_t hash = 0;
        std::uint32_t holders = 0;
        std::vector<int> members;
        // The members with their names, as of a version of the interfaces; 0 is none.
        std::uint64_t namedAt = 0;
        std::vector<Oif> named;
    };

    explicit OifSet(Node* node)
        : node_(node) {
        ++node_->holders;
    }
    void drop();

    Node* node_ = nullptr;
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
    struct Hash {
        std::size_t operator()(const OifSet::Node* node) const { return node->hash; }
    };
    struct Equal {
        bool operator()(const OifSet::Node* a, const OifSet::Node* b) const {
            return a->members == b->members;
        }
    };

    std::unordered_set<OifSet::Node*, Hash, Equal> nodes_;
    OifSet::Node probe_;
};

} // namespace Agent::Kernel
