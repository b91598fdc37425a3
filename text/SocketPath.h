// Where the agent's control socket is unless somebody says otherwise: one rule for the agent and its client.
#pragma once

#include <string>

namespace Text {

/// /run/kestrel-nat.sock as root, else $XDG_RUNTIME_DIR/kestrel-nat.sock.
/// @throws std::runtime_error when XDG_RUNTIME_DIR is needed and not set.
std::string defaultSocketPath(bool isRoot);

} // namespace Text
