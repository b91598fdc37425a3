#include "tests/agent/Json.h"

#include "agent/json/Json.h"

#include <algorithm>
#include <stdexcept>

namespace AgentTest {

using State::Datum;

Json::Json(Datum datum)
    : datum_(std::move(datum)) {
    if (auto* list = std::get_if<Datum::List>(&datum_.content))
        for (Datum& element : *list)
            element = Json(std::move(element)).datum_;
    if (auto* record = std::get_if<Datum::Record>(&datum_.content)) {
        for (auto& [name, value] : *record)
            value = Json(std::move(value)).datum_;
        std::ranges::sort(*record, {}, &Datum::Record::value_type::first);
    }
}

Json::Json(const std::vector<Json>& elements) {
    Datum::List list;
    std::ranges::transform(elements, std::back_inserter(list), &Json::datum_);
    datum_ = std::move(list);
}

Json Json::parse(std::string_view text) {
    return Json(Agent::Json::parse(text));
}

std::string Json::dump() const {
    return Agent::Json::textOf(datum_);
}

std::vector<Json> Json::elements() const {
    const auto& list = std::get<Datum::List>(datum_.content);
    return {list.begin(), list.end()};
}

bool Json::contains(std::string_view name) const {
    return datum_.record() != nullptr &&
           std::ranges::count(*datum_.record(), name, &Datum::Record::value_type::first) > 0;
}

Json Json::at(std::string_view name) const {
    if (!contains(name))
        throw std::out_of_range("no member " + std::string(name) + " in " + dump());
    return Json(std::ranges::find(*datum_.record(), name, &Datum::Record::value_type::first)->second);
}

Json Json::with(std::string_view name, const Json& value) const {
    Datum::Record record = std::get<Datum::Record>(datum_.content);
    std::erase_if(record, [&](const auto& member) { return member.first == name; });
    if (!value.isNull())
        record.emplace_back(name, value.datum_);
    return Json(Datum(std::move(record)));
}

Json filled(std::string_view text, const std::vector<Json>& parts) {
    std::string whole;
    auto part = parts.begin();
    for (const char c : text)
        whole += c == '%' ? (part++)->dump() : std::string(1, c == '\'' ? '"' : c);
    return Json::parse(whole);
}

bool holds(const Json& wanted, const Json& actual) {
    if (wanted == "...")
        return true;
    if (const auto* record = wanted.datum().record())
        return std::ranges::all_of(*record, [&](const auto& member) {
            return actual.contains(member.first) && holds(Json(member.second), actual.at(member.first));
        });
    if (wanted.datum().list() == nullptr || actual.datum().list() == nullptr)
        return wanted == actual;
    return std::ranges::equal(wanted.elements(), actual.elements(), holds);
}

} // namespace AgentTest
