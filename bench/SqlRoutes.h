// The same job as the mroute service's in an embedded SQL database, as someone would build it who did not
// want to write a service: routes, requests and answers are tables with the indexes that each statement
// needs, and triggers keep the answers in step. The choice for a request for one source and group is the
// first route, in order of arrival, that matches, one with that source before one without; an answer that
// changes is told through the database's update hook.
//
// The peer gets the best conditions there are: in memory, no journal, statements prepared, everything in one
// transaction, a route's interfaces in one column, and no requests for any source or any group to look after.
#pragma once

#include "KestrelNat/KestrelNatMulticastSm/NatMulticastKeys.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace Bench {

class SqlRoutes {
  public:
    /// @throws std::runtime_error with the database's words, as all others.
    SqlRoutes();
    ~SqlRoutes();
    SqlRoutes(const SqlRoutes&) = delete;
    SqlRoutes& operator=(const SqlRoutes&) = delete;

    /// Adds a route, or changes the one that is there; `oifs` is text such as "1 2 3 4".
    void routeIs(std::uint32_t vrf, const KestrelNat::MrouteSourceAndGroup& flow, const std::string& oifs);
    /// Adds a request and its answer.
    void requestIs(const KestrelNat::NatMrouteKey& key);
    /// The interfaces; "absent" without an answer.
    std::string answer(const KestrelNat::NatMrouteKey& key) const;
    /// Changes of answers told so far.
    std::size_t heard() const { return heard_; }

  private:
    sqlite3_stmt* prepare(const char* sql);
    void run(sqlite3_stmt* statement) const;
    void execute(const char* sql) const;
    [[noreturn]] void fail() const;

    sqlite3* database_ = nullptr;
    std::vector<sqlite3_stmt*> statements_;
    sqlite3_stmt* changeRoute_ = nullptr;
    sqlite3_stmt* insertRoute_ = nullptr;
    sqlite3_stmt* insertRequest_ = nullptr;
    sqlite3_stmt* readAnswer_ = nullptr;
    std::size_t heard_ = 0;
};

} // namespace Bench
