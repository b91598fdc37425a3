#include "ctl/Client.h"

#include "text/JsonWriter.h"

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/read_until.hpp>
#include <asio/signal_set.hpp>
#include <asio/streambuf.hpp>
#include <asio/write.hpp>

#include <sys/un.h>

#include <cerrno>
#include <csignal>
#include <utility>

namespace Ctl {

namespace {

// The message, and where the fault is as far as the message does not say so itself.
std::string textOf(const Message& error) {
    std::string text = error.findText("message").value_or("the agent refuses without a message");
    const std::optional<Message> data = error.find("data");
    if (!data)
        return text;
    std::string where;
    for (const char* name : {"path", "attribute", "field"}) {
        const std::optional<std::string> value = data->findText(name);
        if (value && text.find(*value) == std::string::npos)
            where += (where.empty() ? "" : ", ") + (name + (" " + *value));
    }
    return where.empty() ? text : text + " (" + where + ")";
}

std::string whyNot(const asio::error_code& error, const std::string& path) {
    switch (error.value()) {
    case ENOENT:
        return "no agent at " + path + ": there is no such socket; --socket names another";
    case ECONNREFUSED:
        return "no agent at " + path + ": the one that made the socket has gone";
    case EACCES:
    case EPERM:
        return "the agent at " + path + " serves its own user only: permission denied";
    default:
        return "no agent at " + path + ": " + error.message();
    }
}

} // namespace

AgentError::AgentError(const Message& error)
    : std::runtime_error(textOf(error))
    , object_(error) {}

bool AgentError::isUsage() const {
    const std::optional<Message> data = object_.find("data");
    // With a line's number it is a line of a file.
    return data && data->findNumber("word") && !data->find("line");
}

struct Client::Connection {
    // Bytes of the first line that was received, without its newline.
    std::optional<std::size_t> lineLength() const;
    std::string_view bytes() const;
    // Waits for a line or the connection's end; false when the wait ended without.
    bool awaitLine(std::optional<Clock::time_point> deadline, bool endsOnInterrupt);

    asio::io_context context;
    asio::local::stream_protocol::socket socket{context};
    asio::signal_set signals{context};
    asio::streambuf received;
    asio::error_code readError;
    bool isReading = false; // a read outlives a wait that ended without it
    bool isInterrupted = false;
};

std::string_view Client::Connection::bytes() const {
    return {static_cast<const char*>(received.data().data()), received.size()};
}

std::optional<std::size_t> Client::Connection::lineLength() const {
    const std::size_t end = bytes().find('\n');
    return end == std::string_view::npos ? std::nullopt : std::optional(end);
}

bool Client::Connection::awaitLine(std::optional<Clock::time_point> deadline, bool endsOnInterrupt) {
    if (lineLength() || readError)
        return true;
    if (!std::exchange(isReading, true))
        asio::async_read_until(socket, received, '\n', [this](const asio::error_code& error, std::size_t) {
            readError = error;
            isReading = false;
        });
    context.restart();
    while (isReading && !(endsOnInterrupt && isInterrupted))
        if ((deadline ? context.run_one_until(*deadline) : context.run_one()) == 0)
            return false;
    return !isReading;
}

Client::Client(const std::string& path)
    : path_(path)
    , connection_(std::make_unique<Connection>()) {
    if (path.empty() || path.size() >= sizeof sockaddr_un::sun_path)
        throw ConnectionError("no agent at '" + path + "': a socket's path has 1 to " +
                              std::to_string(sizeof sockaddr_un::sun_path - 1) + " bytes");
    asio::error_code error;
    connection_->socket.connect(path, error);
    if (error)
        throw ConnectionError(whyNot(error, path));
}

Client::~Client() = default;

Message Client::call(std::string_view method, const Text::Tell& params) {
    const std::int64_t id = ++lastId_;
    std::string request;
    Text::JsonWriter writer(request);
    writer.beginRecord();
    writer.member("jsonrpc", "2.0");
    writer.member("id", id);
    writer.member("method", method);
    writer.field("params");
    writer.beginRecord();
    params(writer);
    writer.end();
    writer.end();
    if (request.size() > messageLimit)
        throw std::runtime_error("the request has " + std::to_string(request.size()) +
                                 " bytes, the agent takes " + std::to_string(messageLimit));
    send(request += '\n');
    for (;;) {
        std::string line = takeLine();
        const std::optional<Message> message = Message::parse(line);
        if (!message)
            lost("it speaks another language");
        if (message->find("method")) {
            notifications_.push_back(std::move(line));
            continue;
        }
        // Without an id the agent refuses something as a whole, such as one client too many.
        if (const std::optional<Message> error = message->find("error"))
            throw AgentError(*error);
        std::optional<Message> result = message->find("result");
        if (message->findNumber("id") != id || !result)
            lost("it answers another question");
        return *std::move(result);
    }
}

void Client::endOnInterrupt() {
    asio::signal_set& signals = connection_->signals;
    signals.add(SIGINT);
    signals.add(SIGTERM);
    signals.async_wait([connection = connection_.get()](const asio::error_code& error, int) {
        connection->isInterrupted = !error;
    });
}

std::optional<Message> Client::notification(std::optional<Clock::time_point> deadline) {
    if (notifications_.empty()) {
        if (!connection_->awaitLine(deadline, true))
            return std::nullopt;
        notifications_.push_back(takeLine());
    }
    const std::optional<Message> message = Message::parse(notifications_.front());
    notifications_.pop_front();
    std::optional<Message> params = message ? message->find("params") : std::nullopt;
    if (!params)
        lost("it speaks another language");
    return params;
}

bool Client::hasNotification() const {
    return !notifications_.empty() || connection_->lineLength();
}

void Client::send(std::string_view text) {
    asio::error_code error;
    asio::write(connection_->socket, asio::buffer(text), error);
    // One that has gone may have said why before it went.
    if (error && error != asio::error::broken_pipe && error != asio::error::connection_reset)
        lost(error.message());
}

std::string Client::takeLine() {
    connection_->awaitLine(std::nullopt, false);
    const std::optional<std::size_t> length = connection_->lineLength();
    if (!length)
        lost(connection_->readError == asio::error::eof ? "it closed the connection"
                                                        : connection_->readError.message());
    std::string line(connection_->bytes().substr(0, *length));
    connection_->received.consume(*length + 1);
    return line;
}

void Client::lost(const std::string& why) const {
    throw ConnectionError("the agent at " + path_ + " is lost: " + why);
}

} // namespace Ctl
