// A port driver of the camera library that finds simulated cameras instead of the machine's USB devices. The library
// loads it from the folder that IOLIBS names, and its camera driver speaks through it as through any other.
//
// The folder that SIMULATED_CAMERAS names stands for the bus: each folder in it is a device, its name the port's
// ("usb:001,005").

#include "ptp.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <gphoto2/gphoto2-port-info-list.h>
#include <gphoto2/gphoto2-port-result.h>
#include <gphoto2/gphoto2-port.h>
#include <memory>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
namespace camera = tsbackup::test;

constexpr std::size_t kPacket = 512;
constexpr int kStillImage = 6;
constexpr int kCapture = 1;
constexpr int kPtp = 1;
constexpr int kGetDeviceStatus = 0x67;

} // namespace

// What the library keeps for a driver in each port.
struct _GPPortPrivateLibrary {
    std::unique_ptr<camera::PtpCamera> camera;
    std::deque<std::string> incoming; ///< transfers that the host has not read yet
    std::size_t read_of_first = 0;
    bool empty_packet = false; ///< a transfer of whole packets has been read up to the empty one that ends it
    int at_end = GP_ERROR_TIMEOUT;
};

// The library's table of a driver's functions; its layout is the library's, which does not install it.
struct GPPortOperations {
    int (*init)(GPPort *);
    int (*exit)(GPPort *);
    int (*open)(GPPort *);
    int (*close)(GPPort *);
    int (*read)(GPPort *, char *, int);
    int (*check_int)(GPPort *, char *, int, int);
    int (*write)(GPPort *, const char *, int);
    int (*update)(GPPort *);
    int (*get_pin)(GPPort *, GPPin, GPLevel *);
    int (*set_pin)(GPPort *, GPPin, GPLevel);
    int (*send_break)(GPPort *, int);
    int (*flush)(GPPort *, int);
    int (*find_device)(GPPort *, int, int);
    int (*find_device_by_class)(GPPort *, int, int, int);
    int (*clear_halt)(GPPort *, int);
    int (*msg_write)(GPPort *, int, int, int, char *, int);
    int (*msg_read)(GPPort *, int, int, int, char *, int);
    int (*msg_interface_write)(GPPort *, int, int, int, char *, int);
    int (*msg_interface_read)(GPPort *, int, int, int, char *, int);
    int (*msg_class_write)(GPPort *, int, int, int, char *, int);
    int (*msg_class_read)(GPPort *, int, int, int, char *, int);
    int (*seek)(GPPort *, int, int);
    int (*send_scsi_cmd)(GPPort *, int, char *, int, char *, int, char *, int);
    int (*reset)(GPPort *);
};

namespace {

std::string bus_folder() {
    const char *folder = std::getenv("SIMULATED_CAMERAS");
    return folder != nullptr ? folder : "";
}

std::string device_folder(GPPort *port) {
    GPPortInfo info = nullptr;
    char *path = nullptr;
    if (gp_port_get_info(port, &info) < GP_OK || gp_port_info_get_path(info, &path) < GP_OK) return "";
    return bus_folder() + "/" + path;
}

int port_init(GPPort *port) {
    port->pl = new GPPortPrivateLibrary;
    return GP_OK;
}

int port_exit(GPPort *port) {
    delete port->pl;
    port->pl = nullptr;
    return GP_OK;
}

int port_open(GPPort *port) {
    const std::string device = device_folder(port);
    if (!fs::is_directory(device)) return GP_ERROR_IO_USB_FIND;
    port->pl->camera = std::make_unique<camera::PtpCamera>(device);
    port->pl->incoming.clear();
    return port->pl->camera->port_failure(camera::port_open).value_or(GP_OK);
}

int port_close(GPPort *port) {
    port->pl->camera.reset();
    return GP_OK;
}

int port_write(GPPort *port, const char *bytes, int size) {
    GPPortPrivateLibrary &pl = *port->pl;
    if (!pl.camera) return GP_ERROR_BAD_PARAMETERS;
    const camera::PtpAnswer answer = pl.camera->command({bytes, static_cast<std::size_t>(size)});
    pl.incoming.assign(answer.transfers.begin(), answer.transfers.end());
    pl.read_of_first = 0;
    pl.empty_packet = false;
    pl.at_end = answer.then.value_or(GP_ERROR_TIMEOUT);
    return size;
}

/// As the bus does it: packets arrive until the buffer is full or one is short.
int port_read(GPPort *port, char *bytes, int size) {
    GPPortPrivateLibrary &pl = *port->pl;
    if (pl.empty_packet) {
        pl.empty_packet = false;
        return 0;
    }
    if (pl.incoming.empty()) return pl.at_end;
    const std::string &transfer = pl.incoming.front();
    const std::size_t room = static_cast<std::size_t>(size);
    const std::size_t left = transfer.size() - pl.read_of_first;
    // A packet that does not fit into what is left of the buffer is lost, and with it the whole read.
    if (left > room && room % kPacket != 0) return GP_ERROR_IO;
    const std::size_t count = std::min(left, room);
    std::memcpy(bytes, transfer.data() + pl.read_of_first, count);
    pl.read_of_first += count;
    if (count == left) {
        pl.empty_packet = transfer.size() % kPacket == 0 && count == room;
        pl.read_of_first = 0;
        pl.incoming.pop_front();
    }
    return static_cast<int>(count);
}

int port_check_int(GPPort *port, char *, int, int) {
    if (!port->pl->camera) return GP_ERROR_BAD_PARAMETERS;
    return port->pl->camera->port_failure(camera::port_interrupt).value_or(GP_ERROR_TIMEOUT);
}

int port_update(GPPort *port) {
    port->settings = port->settings_pending;
    return GP_OK;
}

/// The cameras here belong to no maker whose devices the library knows by number.
int find_device(GPPort *, int vendor, int) { return vendor == 0 ? GP_ERROR_BAD_PARAMETERS : GP_ERROR_IO_USB_FIND; }

int find_device_by_class(GPPort *port, int main_class, int sub_class, int protocol) {
    const std::string device = device_folder(port);
    if (main_class != kStillImage || sub_class != kCapture || protocol != kPtp || !fs::is_directory(device) ||
        camera::unplugged(device) || !camera::description_read(device).is_camera)
        return GP_ERROR_IO_USB_FIND;
    GPPortSettingsUSB &usb = port->settings.usb;
    usb.config = 1;
    usb.interface = 0;
    usb.altsetting = 0;
    usb.inep = 0x81;
    usb.outep = 0x02;
    usb.intep = 0x83;
    usb.maxpacketsize = kPacket;
    return GP_OK;
}

int clear_halt(GPPort *, int) { return GP_OK; }
int send_message(GPPort *, int, int, int, char *, int) { return GP_OK; }

int read_message(GPPort *, int request, int, int, char *bytes, int size) {
    constexpr char kReady[] = {4, 0, 0x01, 0x20};
    if (request != kGetDeviceStatus || size < static_cast<int>(sizeof kReady)) return GP_OK;
    std::memcpy(bytes, kReady, sizeof kReady);
    return sizeof kReady;
}

int reset(GPPort *port) {
    if (port->pl->camera) port->pl->camera->reset();
    return GP_OK;
}

void fill(GPPortOperations &table) {
    table.init = port_init;
    table.exit = port_exit;
    table.open = port_open;
    table.close = port_close;
    table.read = port_read;
    table.check_int = port_check_int;
    table.write = port_write;
    table.update = port_update;
    table.find_device = find_device;
    table.find_device_by_class = find_device_by_class;
    table.clear_halt = clear_halt;
    table.msg_write = send_message;
    table.msg_read = read_message;
    table.msg_interface_write = send_message;
    table.msg_interface_read = read_message;
    table.msg_class_write = send_message;
    table.msg_class_read = read_message;
    table.reset = reset;
}

int append_port(GPPortInfoList *list, const std::string &path) {
    GPPortInfo info = nullptr;
    gp_port_info_new(&info);
    gp_port_info_set_type(info, GP_PORT_USB);
    gp_port_info_set_name(info, "Universal Serial Bus");
    gp_port_info_set_path(info, path.c_str());
    return gp_port_info_list_append(list, info);
}

} // namespace

extern "C" {

GPPortType gp_port_library_type() { return GP_PORT_USB; }

int gp_port_library_list(GPPortInfoList *list) {
    std::vector<std::string> ports;
    std::error_code ignored;
    for (const auto &entry : fs::directory_iterator(bus_folder(), ignored))
        if (!camera::unplugged(entry.path())) ports.push_back(entry.path().filename());
    std::sort(ports.begin(), ports.end());
    for (const std::string &port : ports)
        if (const int result = append_port(list, port); result < GP_OK) return result;
    return GP_OK;
}

GPPortOperations *gp_port_library_operations() {
    // The library frees the table with the port.
    auto *table = static_cast<GPPortOperations *>(std::calloc(1, sizeof(GPPortOperations)));
    if (table != nullptr) fill(*table);
    return table;
}
}
