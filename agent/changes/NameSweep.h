// Gives room in the full table of interface names (records/IntfId.h): takes out the names that nothing carries any
// more, so that an agent takes new ones for years while sub-interfaces come and go.
//
// A name is carried by what the stores hold, in keys, values and members of any depth, and by the holders added here.
// Nobody else keeps an interface beyond a call: the requesters and answers that the plug-in records for itself are
// those of requests and answers in the stores. So it must not be called from inside a reactor, nor by who has
// interfaces at hand. Operations owns it.
#pragma once

#include "agent/host/Stores.h"
#include "records/IntfSet.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace Agent {

class NameSweep {
  public:
    using Clock = std::chrono::steady_clock;
    using Holder = std::function<void(L3::IntfUnion&)>;

    explicit NameSweep(const Stores& stores)
        : stores_(stores) {}

    /// `holder` adds the interfaces that it holds.
    void add(Holder holder) { holders_.push_back(std::move(holder)); }

    /// Does work() and, where the full table refused a name to it, sweeps and does it once more. It sweeps once a second
    /// at most: for a table that is really full the stores are not searched for every client that asks.
    template <class Work>
    auto roomFor(Work work) {
        const std::uint64_t before = L3::IntfId::refusals();
        try {
            return work();
        } catch (const std::exception&) {
            if (L3::IntfId::refusals() == before || sweep() == 0)
                throw;
        }
        return work();
    }

    std::uint64_t sweeps() const { return sweeps_; }
    /// Names that were taken out, over all sweeps.
    std::uint64_t swept() const { return swept_; }

  private:
    std::size_t sweep();

    Stores stores_;
    std::vector<Holder> holders_;
    Clock::time_point notBefore_{};
    std::uint64_t sweeps_ = 0;
    std::uint64_t swept_ = 0;
};

} // namespace Agent
