#include "ctl/Message.h"

#include <simdjson.h>

#include <utility>

namespace Ctl {

namespace {

template <class T>
T required(std::optional<T> member, std::string_view name) {
    if (!member)
        throw ConnectionError("the agent speaks another language: its message lacks a proper \"" +
                              std::string(name) + "\"");
    return *std::move(member);
}

} // namespace

struct Message::Node {
    std::shared_ptr<const simdjson::dom::document> document;
    simdjson::dom::element element;

    template <class T>
    std::optional<T> member(std::string_view name) const {
        T value{};
        if (element.at_key(name).get(value) != simdjson::SUCCESS)
            return std::nullopt;
        return value;
    }
};

Message::Message(Node node)
    : node_(std::make_shared<const Node>(std::move(node))) {}

std::optional<Message> Message::parse(const std::string& json) {
    thread_local simdjson::dom::parser parser; // its buffers serve all messages
    const auto document = std::make_shared<simdjson::dom::document>();
    simdjson::dom::element element;
    if (parser.parse_into_document(*document, json).get(element) != simdjson::SUCCESS || !element.is_object())
        return std::nullopt;
    return Message({document, element});
}

std::optional<Message> Message::find(std::string_view name) const {
    const auto member = node_->member<simdjson::dom::element>(name);
    return member ? std::optional(Message({node_->document, *member})) : std::nullopt;
}

std::optional<std::string> Message::findText(std::string_view name) const {
    const auto member = node_->member<std::string_view>(name);
    return member ? std::optional<std::string>(*member) : std::nullopt;
}

std::optional<std::int64_t> Message::findNumber(std::string_view name) const {
    return node_->member<std::int64_t>(name);
}

bool Message::isTrue(std::string_view name) const {
    return node_->member<bool>(name).value_or(false);
}

std::vector<Message> Message::list(std::string_view name) const {
    std::vector<Message> elements;
    if (const auto member = node_->member<simdjson::dom::array>(name))
        for (const simdjson::dom::element element : *member)
            elements.push_back(Message({node_->document, element}));
    return elements;
}

Message Message::at(std::string_view name) const {
    return required(find(name), name);
}

std::string Message::text(std::string_view name) const {
    return required(findText(name), name);
}

std::int64_t Message::number(std::string_view name) const {
    return required(findNumber(name), name);
}

std::string Message::json() const {
    return simdjson::minify(node_->element);
}

bool isUtf8(std::string_view text) {
    return simdjson::validate_utf8(text);
}

} // namespace Ctl
