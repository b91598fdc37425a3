// The ring of trace records: memory that the framework is handed, written by TRACE (state/Trace.h), which is
// also where records are read as text. There is one ring a process.
//
// The memory begins with a TraceRingHeader; the records follow it, 8-byte aligned: event number (32 bits),
// size in bytes with this head (32 bits), raw values. Places are offsets that count on for ever: offset o
// stands at byte o % capacity of the record space, and the records from `tail` to `lap + position` are there.
// The space's end is never straddled: a pad record fills it up. Event numbers name call sites of the process
// that wrote; all else is independent of it. The header follows the writer's own state and is never read by
// it, so whatever happens to the memory cannot lead the writer astray.
#pragma once

#include "state/OneThread.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

namespace State {

struct TraceRingHeader {
    std::uint64_t magic;
    std::uint64_t capacity;
    std::uint64_t tail;       // offset of the oldest record
    std::uint64_t tailNumber; // its record number
    std::uint64_t tailTime;   // its time, in nanoseconds since 1970 (UTC)
    std::uint64_t lap;        // offset at which the record space was last begun again
    std::uint64_t position;   // bytes written since; updated after each record
};

struct TraceRecordHead {
    std::uint32_t event;
    std::uint32_t size; // in use, with this head
};

/// The room that a record of that size takes.
constexpr std::size_t traceRoundUp(std::size_t size) {
    return (size + 7) / 8 * 8;
}

/// Event numbers that name no call site.
constexpr std::uint32_t tracePadEvent = 0;
constexpr std::uint32_t traceTimeEvent = 1; // the value is a time; it holds for the records that follow
constexpr std::uint32_t traceFirstSiteEvent = 2;

constexpr std::uint64_t traceRingMagic = 0x31474e4952544e4b; // "KNTRING1"
constexpr std::size_t traceRingMinimumBytes = 8192;
constexpr std::size_t traceRingDefaultBytes = std::size_t{1} << 20U;

class TraceRing {
  public:
    constexpr TraceRing() = default;
    TraceRing(const TraceRing&) = delete;
    TraceRing& operator=(const TraceRing&) = delete;

    bool isOn() const { return on_; }

    /// Room for a record of up to `size` bytes (a multiple of 8, at most traceRecordBytes), old records making
    /// way.
    std::byte* reserve(std::size_t size) {
        assertOneThread();
        std::byte* const begin = cursor_;
        return size <= static_cast<std::size_t>(limit_ - begin) ? begin : makeRoom(size);
    }
    /// Makes the record that has been written there, up to `end`, part of the ring.
    void commit(std::byte* end) {
        std::atomic_signal_fence(std::memory_order_release);
        cursor_ = end;
        ++next_;
        header_->position = static_cast<std::uint64_t>(end - space_);
    }

    /// Puts an empty ring into `memory`, which stays the caller's and must outlive its use; what it held is
    /// gone. Empty memory: no record is kept. Until the first call, 1 MiB of the framework's own is used.
    /// RangeError where the memory is less than 8192 bytes.
    void memoryIs(std::span<std::byte> memory);

    /// The time of the records that follow, in nanoseconds since 1970 (UTC).
    void timeIs(std::uint64_t time);
    std::uint64_t time() const { return time_; }

    /// Number of the next record, and of the oldest one that is still there; equal: the ring is empty.
    std::uint64_t next() const { return next_; }
    std::uint64_t oldest() const { return space_ == nullptr ? next_ : tail().number; }

  private:
    friend class TraceRingWalk;

    // A place where a slice begins.
    struct Mark {
        std::uint64_t offset = 0;
        std::uint64_t number = 0; // of the record there
        std::uint64_t time = 0;   // that holds there
    };

    [[gnu::cold]] std::byte* makeRoom(std::size_t size);
    void beginLap();
    void beginSlice();
    std::uint64_t head() const { return lap_ + static_cast<std::uint64_t>(cursor_ - space_); }
    const Mark& tail() const { return marks_[firstMark_ % markCapacity]; }

    // Written by every record.
    std::byte* cursor_ = nullptr; // where the next record goes
    std::byte* limit_ = nullptr;  // how far it may go: the slice's end
    std::byte* space_ = nullptr;  // the record space
    TraceRingHeader* header_ = nullptr;
    std::uint64_t next_ = 0;
    bool on_ = true;

    std::uint64_t capacity_ = 0;
    std::uint64_t lap_ = 0;
    std::uint64_t time_ = 0;
    std::byte* timeEnd_ = nullptr;   // end of the time record, while it is the latest record
    std::byte* ownMemory_ = nullptr; // the framework's own, while it is used

    // The slices' beginnings, the tail first; marks firstMark_ to endMark_ (counted for ever) are there.
    // Slices are half full at least, but for the last one of a lap, so there are never more than 64 * 2 and a
    // few.
    static constexpr std::uint64_t markCapacity = 160;
    Mark marks_[markCapacity] = {};
    std::uint64_t firstMark_ = 0;
    std::uint64_t endMark_ = 0;
};

/// The clock, in nanoseconds since 1970 (UTC).
std::uint64_t traceNow();

/// The process's ring.
extern TraceRing traceRing;

/// Goes through the records of the ring, from the oldest on. Nothing may be traced meanwhile. It never reads
/// outside the ring's memory, whatever that holds.
class TraceRingWalk {
  public:
    explicit TraceRingWalk(const TraceRing& ring);

    /// Steps to the next record of a call site; false at the end and at a damaged place, where `number` is
    /// that of the record that should be there.
    bool next();
    /// Whether the walk has ended because what stands there cannot be a record.
    bool isDamaged() const { return damaged_; }

    std::uint64_t number() const { return number_; }
    std::uint64_t time() const { return time_; }
    std::uint32_t event() const { return event_; }
    std::span<const std::byte> values() const { return values_; }

  private:
    const TraceRing& ring_;
    std::uint64_t offset_;
    std::uint64_t number_;
    std::uint64_t time_;
    std::uint32_t event_ = 0;
    bool damaged_ = false;
    std::span<const std::byte> values_;
};

} // namespace State
