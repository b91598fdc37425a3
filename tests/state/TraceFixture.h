// What the tests of the trace log share: a ring and a text trace of their own.
#pragma once

#include "state/Trace.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <vector>

using Texts = std::vector<std::string>;

inline Texts messages(const std::vector<State::TraceRecord>& records) {
    Texts texts;
    for (const auto& record : records)
        texts.push_back(record.message);
    return texts;
}

// Every level of facility "TraceTest" is written, into `lines_`.
class TraceTest : public testing::Test {
  protected:
    TraceTest() {
        ringIs(65536);
        State::traceLevelIs("TraceTest", 9);
        State::traceSinkIs(
            [](void* lines, const State::TraceRecord& record) {
                static_cast<std::vector<State::TraceRecord>*>(lines)->push_back(record);
            },
            &lines_);
    }
    ~TraceTest() override {
        State::traceRingIs({});
        State::traceLevelIs("TraceTest", 0);
        State::traceSinkIs(nullptr, nullptr);
    }

    // A ring in a heap block of exactly that size, so that a sanitizer sees a step outside it.
    void ringIs(std::size_t bytes, std::size_t misaligned = 0) {
        State::traceRingIs({});
        memory_ = std::make_unique<std::byte[]>(bytes + misaligned);
        ring_ = {memory_.get() + misaligned, bytes};
        State::traceRingIs(ring_);
    }

    // The latest message, as text and as read back from the ring.
    std::string lastLine() const { return lines_.back().message; }
    static std::string lastRecord() { return State::traceRecordsLast(1).at(0).message; }
    void expectLast(const std::string& line, const std::string& record) const {
        EXPECT_EQ(lastLine(), line);
        EXPECT_EQ(lastRecord(), record);
    }
    void expectLast(const std::string& both) const { expectLast(both, both); }

    std::vector<State::TraceRecord> lines_;
    std::unique_ptr<std::byte[]> memory_;
    std::span<std::byte> ring_;
};
