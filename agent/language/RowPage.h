// A page of rows in order: where it begins, what its rows are picked by, where the next one goes on.
//
// Show.cpp offers the keys of a table to a picker, and makes the cells of those alone that it picked. A row is found
// again by its place in the order, the cursor, and need not be there any more then.
#pragma once

#include "agent/changes/Operations.h"
#include "agent/json/Json.h"
#include "agent/language/Least.h"
#include "agent/language/VrfNames.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Agent {

/// What rows are sorted by, numbers alone: the place of the VRF's name, group, source, then what else tells them apart.
struct RowKey {
    std::uint64_t vrf = 0;
    std::array<std::uint64_t, 6> rest = {};
    auto operator<=>(const RowKey&) const = default;
};

struct Row {
    std::vector<State::Datum> cells; // in the order of the columns
    std::string withdrawn = {};      // the words of an answer whose request is gone
};

struct RowPage {
    std::vector<Row> rows;
    std::string more; // the cursor of the last; empty: there are no more
};

/// The place of a row as text: the numbers of its key in base 16, "." between them, then ":" and the VRF's name, if it
/// has one.
std::string cursorOf(const RowKey& key, const VrfNames& vrfs);
bool isCursor(std::string_view text);

/// What a page is made of.
class PageFrame {
  public:
    /// @param limit most rows.
    /// @param after the cursor behind which it begins; none: at the first row.
    PageFrame(const Operations& operations, std::size_t limit, const std::optional<std::string>& after);

    /// Picks the rows of the page, and one more that tells whether there are others; of each it keeps what the row is
    /// made of.
    template <class Kept>
    Least<RowKey, Kept> picker() const {
        return Least<RowKey, Kept>(limit_ + 1, behind_);
    }

    /// Makes the rows of what was picked, each by makeRow(kept), until there are as many or as much text as a page has.
    template <class Kept, class MakeRow>
    RowPage page(Least<RowKey, Kept> picked, MakeRow makeRow) const {
        RowPage page;
        std::size_t bytes = 0;
        const auto items = std::move(picked).take();
        for (const auto& [key, kept] : items) {
            if (page.rows.size() == limit_ || bytes >= Json::pageBytes) {
                page.more = cursorOf(items[page.rows.size() - 1].key, vrfs_);
                break;
            }
            page.rows.push_back(makeRow(kept));
            for (const State::Datum& cell : page.rows.back().cells)
                bytes += Json::lengthOf(cell);
        }
        return page;
    }

    const Operations& operations() const { return operations_; }
    const VrfNames& vrfs() const { return vrfs_; }
    /// Whether rows of a VRF at this place may be on the page or behind it.
    bool reaches(std::uint64_t vrf) const { return !behind_ || vrf >= behind_->vrf; }

  private:
    const Operations& operations_;
    VrfNames vrfs_;
    std::size_t limit_;
    std::optional<RowKey> behind_;
};

} // namespace Agent
