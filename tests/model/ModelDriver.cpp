#include "tests/model/ModelDriver.h"

#include "tests/model/NaiveModel.h"
#include "tests/model/OperationSource.h"
#include "tests/model/ProductUnderTest.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <stdexcept>
#include <tuple>
#include <utility>
#include <vector>

namespace Model {

namespace {

std::optional<std::uint64_t> numberFromEnvironment(const char* name) {
    const char* given = std::getenv(name);
    if (given == nullptr)
        return std::nullopt;
    char* end = nullptr;
    const std::uint64_t number = std::strtoull(given, &end, 10);
    if (*given < '0' || *given > '9' || *end != '\0')
        throw std::invalid_argument(std::string(name) + " is not a number: \"" + given + "\"");
    return number;
}

using Operations = std::vector<Operation>;

std::string listed(const Operations& operations, std::size_t last) {
    const std::size_t skipped = operations.size() - std::min(last, operations.size());
    std::string result = skipped == 0 ? "" : "# ... " + std::to_string(skipped) + " before\n";
    for (std::size_t at = skipped; at < operations.size(); ++at)
        result += line(productSource(), operations[at]) + "\n";
    return result;
}

// Tells on SIGABRT which operations came before: a system that ends the process can't be compared. The
// signal comes from abort() on this thread, outside of allocation, so printing from the handler is safe
// enough.
class AbortReport {
  public:
    AbortReport(std::uint64_t seed, const Operations& operations)
        : previous_(std::signal(SIGABRT, tell)) {
        seed_ = seed;
        operations_ = &operations;
    }
    ~AbortReport() {
        std::signal(SIGABRT, previous_);
        operations_ = nullptr;
    }
    AbortReport(const AbortReport&) = delete;
    AbortReport& operator=(const AbortReport&) = delete;

  private:
    static void tell(int) {
        std::fprintf(stderr,
                     "the system ended the process; repeat with KESTREL_TEST_SEED=%llu; operations:\n%s",
                     static_cast<unsigned long long>(seed_), listed(*operations_, 40).c_str());
        std::signal(SIGABRT, SIG_DFL);
    }

    static inline std::uint64_t seed_ = 0;
    static inline const Operations* operations_ = nullptr;
    void (*previous_)(int) = nullptr;
};

// The model and the plug-in, to which the same is done.
struct Pair {
    NaiveModel model{productSource()};
    ProductUnderTest product;

    bool agree() { return model.observe() == product.observe(); }
    std::string disagreement() { return difference(model.observe(), product.observe()); }
};

// The operations of one episode up to the first disagreement; nothing when there was none.
std::optional<Operations> failingEpisode(std::uint64_t seed, std::size_t length) {
    Pair pair;
    OperationSource source(seed);
    Operations operations;
    const AbortReport onAbort(seed, operations);
    while (operations.size() < length) {
        Operation operation = source.draw(pair.model.world());
        if (pair.model.apply(operation) != Outcome::done)
            continue;
        operations.push_back(std::move(operation));
        pair.product.apply(operations.back());
        if (!pair.agree())
            return operations;
    }
    return std::nullopt;
}

// Those of the operations that are allowed, up to the first disagreement, with what differs then.
std::optional<std::pair<Operations, std::string>> failingReplay(const Operations& operations) {
    Pair pair;
    Operations done;
    for (const Operation& operation : operations) {
        if (pair.model.apply(operation) != Outcome::done)
            continue;
        done.push_back(operation);
        pair.product.apply(operation);
        if (!pair.agree())
            return {{done, pair.disagreement()}};
    }
    return std::nullopt;
}

std::string report(std::uint64_t seed, Operations operations) {
    std::string disagreement = "  nothing: the disagreement did not come again\n";
    const AbortReport onAbort(seed, operations);
    if (const auto again = failingReplay(operations))
        disagreement = again->second;
    for (std::size_t chunk = operations.size() / 2; chunk > 0; chunk /= 2) {
        for (std::size_t from = 0; from < operations.size();) {
            const std::size_t to = std::min(from + chunk, operations.size());
            Operations fewer = operations;
            fewer.erase(fewer.begin() + std::ptrdiff_t(from), fewer.begin() + std::ptrdiff_t(to));
            if (auto failing = failingReplay(fewer))
                std::tie(operations, disagreement) = *std::move(failing);
            else
                from = to;
        }
    }
    return "model and plug-in disagree; repeat with KESTREL_TEST_SEED=" + std::to_string(seed) +
           "\nthinned out to:\n" + listed(operations, 60) + "what differs:\n" + disagreement;
}

} // namespace

Settings Settings::fromEnvironment() {
    Settings settings;
    settings.seed = numberFromEnvironment("KESTREL_TEST_SEED").value_or(std::random_device()());
    settings.operations = numberFromEnvironment("KESTREL_MODEL_OPS").value_or(settings.operations);
    return settings;
}

std::optional<std::string> disagreementOfModelAndPlugIn(const Settings& settings) {
    std::size_t left = settings.operations;
    for (std::uint64_t seed = settings.seed; left > 0; ++seed) {
        const std::size_t length = std::min(left, settings.episodeLength);
        left -= length;
        if (const auto failing = failingEpisode(seed, length))
            return report(seed, *failing);
    }
    return std::nullopt;
}

} // namespace Model
