// A simulated camera on disk: what it is, what it holds, how it misbehaves, what was asked of it.
//
// The camera's driver is loaded, unloaded and loaded again within one process, and the test that watches it is another
// process: all state lives in the camera's folder.
//
//   description   what the camera says about itself, KEY=VALUE
//   storages/ID/  the files of a storage; ID: eight hexadecimal digits
//   names         file names that no file system would take: PATH, a blank, the name that is reported
//   faults        one fault a line
//   log           what was asked of the camera and what it answered, one line each
//   openings      one byte for each time that the camera was opened
//   unplugged     present once the camera has been pulled out

#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tsbackup::test {

enum PtpOperation : std::uint16_t {
    get_device_info = 0x1001,
    open_session = 0x1002,
    close_session = 0x1003,
    get_storage_ids = 0x1004,
    get_storage_info = 0x1005,
    get_num_objects = 0x1006,
    get_object_handles = 0x1007,
    get_object_info = 0x1008,
    get_object = 0x1009,
    delete_object = 0x100b,
    get_device_prop_desc = 0x1014,
    get_device_prop_value = 0x1015,
    // What happens at the port, told by the same means.
    port_open = 0xfffe,
    port_interrupt = 0xffff, ///< the host asks for an event
};

enum PtpResponse : std::uint16_t {
    ok = 0x2001,
    general_error = 0x2002,
    session_not_open = 0x2003,
    operation_not_supported = 0x2005,
    parameter_not_supported = 0x2006,
    incomplete_transfer = 0x2007,
    invalid_storage = 0x2008,
    invalid_handle = 0x2009,
    access_denied = 0x200f,
    invalid_parent = 0x201a,
    device_busy = 0x2019,
    session_already_open = 0x201e,
};

/// What a camera says about itself.
struct CameraDescription {
    std::string manufacturer = "Zeno Optics";
    std::string model = "Model 3.1";
    std::string serial = "0042";
    bool is_camera = true; ///< otherwise a device of another class, which no camera driver takes
    std::vector<std::uint16_t> operations = {get_device_info,    open_session,         close_session,
                                             get_storage_ids,    get_storage_info,     get_num_objects,
                                             get_object_handles, get_object_info,      get_object,
                                             delete_object,      get_device_prop_desc, get_device_prop_value};
};

enum class FaultKind : char {
    response = 'r',   ///< `value`: the response code, without data
    cut = 'c',        ///< `value` bytes of the data arrive, then every read fails until the next command
    port_error = 'p', ///< `value`: the negative result of every read until the next command; of the call itself at
                      ///< `port_open` and `port_interrupt`
    unplug = 'u',     ///< `value` bytes of the data arrive, then the camera is gone
};

/// Something that goes wrong, when all of its conditions hold.
struct CameraFault {
    std::uint16_t operation = 0; ///< 0: whatever is asked
    FaultKind kind = FaultKind::response;
    std::int64_t value = general_error;
    int opening = 0;         ///< the opening of the camera in which it happens, from 1; 0: in each
    int call = 0;            ///< the call of the operation in that opening, from 1; 0: at each
    bool from_then = false;  ///< at that call and at all later ones of the opening
    std::string object = {}; ///< "STORAGE/PATH" of the only object with which it happens; empty: with all
};

/// Text without blanks and line ends: those, "%" and "=" stand as "%XX".
std::string percent_encoded(std::string_view text);
std::string percent_decoded(std::string_view text);

std::string storages_folder(const std::string &device);
CameraDescription description_read(const std::string &device);
void description_write(const std::string &device, const CameraDescription &description);
std::vector<CameraFault> faults_read(const std::string &device);
void fault_append(const std::string &device, const CameraFault &fault);
/// The reported names of the objects ("STORAGE/PATH") that have one of their own.
std::map<std::string, std::string> names_read(const std::string &device);
void name_append(const std::string &device, const std::string &object, const std::string &name);
void log_append(const std::string &device, const std::string &line);
/// Counts one more opening; which one it is.
int opening_count(const std::string &device);
bool unplugged(const std::string &device);
void unplug(const std::string &device);

} // namespace tsbackup::test
