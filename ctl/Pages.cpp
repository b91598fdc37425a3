#include "ctl/Pages.h"

#include "ctl/Client.h"

#include <algorithm>

namespace Ctl {

namespace {

// Words in front of which none is "limit" or "after": the verb and what it is about.
constexpr std::ptrdiff_t leadingWords = 2;
// The word that says how many records are wanted: trace last COUNT.
constexpr std::size_t traceCount = 2;

} // namespace

bool Pages::beginAfter(const AgentError& refusal) {
    constexpr std::ptrdiff_t collectionWords = 3; // get PATH ATTRIBUTE
    const std::optional<Message> data = refusal.object().find("data");
    const bool isTooLarge = refusal.isLimit() && data && data->findText("field") == "limit";
    if (!isTooLarge || isCollection_ || words_.size() < collectionWords)
        return false;
    words_.insert(words_.begin() + collectionWords, {"limit", "1000"});
    return isCollection_ = true;
}

bool Pages::goOn(const Message& answer) {
    ++pages_;
    hasMore_ = false;
    if (isCollection_) {
        const std::vector<Message> members = answer.list("result");
        if (members.empty())
            return false;
        const Message& last = members.back();
        const bool isOfMap = last.find("key") && last.find("value");
        return goOnAfter((isOfMap ? last.at("key") : last).json());
    }
    const std::optional<Message> result = answer.find("result");
    const bool isOnePage = std::find(words_.begin(), words_.end(), "limit") != words_.end();
    if (!result || isOnePage || words_.size() < leadingWords)
        return false;
    if (const auto cursor = result->findText("more"))
        return goOnAfter(*cursor);
    const auto number = result->findNumber("more");
    if (!number || words_.size() <= traceCount)
        return false;
    const std::string wanted = words_[traceCount];
    words_[traceCount] = std::to_string(std::stoull(wanted) - result->list("records").size());
    return goOnAfter(std::to_string(*number));
}

// The place in the order of pages stands last in the line.
bool Pages::goOnAfter(const std::string& place) {
    const auto after = std::find(words_.begin() + leadingWords, words_.end(), "after");
    words_.erase(after, words_.end());
    words_.insert(words_.end(), {"after", place});
    return hasMore_ = true;
}

std::string Pages::textAmongOthers(std::string text) const {
    if (isCollection_)
        return text;
    if (pages_ > 1 && words_.front() == "show")
        text.erase(0, text.find('\n') + 1);
    if (hasMore_ && !text.empty())
        text.erase(text.rfind('\n', text.size() - 2) + 1);
    return text;
}

} // namespace Ctl
