// Base of the tables in the shared-memory table store: capacity and corruption. A table that is full refuses
// a new row: nothing is lost or overwritten, a level-0 trace line and a counter tell it. A read that finds
// the memory damaged raises CorruptionError; the reader hands the text to the table's corruption handler
// (doCorruptionDetected) and goes on with the default item. Tests make any read fail by failing it on
// purpose.
#pragma once

#include "state/Entity.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace State {

struct TableMount;

class ShmTable : public Entity {
  public:
    /// The table's own name (the last component of its path, unless its maker chose another).
    const std::string& tableName() const { return tableName_; }

    /// Takes the sizing of a mount; collections that are not named keep their capacity.
    void sizingIs(const TableMount& mount);
    /// Most rows of the collection that has one; 0 is no limit.
    std::uint32_t capacity() const { return capacity_; }
    /// Rows refused because the table was full.
    std::uint64_t refused() const { return refused_; }

    /// The corruption handler: counts, keeps the text and writes a level-0 trace line.
    void doCorruptionDetected(const std::string& message) const;
    std::uint64_t corruptions() const { return corruptions_; }
    const std::string& lastCorruption() const { return lastCorruption_; }

    /// For tests: the read after `reads` more of them, counted from now, raises CorruptionError (0: the very
    /// next).
    void failReadAfter(std::uint64_t reads) { readsUntilFailure_ = reads + 1; }

  protected:
    /// `sizedCollection` names the collection to which the capacity applies.
    ShmTable(std::string_view tableName, std::string_view sizedCollection)
        : tableName_(tableName)
        , sizedCollection_(sizedCollection) {}

    /// Called by every read of a row.
    void reading() const {
        if (readsUntilFailure_ != 0 && --readsUntilFailure_ == 0)
            corrupted();
    }
    /// Called before a new row: whether there is room in a collection that holds `rows`. Tells a refusal.
    bool roomFor(std::size_t rows) { return capacity_ == 0 || rows < capacity_ || refuse(); }

  private:
    [[noreturn]] void corrupted() const;
    bool refuse();

    std::string tableName_;
    std::string sizedCollection_;
    std::uint32_t capacity_ = 0;
    std::uint64_t refused_ = 0;
    mutable std::uint64_t readsUntilFailure_ = 0;
    mutable std::uint64_t corruptions_ = 0;
    mutable std::string lastCorruption_;
};

} // namespace State
