#include "tests/model/ModelDriver.h"

#include "tests/model/Guards.h"
#include "tests/model/NaiveModel.h"
#include "tests/model/OperationSource.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <stdexcept>
#include <utility>

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

std::string listed(const std::vector<Operation>& operations, std::size_t last) {
    const std::size_t skipped = operations.size() - std::min(last, operations.size());
    std::string result = skipped == 0 ? "" : "  ... " + std::to_string(skipped) + " before\n";
    for (std::size_t at = skipped; at < operations.size(); ++at)
        result += "  " + text(operations[at]) + "\n";
    return result;
}

// Tells on SIGABRT which operations came before: a system that ends the process can't be compared. The
// signal comes from abort() on this thread, outside of allocation, so printing from the handler is safe
// enough.
class AbortReport {
  public:
    AbortReport(std::uint64_t seed, const std::vector<Operation>& operations)
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
    static inline const std::vector<Operation>* operations_ = nullptr;
    void (*previous_)(int) = nullptr;
};

// A model and a system to which the same is done.
class Pair {
  public:
    Pair(Source source, std::unique_ptr<SystemUnderTest> system)
        : model_(source)
        , system_(std::move(system)) {}

    const NaiveModel& model() const { return model_; }

    bool agreeAfter(const Operation& operation) {
        try {
            apply(operation, model_);
            apply(operation, *system_);
        } catch (const std::exception& error) {
            thrown_ = error.what();
            return false;
        }
        return model_.observe() == system_->observe();
    }

    std::string disagreement() {
        return thrown_.empty() ? difference(model_.observe(), system_->observe())
                               : "  an exception: " + thrown_ + "\n";
    }

  private:
    NaiveModel model_;
    std::unique_ptr<SystemUnderTest> system_;
    std::string thrown_;
};

} // namespace

Settings Settings::fromEnvironment() {
    Settings settings;
    settings.seed = numberFromEnvironment("KESTREL_TEST_SEED").value_or(std::random_device()());
    settings.operations = numberFromEnvironment("KESTREL_MODEL_OPS").value_or(settings.operations);
    return settings;
}

ModelDriver::ModelDriver(Source source, SystemFactory makeSystem)
    : source_(source)
    , makeSystem_(std::move(makeSystem)) {}

std::optional<std::string> ModelDriver::run(const Settings& settings) {
    std::size_t left = settings.operations;
    for (std::uint64_t seed = settings.seed; left > 0; ++seed) {
        const std::size_t length = std::min(left, settings.episodeLength);
        left -= length;
        if (const std::optional<Operations> failing = failingEpisode(seed, length)) {
            const AbortReport onAbort(seed, *failing);
            return report(seed, thinnedOut(*failing));
        }
    }
    return std::nullopt;
}

std::optional<ModelDriver::Operations> ModelDriver::failingEpisode(std::uint64_t seed, std::size_t length) {
    Pair pair(source_, makeSystem_());
    OperationSource source(seed);
    Operations operations;
    const AbortReport onAbort(seed, operations);
    while (operations.size() < length) {
        operations.push_back(source.draw(pair.model()));
        if (!pair.agreeAfter(operations.back()))
            return operations;
    }
    return std::nullopt;
}

std::optional<ModelDriver::Operations> ModelDriver::failingReplay(const Operations& operations,
                                                                  std::string* disagreement) {
    Pair pair(source_, makeSystem_());
    Operations done;
    for (const Operation& operation : operations) {
        if (!allowed(operation, pair.model()))
            continue;
        done.push_back(operation);
        if (!pair.agreeAfter(operation)) {
            if (disagreement != nullptr)
                *disagreement = pair.disagreement();
            return done;
        }
    }
    return std::nullopt;
}

ModelDriver::Operations ModelDriver::thinnedOut(Operations operations) {
    for (std::size_t chunk = operations.size() / 2; chunk > 0; chunk /= 2) {
        for (std::size_t from = 0; from < operations.size();) {
            const std::size_t to = std::min(from + chunk, operations.size());
            Operations fewer = operations;
            fewer.erase(fewer.begin() + std::ptrdiff_t(from), fewer.begin() + std::ptrdiff_t(to));
            if (std::optional<Operations> failing = failingReplay(fewer))
                operations = *std::move(failing);
            else
                from = to;
        }
    }
    return operations;
}

std::string ModelDriver::report(std::uint64_t seed, const Operations& operations) {
    std::string disagreement = "  nothing: the disagreement did not come again\n";
    failingReplay(operations, &disagreement);
    return "model and system disagree; repeat with KESTREL_TEST_SEED=" + std::to_string(seed) +
           "\noperations, thinned out:\n" + listed(operations, 60) + "what differs:\n" + disagreement;
}

} // namespace Model
