// Mounts: what a plug-in declares that it wants to see. State-database mounts are collected in the mounter's
// mount group and performed by the agent together; shared-memory mounts are made one at a time
// (state/ShmEntityManager.h). Both keep what was declared, in order, for whoever wants to know.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace State {

/// Flag word of a state-database mount, filled from a flags string after it was cleared to 0.
enum class MountFlags : std::uint32_t { none = 0, readOnly = 1 };

struct Mount {
    std::string path;
    std::string typeName;
    MountFlags flags = MountFlags::none;
};

/// "r" is read-only; ParseError for any other letter.
MountFlags mountFlags(std::string_view letters);

/// Whether all mounts of a group succeeded; the failed ones with the reason.
struct MountStatus {
    struct Failure {
        std::string path;
        std::string reason;
    };
    std::vector<Failure> failures;

    bool ok() const { return failures.empty(); }
};

/// The state-database mounts of one mounter, declared before the agent performs them.
class MountGroup {
  public:
    /// Declares a mount. CreationError once the group is closed.
    void doMount(const Mount& mount);
    /// Closes the group; the agent performs the mounts afterwards. `wait`, `text` and `duration` are for
    /// agents that delay or label a group's mounts; they are kept as given.
    void doClose(bool wait, std::string_view text, std::chrono::seconds duration);

    const std::vector<Mount>& mounts() const { return mounts_; }
    bool closed() const { return closed_; }
    bool wait() const { return wait_; }
    const std::string& text() const { return text_; }
    std::chrono::seconds duration() const { return duration_; }

  private:
    std::vector<Mount> mounts_;
    bool closed_ = false;
    bool wait_ = false;
    std::string text_;
    std::chrono::seconds duration_{0};
};

/// A collection of a table and how many members it may hold; `reserve` is set aside at the start.
struct CollectionSizing {
    std::string name;
    std::uint32_t capacity = 0;
    std::uint32_t reserve = 0;
    bool operator==(const CollectionSizing&) const = default;
};

/// How a table of the table store is mounted. Mode 0: written by the mounter, made by the mount if it is not
/// there; modes 1 and 3: read by the mounter (a single table; one of a family of tables), made by others.
struct TableMount {
    std::uint32_t mode = 0;
    std::vector<CollectionSizing> collections;
    bool operator==(const TableMount&) const = default;
};

/// How an entity of the entity store is mounted: whether this process writes it, whether what stands below it
/// comes with it, and whether changes are announced here.
struct EntityMount {
    bool writer = false;
    bool recursive = false;
    bool notify = false;
    bool operator==(const EntityMount&) const = default;
};

} // namespace State
