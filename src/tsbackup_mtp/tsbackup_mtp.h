// Import of pictures, films and sounds from a camera on a USB port: the hook that queues an import when a camera
// arrives, and the worker that runs one.
//
// Both roles take the character type of the process's locale as UTF-8 before they speak to a camera, so that names
// which differ in any letter stay different. Everything else of the locale stays as it is.

#pragma once

namespace tsbackup {

/// Decides whether the device that the environment describes is to be imported, and queues the import under the name
/// that the camera gives itself. Nothing is copied.
///
/// Returns 0 when imports are disabled, -1 for a device that is no camera or lacks an identity, the failure of opening
/// the camera, and otherwise the result of asking it for its name: 0, the camera library's error, or -2 when a part of
/// the name is missing. With such a result the import is queued all the same, under the serial text of the environment.
/// A queue that does not take the request changes no result.
int camera_arrival();

/// Imports one camera. `kind`: 1 in decimal, anything else is refused; `bus` and `device`: the numbers of its port;
/// `name`: its name in paths, logs and events. Null for what was not given.
///
/// Does nothing and returns 0 when imports are disabled. Otherwise the import's course is told by its status file, its
/// events and its log; the result is 0, also when only the deletion of the imported files failed, or the failure's
/// reason: 100 (the camera cannot be used or listed), 101 (the destination, or anything else), 104 (bad input or an
/// unsupported device). The working folder is left changed.
int perform_mtpbackup(const char *kind, const char *bus, const char *device, const char *name);

} // namespace tsbackup
