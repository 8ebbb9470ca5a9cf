#pragma once

#include <functional>
#include <optional>
#include <string>

namespace tsbackup {

/// A USB disk that the appliance has attached.
struct UsbStorage {
    std::string mount_name; ///< it is mounted at "/media/" and this name
    std::string device;     ///< kernel device name
    std::string port;       ///< number of the port, as text
};

/// The disk that a line of the table describes; nothing for a line that has not exactly ten fields. White space at
/// the line's end counts for nothing.
std::optional<UsbStorage> usb_storage_parse(std::string line);

/// The first disk in the table of USB storage that `wanted` accepts; nothing when there is none or no table.
std::optional<UsbStorage> usb_storage_find(const std::function<bool(const UsbStorage &)> &wanted);

} // namespace tsbackup
