// What the suites share that time plain loops: quick mode, clocks, and rows "name, figure, reference, ratio,
// goal, reached". The reference is what a figure is held against: a floor, a peer, the smallest size. Others
// use the machine's cores too. So what happens in this thread is measured in the processor's time for it, a
// goal is always a ratio of two figures of one run, and the figures are taken in turn, each the least or the
// median of several passes.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <ratio>
#include <utility>
#include <vector>

namespace Bench {

/// Time that this thread had the processor; a reading costs some 200 ns.
struct ThreadClock {
    using rep = std::int64_t;
    using period = std::nano;
    using duration = std::chrono::nanoseconds;
    using time_point = std::chrono::time_point<ThreadClock>;
    static constexpr bool is_steady = true;

    static time_point now() {
        timespec time{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return time_point(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
    }
};
/// Time that passed, for what other processes do as well.
using WallClock = std::chrono::steady_clock;

/// Whether less is measured, to be done in seconds.
inline const bool quick = std::getenv("KESTREL_BENCH_QUICK") != nullptr;

/// Nanoseconds each of `count` took.
inline double nanosecondsEach(std::chrono::nanoseconds time, std::size_t count) {
    return std::chrono::duration<double, std::nano>(time).count() / static_cast<double>(count);
}

/// Nanoseconds for each of the `count` things that body() does.
template <class Clock = ThreadClock, class Body>
double timeEach(std::size_t count, Body body) {
    const auto begin = Clock::now();
    body();
    return nanosecondsEach(Clock::now() - begin, count);
}

/// The least of several passes, which is the one least disturbed. pass() yields a figure.
template <class Pass>
double leastOf(int passes, Pass pass) {
    double least = std::numeric_limits<double>::max();
    for (int i = 0; i < passes; ++i)
        least = std::min(least, pass());
    return least;
}

/// The least of several passes of each of two, taken in turn.
template <class One, class Other>
std::pair<double, double> leastOfTwo(int passes, One one, Other other) {
    std::pair least(std::numeric_limits<double>::max(), std::numeric_limits<double>::max());
    for (int i = 0; i < passes; ++i) {
        least.first = std::min(least.first, one());
        least.second = std::min(least.second, other());
    }
    return least;
}

/// The value below which the `share` (0 to 1) of the figures lies; 0.5 is the median.
inline double quantile(std::vector<double> figures, double share = 0.5) {
    const auto at = static_cast<std::ptrdiff_t>(static_cast<double>(figures.size() - 1) * share);
    std::nth_element(figures.begin(), figures.begin() + at, figures.end());
    return figures[static_cast<std::size_t>(at)];
}

/// Prints one table as it goes, and appends it as Markdown to the file that KESTREL_BENCH_TABLE names.
class Report {
  public:
    /// `unit` is that of figures and references.
    Report(const char* title, const char* unit, const char* reference)
        : file_(openFile()) {
        std::printf("\n%-58s %12s %12s %9s %8s  %s\n", title, unit, reference, "ratio", "goal", "reached");
        markdown("\n| %s | %s | %s | ratio | goal | reached |\n|---|--:|--:|--:|--:|---|\n", title, unit,
                 reference);
    }
    ~Report() {
        if (file_ != nullptr)
            std::fclose(file_);
    }
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    /// The figure alone.
    void row(const char* name, double figure) {
        std::printf("%-58s %12.1f\n", name, figure);
        markdown("| %s | %.1f | | | | |\n", name, figure);
    }
    /// The figure, which is to be `goal` at most, in its own unit.
    void limit(const char* name, double figure, double goal) {
        const char* reached = yesNo(figure <= goal);
        std::printf("%-58s %12.1f %12s %9s %8.4g  %s\n", name, figure, "", "", goal, reached);
        markdown("| %s | %.1f | | | %.4g | %s |\n", name, figure, goal, reached);
    }
    /// Ratio figure to reference, which is to be `goal` at most; 0: no goal is set.
    void atMost(const char* name, double figure, double reference, double goal = 0) {
        const double ratio = figure / reference;
        line(name, figure, reference, ratio, goal, ratio <= goal);
    }
    /// Ratio reference to figure, which is to be `goal` at least; 0: no goal is set.
    void timesBetter(const char* name, double figure, double reference, double goal = 0) {
        const double ratio = reference / figure;
        line(name, figure, reference, ratio, goal, ratio >= goal);
    }

  private:
    static std::FILE* openFile() {
        const char* name = std::getenv("KESTREL_BENCH_TABLE");
        return name == nullptr ? nullptr : std::fopen(name, "a");
    }
    static const char* yesNo(bool reached) { return reached ? "yes" : "no"; }
    template <class... Pieces>
    void markdown(const char* format, Pieces... pieces) {
        if (file_ != nullptr)
            std::fprintf(file_, format, pieces...); // NOLINT(clang-diagnostic-format-nonliteral)
    }
    void line(const char* name, double figure, double reference, double ratio, double goal, bool reached) {
        std::printf("%-58s %12.1f %12.1f %8.2fx", name, figure, reference, ratio);
        markdown("| %s | %.1f | %.1f | %.2fx |", name, figure, reference, ratio);
        if (goal != 0) {
            std::printf(" %7.4gx  %s", goal, yesNo(reached));
            markdown(" %.4gx | %s |\n", goal, yesNo(reached));
        } else {
            markdown(" | |\n");
        }
        std::printf("\n");
        std::fflush(stdout);
    }

    std::FILE* file_;
};

/// Ends the program: what it measured was not the work it was to measure.
[[noreturn]] inline void refuse(const char* why) {
    std::fprintf(stderr, "not measured: %s\n", why);
    std::exit(1);
}

} // namespace Bench
