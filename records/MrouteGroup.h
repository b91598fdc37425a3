// The hardware multicast group tables, in the shared-memory table store. MrouteColl ("l3/mroutegroup/config")
// is written by the plug-in: the flows for which it wants a group. MgroupColl ("l3/mroutegroup/status") is
// written by the hardware layer: the group that the chip allocated for a flow.
#pragma once

#include "records/IpMcastKey.h"
#include "state/Collection.h"
#include "state/ShmTable.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace KestrelCommon::MrouteGroup {

/// A flow that wants a group; it is its key and nothing else.
class MrouteItem {
  public:
    MrouteItem() = default;
    explicit MrouteItem(const KestrelL3::IpMcastKey& key)
        : key_(key) {}
    const KestrelL3::IpMcastKey& key() const { return key_; }

  private:
    KestrelL3::IpMcastKey key_;
};

class MrouteColl final : public State::ShmTable {
  public:
    explicit MrouteColl(std::string_view tableName)
        : ShmTable(tableName, "mroutes") {}
    static constexpr const char* path = "l3/mroutegroup/config";

    static const State::EntityType& type();
    const State::EntityType& entityType() const override { return type(); }

    /// The rows: a set that takes no more than the table has room for (state/ShmTable.h).
    class Rows : public State::SetAttribute<KestrelL3::IpMcastKey> {
      public:
        explicit Rows(MrouteColl& table);
        /// Inserts if absent; true if something changed. A full table refuses.
        bool is(const Key& key);

      private:
        MrouteColl& table_;
    };

    /// Inserts; one that is there stays.
    void mroutesIs(const MrouteItem& item) { mroutes_.is(item.key()); }
    void mroutesDel(const KestrelL3::IpMcastKey& key) { mroutes_.del(key); }
    /// visit(item) -> go on; in order of insertion. Each step is a read: CorruptionError ends the walk.
    template <class Visit>
    void mroutes(Visit visit) const {
        for (const KestrelL3::IpMcastKey& key : mroutes_.walk()) {
            reading();
            if (!visit(MrouteItem(key)))
                return;
        }
    }
    const Rows& mroutesCollection() const { return mroutes_; }
    Rows& mroutesCollection() { return mroutes_; }

    static constexpr State::AttributeId mroutesAttribute = 0;

  private:
    Rows mroutes_{*this};
};

/// What is allocated for a flow.
struct Mgroup {
    std::uint32_t groupId = 0;

    static constexpr auto describe() {
        return State::describe("KestrelCommon::MrouteGroup::Mgroup",
                               State::field("groupId", &Mgroup::groupId));
    }
    auto operator<=>(const Mgroup&) const = default;
};

/// A flow and its group, as read. The default item, which stands in for a damaged one, has group id 0.
class MgroupItem {
  public:
    MgroupItem() = default;
    MgroupItem(const KestrelL3::IpMcastKey& key, const Mgroup& mgroup)
        : key_(key)
        , mgroup_(mgroup) {}
    const KestrelL3::IpMcastKey& key() const { return key_; }
    std::uint32_t groupId() const { return mgroup_.groupId; }

  private:
    KestrelL3::IpMcastKey key_;
    Mgroup mgroup_;
};

class MgroupColl final : public State::ShmTable {
  public:
    explicit MgroupColl(std::string_view tableName)
        : ShmTable(tableName, "") {}
    static constexpr const char* path = "l3/mroutegroup/status";

    static const State::EntityType& type();
    const State::EntityType& entityType() const override { return type(); }

    /// Reads an item; nothing when absent. CorruptionError.
    std::optional<MgroupItem> mgroup(const KestrelL3::IpMcastKey& key) const {
        reading();
        const Mgroup* found = mgroupsCollection().find(key);
        return found == nullptr ? std::nullopt : std::optional(MgroupItem(key, *found));
    }

    STATE_MAP(0, mgroups, KestrelL3::IpMcastKey, Mgroup,
              State::seedConstant("KestrelCommon::MrouteGroup::MgroupColl::mgroups"))
};

} // namespace KestrelCommon::MrouteGroup
