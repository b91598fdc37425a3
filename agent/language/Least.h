// The least of many: picks a page of what has an order, in one pass over what is kept in another.
//
// Rows are offered in any order, each by its sort key; those behind the end of the page before that are the least are
// kept, and no others: memory and work per row are bounded whatever the order. `show` (RowPage.h) and the snapshots
// that watchers get (control/Snapshot.cpp) are picked by it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

namespace Agent {

template <class Key, class Row>
class Least {
  public:
    struct Item {
        Key key;
        Row row;
    };

    /// @param count how many are picked, at least 1.
    /// @param behind where to begin: all that are picked are greater. None: at the first.
    Least(std::size_t count, std::optional<Key> behind)
        : count_(count)
        , behind_(std::move(behind)) {}

    /// Whether a row may be among them; for who has to look more closely at those alone.
    bool takes(const Key& key) const { return (!most_ || key < *most_) && (!behind_ || *behind_ < key); }
    /// Keys differ from row to row.
    void offer(const Key& key, const Row& row) {
        if (!takes(key))
            return;
        items_.push_back({key, row});
        if (items_.size() == roomPerPick * count_)
            cut();
    }
    /// Whether there are as many as wanted: of what is greater than all that was offered none will be picked.
    bool isFull() const { return items_.size() >= count_; }

    /// Those picked, in order.
    std::vector<Item> take() && {
        std::ranges::sort(items_, {}, &Item::key);
        if (isFull())
            items_.erase(items_.begin() + static_cast<std::ptrdiff_t>(count_), items_.end());
        return std::move(items_);
    }

  private:
    // Many more than wanted are kept before some go, so that what goes costs little each.
    static constexpr std::size_t roomPerPick = 4;

    void cut() {
        const auto last = items_.begin() + static_cast<std::ptrdiff_t>(count_ - 1);
        std::ranges::nth_element(items_, last, {}, &Item::key);
        items_.erase(last + 1, items_.end());
        most_ = items_.back().key;
    }

    std::size_t count_;
    std::optional<Key> behind_;
    std::optional<Key> most_; // of those kept at the last cut: what is greater is not picked
    std::vector<Item> items_;
};

} // namespace Agent
