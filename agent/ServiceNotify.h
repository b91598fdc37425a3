// Tells the service manager that started the agent how it fares, over the datagram socket that NOTIFY_SOCKET
// names. Without that variable nothing happens. The protocol is that of sd_notify(3), spoken by hand.
#pragma once

#include <string_view>

namespace Agent {

/// Sends one state to the service manager, such as "READY=1" or "STOPPING=1".
/// @return whether it was handed over; false also when no manager asked for it.
bool notifyService(std::string_view state);

} // namespace Agent
