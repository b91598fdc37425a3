// The Quill source: OifIndex.h, QuillFib.h.
#include "records/QuillFib.h"

#include "state/Attribute.h"
#include "state/Fatal.h"

#include <algorithm>
#include <bit>

namespace Quill::Multicast::Fib {

OifIndex OifIndex::fromNumber(std::uint64_t number) {
    if (number > null)
        refuse();
    return OifIndex(static_cast<std::uint16_t>(number));
}

void OifIndex::refuse() {
    throw State::RangeError(
        "Quill::Multicast::Fib::OifIndex::value < Quill::Multicast::Fib::OifIndex::min or > "
        "Quill::Multicast::Fib::OifIndex::null not allowed");
}

OifIndexList::OifIndexList(std::initializer_list<std::uint16_t> indexes) {
    for (const std::uint16_t index : indexes)
        insert(index);
}

OifIndexList::OifIndexList(std::string_view) {
    State::fatal("No String constructor for OifIndexList - has collection", __FILE__, __LINE__,
                 __PRETTY_FUNCTION__);
}

OifIndexList::OifIndexList(const OifIndexList& other)
    : words_(other.words_) {
    if (size() > nearCount)
        farIs(std::copy_n(other.far(), size(), new std::uint16_t[std::bit_ceil(size())]) - size());
}

OifIndexList::OifIndexList(OifIndexList&& other) noexcept
    : words_(other.words_) {
    other.words_[0] = 0;
}

OifIndexList& OifIndexList::operator=(OifIndexList other) noexcept {
    std::swap(words_, other.words_);
    return *this;
}

OifIndexList::~OifIndexList() {
    if (size() > nearCount)
        delete[] far();
}

void OifIndexList::insert(std::uint16_t index) {
    if (std::find(begin(), end(), index) != end())
        return;
    const std::size_t count = size();
    if (count == maxCount) {
        throw State::RangeError("Quill::Multicast::Fib::OifIndexList takes " + std::to_string(maxCount) +
                                " indexes at most");
    }
    if (count < nearCount) {
        words_[count + 1] = index;
    } else {
        if (std::has_single_bit(count) || count == nearCount) { // the array's room is the count rounded up
            auto* grown = new std::uint16_t[std::bit_ceil(count + 1)];
            std::copy_n(indexes().data(), count, grown);
            if (count > nearCount)
                delete[] far();
            farIs(grown);
        }
        far()[count] = index;
    }
    words_[0] = static_cast<std::uint16_t>(count + 1);
}

bool OifIndexList::operator==(const OifIndexList& other) const {
    return std::equal(begin(), end(), other.begin(), other.end());
}

std::strong_ordering OifIndexList::operator<=>(const OifIndexList& other) const {
    return std::lexicographical_compare_three_way(begin(), end(), other.begin(), other.end());
}

void Status::fillIntfs() const {
    intfs_.clear();
    for (const auto& [index, intf] : oifIndexIntf()) {
        intfs_.resize(std::max<std::size_t>(intfs_.size(), index.value() + std::size_t{1}));
        intfs_[index.value()] = intf;
    }
    intfsAsOf_ = oifIndexIntfCollection().changes();
}

std::string Status::mountPath(std::string_view vrfName, std::string_view mode) {
    std::string path = "routing/multicast/routestatus/";
    path += vrfName;
    path += '/';
    path += mode;
    return path;
}

const State::EntityType& Status::type() {
    static const State::EntityType made(
        "Quill::Multicast::Fib::Status", &State::createEntity<Status>,
        State::attributes(
            State::mapAttribute<Status>(
                "route", routeAttribute, [](auto& entity) -> auto& { return entity.routeCollection(); }),
            State::mapAttribute<Status>(
                "oifIndexIntf", oifIndexIntfAttribute,
                [](auto& entity) -> auto& { return entity.oifIndexIntfCollection(); })));
    return made;
}

STATE_VALUE_TYPE(OifIndex);
STATE_VALUE_TYPE(OifIndexList);
STATE_VALUE_TYPE(Route);
STATE_ENTITY_TYPE(Status);

} // namespace Quill::Multicast::Fib
