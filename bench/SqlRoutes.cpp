#include "bench/SqlRoutes.h"

#include <sqlite3.h>

#include <stdexcept>
#include <string_view>

namespace Bench {

namespace {

// The route that answers a request for (vrf, source, grp): the exact one, else the first without a source.
#define CHOICE(vrf, source, grp)                                                                             \
    "coalesce((SELECT oifs FROM route WHERE vrf = " vrf " AND source = " source " AND grp = " grp "), "      \
    "(SELECT oifs FROM route WHERE vrf = " vrf " AND source = 0 AND grp = " grp " ORDER BY id LIMIT 1))"

constexpr const char* schema =
    "PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF; PRAGMA locking_mode = EXCLUSIVE;"
    "PRAGMA recursive_triggers = OFF;"
    "CREATE TABLE route(id INTEGER PRIMARY KEY, vrf INTEGER, source INTEGER, grp INTEGER, oifs TEXT);"
    "CREATE UNIQUE INDEX routeByFlow ON route(vrf, source, grp);"
    "CREATE TABLE request(id INTEGER PRIMARY KEY, vrf INTEGER, source INTEGER, grp INTEGER, intf INTEGER,"
    "                     vlan INTEGER, type INTEGER);"
    "CREATE UNIQUE INDEX requestByFlow ON request(vrf, grp, source, intf, vlan, type);"
    "CREATE TABLE answer(request INTEGER PRIMARY KEY, oifs TEXT);"
    // A route with a source concerns the requests for just that; one without concerns all of its group.
    "CREATE TRIGGER sourcedAdded AFTER INSERT ON route WHEN new.source <> 0 BEGIN"
    "  INSERT OR REPLACE INTO answer SELECT id, new.oifs FROM request"
    "    WHERE vrf = new.vrf AND grp = new.grp AND source = new.source; END;"
    "CREATE TRIGGER sourcedChanged AFTER UPDATE OF oifs ON route"
    "  WHEN new.source <> 0 AND new.oifs IS NOT old.oifs BEGIN"
    "  UPDATE answer SET oifs = new.oifs WHERE request IN (SELECT id FROM request"
    "    WHERE vrf = new.vrf AND grp = new.grp AND source = new.source); END;"
    "CREATE TRIGGER starredAdded AFTER INSERT ON route WHEN new.source = 0 BEGIN"
    "  INSERT OR REPLACE INTO answer SELECT id, " CHOICE(
        "request.vrf", "request.source",
        "request.grp") "    FROM request"
                       "    WHERE vrf = new.vrf AND grp = new.grp; END;"
                       "CREATE TRIGGER starredChanged AFTER UPDATE OF oifs ON route"
                       "  WHEN new.source = 0 AND new.oifs IS NOT old.oifs BEGIN"
                       "  INSERT OR REPLACE INTO answer SELECT id, " CHOICE(
                           "request.vrf", "request.source",
                           "request.grp") "    FROM request"
                                          "    WHERE vrf = new.vrf AND grp = new.grp; END;"
                                          "CREATE TRIGGER asked AFTER INSERT ON request BEGIN"
                                          "  INSERT OR REPLACE INTO answer VALUES(new.id, " CHOICE(
                                              "new.vrf", "new.source", "new.grp") "); END;"
                                                                                  "BEGIN;";

#undef CHOICE

void hear(void* heard, int /*operation*/, const char* /*database*/, const char* table,
          sqlite3_int64 /*row*/) {
    if (std::string_view(table) == "answer")
        ++*static_cast<std::size_t*>(heard);
}

} // namespace

SqlRoutes::SqlRoutes() {
    if (sqlite3_open(":memory:", &database_) != SQLITE_OK)
        fail();
    execute(schema);
    changeRoute_ = prepare("UPDATE route SET oifs = ?4 WHERE vrf = ?1 AND source = ?2 AND grp = ?3");
    insertRoute_ = prepare("INSERT INTO route(vrf, source, grp, oifs) VALUES(?1, ?2, ?3, ?4)");
    insertRequest_ =
        prepare("INSERT INTO request(vrf, source, grp, intf, vlan, type) VALUES(?1, ?2, ?3, ?4, ?5, ?6)");
    readAnswer_ =
        prepare("SELECT answer.oifs FROM request JOIN answer ON answer.request = request.id "
                "WHERE vrf = ?1 AND source = ?2 AND grp = ?3 AND intf = ?4 AND vlan = ?5 AND type = ?6");
    sqlite3_update_hook(database_, &hear, &heard_);
}

SqlRoutes::~SqlRoutes() {
    for (sqlite3_stmt* statement : statements_)
        sqlite3_finalize(statement);
    sqlite3_close(database_);
}

void SqlRoutes::routeIs(std::uint32_t vrf, const KestrelNat::MrouteSourceAndGroup& flow,
                        const std::string& oifs) {
    for (sqlite3_stmt* statement : {changeRoute_, insertRoute_}) {
        sqlite3_bind_int64(statement, 1, vrf);
        sqlite3_bind_int64(statement, 2, flow.sourceIp.value());
        sqlite3_bind_int64(statement, 3, flow.groupIp.value());
        sqlite3_bind_text(statement, 4, oifs.data(), static_cast<int>(oifs.size()), SQLITE_STATIC);
        run(statement);
        if (sqlite3_changes(database_) != 0)
            return;
    }
}

namespace {

void bindRequest(sqlite3_stmt* statement, const KestrelNat::NatMrouteKey& key) {
    sqlite3_bind_int64(statement, 1, key.vrfId.value());
    sqlite3_bind_int64(statement, 2, key.sourceIp.value());
    sqlite3_bind_int64(statement, 3, key.groupIp.value());
    sqlite3_bind_int64(statement, 4, static_cast<sqlite3_int64>(key.intf.number()));
    sqlite3_bind_int64(statement, 5, key.vlanId);
    sqlite3_bind_int64(statement, 6, static_cast<sqlite3_int64>(key.type));
}

} // namespace

void SqlRoutes::requestIs(const KestrelNat::NatMrouteKey& key) {
    bindRequest(insertRequest_, key);
    run(insertRequest_);
}

std::string SqlRoutes::answer(const KestrelNat::NatMrouteKey& key) const {
    bindRequest(readAnswer_, key);
    std::string text = "absent";
    if (sqlite3_step(readAnswer_) == SQLITE_ROW) {
        const auto* oifs = sqlite3_column_text(readAnswer_, 0);
        text = oifs == nullptr ? "" : reinterpret_cast<const char*>(oifs);
    }
    sqlite3_reset(readAnswer_);
    return text;
}

sqlite3_stmt* SqlRoutes::prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v3(database_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK)
        fail();
    statements_.push_back(statement);
    return statement;
}

void SqlRoutes::run(sqlite3_stmt* statement) const {
    if (sqlite3_step(statement) != SQLITE_DONE || sqlite3_reset(statement) != SQLITE_OK)
        fail();
}

void SqlRoutes::execute(const char* sql) const {
    if (sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) != SQLITE_OK)
        fail();
}

void SqlRoutes::fail() const {
    throw std::runtime_error(std::string("SQL: ") + sqlite3_errmsg(database_));
}

} // namespace Bench
