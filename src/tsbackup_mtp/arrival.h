// What a device is called from its arrival on.

#pragma once

#include <gphoto2/gphoto2-widget.h>
#include <string>

namespace tsbackup {

/// What a device is queued as.
struct DeviceIdentity {
    int kind = 0;       ///< 1 PTP camera, 2 MTP device, 0 neither
    std::string serial; ///< of the device manager, sanitized
    std::string bus;    ///< at most 7 characters
    std::string device; ///< at most 7 characters
};

/// What a camera says of itself.
struct CameraIdentity {
    std::string manufacturer; ///< at most 15 characters
    std::string model;        ///< at most 15 characters
    std::string serial;       ///< at most 31 characters
};

/// Replaces every "." and every white-space character by "_", in place.
std::string &sanitize_name(std::string &text);

/// The device's name by what the camera says: at most 63 characters, sanitized, and one component of a path.
std::string device_name(const CameraIdentity &camera);

/// The device's name by what the device manager says; the same holds for it.
std::string device_name(const DeviceIdentity &device);

/// Reads what a camera's configuration says of it, cut to its fields. 0, or -2 at the first text that is missing,
/// however it is.
int camera_identity_read(CameraWidget *tree, CameraIdentity &camera);

/// 2 when the environment marks an MTP device, 1 for a PTP camera, 0 for neither.
int device_kind();

/// Puts a device's import into the queue of camera imports and tells the management daemon.
void camera_import_queue(const DeviceIdentity &device, const std::string &name);

} // namespace tsbackup
