#include "tests/kernel/RecordingSink.h"

#include <gtest/gtest.h>

namespace Agent::Kernel::Test {
namespace {

std::size_t at(RouteType type) {
    return static_cast<std::size_t>(type);
}

} // namespace

void RecordingSink::note(const std::string& call) {
    ++calls;
    if (heard)
        heard(call);
}

RecordingSink::VrfRows* RecordingSink::entered(const VrfConfig& vrf, const char* call) {
    auto found = vrfs.find(vrf.name);
    if (found == vrfs.end() || found->second.config.id != vrf.id) {
        ADD_FAILURE() << call << " for the VRF " << vrf.name << " " << vrf.id << ", which isn't entered";
        return nullptr;
    }
    return &found->second;
}

// As the agent's guards: an identifier belongs to one VRF and isn't changed while the VRF is there.
WhyNot RecordingSink::putVrf(const VrfConfig& vrf, bool multicastEnabled) {
    WhyNot why = refuseVrf ? refuseVrf(vrf, multicastEnabled) : "";
    for (const auto& [name, other] : vrfs)
        if (other.config.id == vrf.id && name != vrf.name)
            why = "the identifier belongs to " + name;
    if (!why.empty())
        return why;
    auto [found, isNew] = vrfs.try_emplace(vrf.name, VrfRows{vrf, false, {}});
    if (isNew)
        EXPECT_FALSE(multicastEnabled) << "multicast in the new VRF " << vrf.name;
    else
        EXPECT_NE(found->second.multicast, multicastEnabled) << "no difference in VRF " << vrf.name;
    EXPECT_EQ(found->second.config.id, vrf.id) << "the VRF " << vrf.name << " got another identifier";
    found->second.multicast = multicastEnabled;
    note("vrf " + vrf.name + (multicastEnabled ? " on" : " off"));
    return {};
}

WhyNot RecordingSink::removeVrf(const VrfConfig& vrf) {
    VrfRows* rows = entered(vrf, "removeVrf");
    if (!rows)
        return {};
    EXPECT_FALSE(rows->multicast) << "multicast on in the VRF " << vrf.name << " that goes";
    EXPECT_TRUE(rows->rows[0].empty() && rows->rows[1].empty())
        << "rows in the VRF " << vrf.name << " that goes";
    vrfs.erase(vrf.name);
    note("no vrf " + vrf.name);
    return {};
}

WhyNot RecordingSink::putRoute(const VrfConfig& vrf, RouteType type, const MfcKey& key,
                               std::span<const Oif> oifs) {
    VrfRows* rows = entered(vrf, "putRoute");
    if (!rows)
        return "there is no such VRF";
    Row row;
    for (const Oif& oif : oifs) {
        EXPECT_FALSE(oif.name.empty());
        row[oif.ifindex] = oif.name;
        auto [known, isNew] = names.try_emplace(oif.ifindex, oif.name);
        EXPECT_EQ(known->second, oif.name) << "a rename of " << oif.ifindex << " wasn't told";
    }
    if (WhyNot why = refuseRoute ? refuseRoute(key) : ""; !why.empty())
        return why;
    auto [found, isNew] = rows->rows[at(type)].try_emplace(key, row);
    bool mayRepeat = renamed_.erase({vrf.name, key}) > 0;
    EXPECT_TRUE(isNew || found->second != row || mayRepeat) << "no difference in " << mfcKeyText(key);
    found->second = row;
    note("route " + mfcKeyText(key));
    return {};
}

void RecordingSink::removeRoute(const VrfConfig& vrf, RouteType type, const MfcKey& key) {
    VrfRows* rows = entered(vrf, "removeRoute");
    EXPECT_TRUE(rows && rows->rows[at(type)].erase(key) == 1) << "no such row: " << mfcKeyText(key);
    note("no route " + mfcKeyText(key));
}

bool RecordingSink::renameInterface(int ifindex, std::string_view name) {
    EXPECT_TRUE(names.contains(ifindex)) << "no row was given with " << ifindex;
    names[ifindex] = name;
    note("name " + std::string(name));
    if (rowsHoldNames_)
        for (const auto& [vrf, rows] : vrfs)
            for (const auto& byKey : rows.rows)
                for (const auto& [key, row] : byKey)
                    if (row.contains(ifindex))
                        renamed_.insert({vrf, key});
    return rowsHoldNames_;
}

void RecordingSink::forgetInterface(int ifindex) {
    for (const auto& [vrf, rows] : vrfs)
        for (const auto& byKey : rows.rows)
            for (const auto& [key, row] : byKey)
                EXPECT_FALSE(row.contains(ifindex)) << ifindex << " is gone and in " << mfcKeyText(key);
    names.erase(ifindex);
    note("no name " + std::to_string(ifindex));
}

std::optional<bool> RecordingSink::multicastEnabled(const VrfConfig& vrf) const {
    auto found = vrfs.find(vrf.name);
    return found == vrfs.end() ? std::nullopt : std::optional(found->second.multicast);
}

const std::map<MfcKey, RecordingSink::Row>& RecordingSink::tableOf(const std::string& vrf,
                                                                   RouteType type) const {
    static const std::map<MfcKey, Row> none;
    auto found = vrfs.find(vrf);
    return found == vrfs.end() ? none : found->second.rows[at(type)];
}

class RecordingSink::Walk final : public RowWalk {
  public:
    Walk(const RecordingSink& sink, std::string vrf, RouteType type)
        : sink_(sink)
        , vrf_(std::move(vrf))
        , type_(type) {}
    bool next(std::size_t max, const std::function<void(const RouteKey&)>& visit) override {
        const auto& rows = sink_.tableOf(vrf_, type_);
        auto row = last_ ? rows.upper_bound(*last_) : rows.begin();
        for (; max > 0 && row != rows.end(); --max, ++row)
            visit(rowKey(last_.emplace(row->first)));
        return row != rows.end();
    }
    std::size_t size() const override { return sink_.tableOf(vrf_, type_).size(); }

  private:
    const RecordingSink& sink_;
    std::string vrf_;
    RouteType type_;
    std::optional<MfcKey> last_;
};

std::unique_ptr<RowWalk> RecordingSink::rows(const VrfConfig& vrf, RouteType type) const {
    return std::make_unique<Walk>(*this, vrf.name, type);
}

bool RecordingSink::row(const VrfConfig& vrf, RouteType type, const RouteKey& key,
                        const RowVisitor& visit) const {
    const auto& rows = tableOf(vrf.name, type);
    auto found = rows.find(kernelKey(key).value());
    if (found == rows.end())
        return false;
    std::vector<std::string_view> list;
    for (const auto& [ifindex, name] : found->second)
        list.push_back(rowsHoldNames_ ? name : names.at(ifindex));
    visit(list);
    return true;
}

std::string RecordingSink::row(const std::string& vrf, const MfcKey& key, RouteType type) const {
    auto rows = vrfs.find(vrf);
    if (rows == vrfs.end() || !rows->second.rows[at(type)].contains(key))
        return "absent";
    std::string text;
    for (const auto& [ifindex, name] : rows->second.rows[at(type)].at(key))
        text += (text.empty() ? "" : " ") + (rowsHoldNames_ ? name : names.at(ifindex));
    return text.empty() ? "none" : text;
}

std::size_t RecordingSink::rowCount(const std::string& vrf) const {
    auto rows = vrfs.find(vrf);
    return rows == vrfs.end() ? 0 : rows->second.rows[0].size() + rows->second.rows[1].size();
}

} // namespace Agent::Kernel::Test
