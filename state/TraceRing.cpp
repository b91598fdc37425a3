#include "state/TraceRing.h"

#include "state/Errors.h"
#include "state/TraceValue.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <string>

namespace State {

namespace {

TraceRecordHead headAt(const std::byte* place) {
    TraceRecordHead head;
    std::memcpy(&head, place, sizeof head);
    return head;
}

// Whether a record of that size can stand where `room` bytes are left.
bool isSound(TraceRecordHead head, std::uint64_t room) {
    return head.size >= sizeof(TraceRecordHead) && traceRoundUp(head.size) <= room;
}

std::uint64_t timeAt(const std::byte* place) {
    std::uint64_t time = 0;
    std::memcpy(&time, place + sizeof(TraceRecordHead), sizeof time);
    return time;
}

constexpr std::uint32_t timeRecordBytes = sizeof(TraceRecordHead) + sizeof(std::uint64_t);

bool isTime(TraceRecordHead head) {
    return head.event == traceTimeEvent && head.size == timeRecordBytes;
}

// A slice takes the largest record twice, so that it is half full at least when the next one begins.
std::uint64_t sliceBytes(std::uint64_t capacity) {
    return std::max<std::uint64_t>(capacity / 64 / 8 * 8, 2 * traceRecordBytes);
}

} // namespace

constinit TraceRing traceRing;

std::uint64_t traceNow() {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::nanoseconds(sinceEpoch).count());
}

void TraceRing::memoryIs(std::span<std::byte> memory) {
    if (!memory.empty() && memory.size() < traceRingMinimumBytes) {
        throw RangeError("trace ring of " + std::to_string(memory.size()) + " bytes not allowed, it takes " +
                         std::to_string(traceRingMinimumBytes) + " or more");
    }
    if (ownMemory_ != nullptr && ownMemory_ != memory.data()) {
        delete[] ownMemory_;
        ownMemory_ = nullptr;
    }
    on_ = !memory.empty();
    header_ = nullptr;
    cursor_ = limit_ = space_ = timeEnd_ = nullptr;
    capacity_ = lap_ = firstMark_ = endMark_ = 0;
    if (on_) {
        void* begin = memory.data();
        std::size_t size = memory.size();
        std::align(alignof(TraceRingHeader), sizeof(TraceRingHeader), begin, size);
        capacity_ = (size - sizeof(TraceRingHeader)) / 8 * 8;
        header_ = new (begin) TraceRingHeader{traceRingMagic, capacity_, 0, next_, time_, 0, 0};
        space_ = static_cast<std::byte*>(begin) + sizeof(TraceRingHeader);
        cursor_ = space_;
        beginSlice();
    }
}

void TraceRing::timeIs(std::uint64_t time) {
    time_ = time;
    if (space_ == nullptr)
        return;
    // An event that traced nothing needs no time record: the next one takes its place.
    std::byte* const place = timeEnd_ == cursor_ ? cursor_ - timeRecordBytes : reserve(timeRecordBytes);
    const TraceRecordHead head{traceTimeEvent, timeRecordBytes};
    std::memcpy(place, &head, sizeof head);
    std::memcpy(place + sizeof head, &time, sizeof time);
    std::atomic_signal_fence(std::memory_order_release);
    cursor_ = timeEnd_ = place + timeRecordBytes;
    header_->position = static_cast<std::uint64_t>(cursor_ - space_);
}

std::byte* TraceRing::makeRoom(std::size_t size) {
    if (space_ == nullptr) {
        if (time_ == 0)
            time_ = traceNow();
        ownMemory_ = new std::byte[traceRingDefaultBytes];
        memoryIs({ownMemory_, traceRingDefaultBytes});
    } else {
        if (size > static_cast<std::size_t>(space_ + capacity_ - cursor_))
            beginLap();
        beginSlice();
    }
    return cursor_;
}

// Fills the space up and goes back to its beginning.
void TraceRing::beginLap() {
    const std::uint64_t left = lap_ + capacity_ - head();
    if (left != 0) {
        const TraceRecordHead pad{tracePadEvent, static_cast<std::uint32_t>(left)};
        std::memcpy(cursor_, &pad, sizeof pad);
    }
    lap_ += capacity_;
    cursor_ = space_;
    header_->position = 0;
    header_->lap = lap_;
}

// Gives the next slice to the writer; the slices that stood there are gone.
void TraceRing::beginSlice() {
    const std::uint64_t left = lap_ + capacity_ - head();
    const std::uint64_t size = std::min(left, sliceBytes(capacity_));
    marks_[endMark_++ % markCapacity] = {head(), next_, time_};
    while (tail().offset + capacity_ < head() + size)
        ++firstMark_;
    limit_ = cursor_ + size;
    timeEnd_ = nullptr;
    header_->tail = tail().offset;
    header_->tailNumber = tail().number;
    header_->tailTime = tail().time;
}

TraceRingWalk::TraceRingWalk(const TraceRing& ring)
    : ring_(ring)
    , offset_(ring.tail().offset)
    , number_(ring.oldest() - 1)
    , time_(ring.tail().time) {}

bool TraceRingWalk::next() {
    while (!damaged_ && offset_ < ring_.head()) {
        const std::uint64_t place = offset_ % ring_.capacity_;
        const std::byte* const begin = ring_.space_ + place;
        const TraceRecordHead head = headAt(begin);
        if (!isSound(head, std::min(ring_.head() - offset_, ring_.capacity_ - place))) {
            damaged_ = true;
        } else if (isTime(head)) {
            time_ = timeAt(begin);
        } else if (head.event != tracePadEvent) {
            damaged_ = number_ + 1 == ring_.next_; // more of them than were written
            event_ = head.event;
            values_ = {begin + sizeof head, begin + head.size};
        }
        offset_ += traceRoundUp(head.size);
        if (damaged_ || (!isTime(head) && head.event != tracePadEvent)) {
            ++number_;
            return !damaged_;
        }
    }
    return false;
}

} // namespace State
