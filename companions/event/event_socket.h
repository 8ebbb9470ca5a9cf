// Where events arrive.

#pragma once

#include "tsbackup/owners.h"

#include <optional>
#include <string>

namespace tsbackup {

/// A datagram socket at `path`, for root alone, in place of one that nobody listens on any more; its folder is made
/// when it is not there. Invalid after the failure was told.
UniqueFd event_socket_bind(const std::string &path);

/// Uses a datagram socket that the service manager hands over. Invalid after the failure was told.
UniqueFd event_socket_inherit(UniqueFd descriptor);

/// The next datagram, or nothing when there is none at this moment. One that is too long is told and comes cut.
std::optional<std::string> event_socket_receive(int socket);

} // namespace tsbackup
