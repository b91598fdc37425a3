// What an operation on the stores is refused with: what is wrong, and where. The control server makes an
// error object of it, the scenario player a line that names file and line.
#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace Agent {

/// The place that an error is about, as far as it has one.
struct Where {
    std::string path = {};
    std::string attribute = {};
    std::string field = {};                // of the key or value, if one is meant; else "key" or "value"
    std::optional<std::size_t> index = {}; // of the change in its list
};

class OperationError : public std::runtime_error {
  public:
    /// @param code one of RpcCode (JsonRpc.h): invalidParams, or refused when a guard refuses it.
    OperationError(int code, const std::string& message, Where where = {})
        : std::runtime_error(message)
        , where_(std::move(where))
        , code_(code) {}

    int code() const { return code_; }
    const Where& where() const { return where_; }
    void indexIs(std::size_t index) { where_.index = index; }

  private:
    Where where_;
    int code_;
};

} // namespace Agent
