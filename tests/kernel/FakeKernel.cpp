#include "tests/kernel/FakeKernel.h"

#include <algorithm>
#include <cerrno>

namespace Agent::Kernel::Test {

KernelMessage& FakeKernel::tell(MessageKind kind) {
    if (events_.size() >= capacity && !congested_)
        lose();
    if (congested_)
        return dropped_ = {};
    events_.emplace_back();
    events_.back().kind = kind;
    return events_.back();
}

void FakeKernel::tellRoute(MessageKind kind, std::uint32_t table, const Entry& entry) {
    tell(kind).route = routeOf(table, entry);
}

void FakeKernel::tellForwarding(int ifindex) {
    int count = 0;
    for (const auto& [number, table] : tables)
        count += static_cast<int>(std::count(table.vifs.begin(), table.vifs.end(), ifindex));
    tell(MessageKind::mcForwarding).mcForwarding = {.ifindex = ifindex, .tables = count};
}

MfcRoute FakeKernel::routeOf(std::uint32_t table, const Entry& entry) const {
    const Table& known = tables.at(table);
    MfcRoute route;
    route.table = table;
    route.key = entry.key;
    route.protocol = entry.protocol;
    route.iif = known.vifs[static_cast<std::size_t>(entry.parent)];
    for (std::size_t vif = 0; vif < maxVifs; ++vif)
        if ((entry.outputs >> vif & 1) != 0 && known.vifs[vif] != 0)
            route.oifs.push_back(known.vifs[vif]);
    return route;
}

void FakeKernel::linkIs(int ifindex, const std::string& name, bool internal) {
    links[ifindex] = {.ifindex = ifindex, .name = name, .internal = internal};
    tell(MessageKind::link).link = links[ifindex];
}

void FakeKernel::linkDel(int ifindex) {
    for (auto& [number, table] : tables)
        std::replace(table.vifs.begin(), table.vifs.end(), ifindex, 0);
    tell(MessageKind::linkGone).link = links[ifindex];
    links.erase(ifindex);
}

void FakeKernel::vifIs(std::uint32_t table, int vif, int ifindex, bool isRegister) {
    tables[table].vifs[static_cast<std::size_t>(vif)] = ifindex;
    tables[table].isRegister[static_cast<std::size_t>(vif)] = isRegister;
    tellForwarding(ifindex);
}

void FakeKernel::vifDel(std::uint32_t table, int vif) {
    if (int ifindex = std::exchange(tables[table].vifs[static_cast<std::size_t>(vif)], 0))
        tellForwarding(ifindex);
}

void FakeKernel::routeIs(std::uint32_t table, const Entry& entry, bool proxy) {
    Table& known = tables[table];
    Entry resolved = entry;
    for (std::size_t vif = 0; vif < maxVifs; ++vif)
        if (known.vifs[vif] == 0)
            resolved.outputs &= ~(1u << vif);
    std::erase(known.unresolved, entry.key);
    auto at = std::find_if(known.routes.begin(), known.routes.end(), [&](const Entry& other) {
        return other.key == entry.key && (!proxy || other.parent == entry.parent);
    });
    if (at == known.routes.end())
        known.routes.push_back(resolved);
    else
        *at = resolved;
    tellRoute(MessageKind::route, table, resolved);
}

void FakeKernel::routeDel(std::uint32_t table, std::size_t position) {
    Table& known = tables[table];
    Entry entry = known.routes[position];
    known.routes.erase(known.routes.begin() + static_cast<std::ptrdiff_t>(position));
    tellRoute(MessageKind::routeGone, table, entry);
}

void FakeKernel::routeDel(std::uint32_t table, const MfcKey& key) {
    Table& known = tables[table];
    for (std::size_t i = 0; i < known.routes.size(); ++i)
        if (known.routes[i].key == key)
            return routeDel(table, i);
}

void FakeKernel::unresolvedIs(std::uint32_t table, const MfcKey& key) {
    tables[table].unresolved.push_back(key);
    MfcRoute& route = tell(MessageKind::route).route;
    route = {};
    route.table = table;
    route.key = key;
    route.unresolved = true;
}

void FakeKernel::unresolvedExpire(std::uint32_t table) {
    for (const MfcKey& key : std::exchange(tables[table].unresolved, {})) {
        MfcRoute& route = tell(MessageKind::routeGone).route;
        route = {};
        route.table = table;
        route.key = key;
        route.unresolved = true;
    }
}

void FakeKernel::daemonStop(std::uint32_t table) {
    for (int vif = 0; vif < maxVifs; ++vif)
        vifDel(table, vif);
    while (!tables[table].routes.empty())
        routeDel(table, std::size_t{0});
}

bool FakeReader::drain(std::size_t max) {
    if (kernel_.lost_) {
        kernel_.lost_ = false;
        toBoth([](Mirror& mirror) { mirror.overrun(); });
        max = ~std::size_t{0};
    }
    for (; max > 0 && !kernel_.events_.empty(); --max) {
        toBoth([&](Mirror& mirror) { mirror.takeEvent(kernel_.events_.front()); });
        kernel_.events_.pop_front();
    }
    if (!kernel_.events_.empty())
        return false;
    kernel_.congested_ = false;
    return true;
}

bool FakeReader::step(std::size_t chunk) {
    if (!query_) {
        query_ = mirror_.nextQuery(now);
        if (!query_)
            return false;
        asked.push_back(*query_);
        position_ = 0;
        error_ = 0;
        atEnd_ = false;
        readAhead(chunk);
        return true;
    }
    std::vector<KernelMessage> part = std::exchange(ahead_, {});
    bool isLast = atEnd_;
    if (!isLast)
        readAhead(chunk);
    for (const KernelMessage& message : part)
        mirror_.takeAnswer(message);
    if (isLast)
        finish();
    return true;
}

void FakeReader::readAhead(std::size_t chunk) {
    KernelMessage message;
    atEnd_ = true;
    message.kind = MessageKind::route;
    auto table = kernel_.tables.find(query_->table);
    switch (query_->kind) {
    case KernelQuery::Kind::links:
        message.kind = MessageKind::link;
        for (const auto& [ifindex, link] : kernel_.links) {
            message.link = link;
            ahead_.push_back(message);
        }
        break;
    case KernelQuery::Kind::vifs:
        message.kind = MessageKind::vifTable;
        for (const auto& [number, known] : kernel_.tables) {
            message.vifTable = {.table = number, .vifs = {}};
            for (std::size_t vif = 0; vif < FakeKernel::maxVifs; ++vif)
                if (known.vifs[vif] != 0)
                    message.vifTable.vifs.push_back({.index = static_cast<int>(vif),
                                                     .ifindex = known.vifs[vif],
                                                     .isRegister = known.isRegister[vif]});
            ahead_.push_back(message);
        }
        break;
    case KernelQuery::Kind::route:
        error_ = ENOENT;
        if (table != kernel_.tables.end())
            for (const FakeKernel::Entry& entry : table->second.routes)
                if (entry.key == query_->key && error_ != 0) {
                    message.route = kernel_.routeOf(query_->table, entry);
                    ahead_.push_back(message);
                    error_ = 0;
                }
        break;
    case KernelQuery::Kind::routes:
        if (table == kernel_.tables.end()) {
            error_ = ENOENT;
            break;
        }
        for (; chunk > 0 && position_ < table->second.routes.size(); --chunk, ++position_) {
            message.route = kernel_.routeOf(query_->table, table->second.routes[position_]);
            ahead_.push_back(message);
        }
        atEnd_ = position_ >= table->second.routes.size();
        for (const MfcKey& key : table->second.unresolved)
            if (atEnd_) {
                message.route = {};
                message.route.table = query_->table;
                message.route.key = key;
                message.route.unresolved = true;
                ahead_.push_back(message);
            }
        break;
    }
}

void FakeReader::finish() {
    if (query_->kind == KernelQuery::Kind::routes)
        drain();
    query_.reset();
    mirror_.endAnswer(error_, false, now);
}

void FakeReader::settle() {
    for (int rounds = 0; rounds < 100'000; ++rounds) {
        drain();
        mirror_.publish(~std::size_t{0});
        if (step(100) || mirror_.publishDue())
            continue;
        std::optional<Mirror::Clock::time_point> due = mirror_.queryDueAt();
        if (!due)
            return;
        now = std::max(now, *due);
    }
}

} // namespace Agent::Kernel::Test
