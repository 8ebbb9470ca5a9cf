#include "arrival.h"

#include "connection.h"
#include "services.h"
#include "tsbackup/log.h"
#include "tsbackup/paths.h"
#include "tsbackup_mtp.h"
#include "tsbackup_utils.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <optional>

namespace tsbackup {

namespace {

constexpr int kPtpCamera = 1;
constexpr int kMtpDevice = 2;
constexpr std::size_t kNumberSize = 8;
constexpr std::size_t kManufacturerSize = 16;
constexpr std::size_t kModelSize = 16;
constexpr std::size_t kSerialSize = 32;
constexpr std::size_t kNameSize = 64;
constexpr char kNamedByModel[] = "Apple Inc"; ///< its cameras are named by model and serial alone
constexpr std::int32_t kQueuedStatus = 5;
constexpr QueueSender kSender{TSBACKUP_UNIT, paths::camera_queue_pipe, true};

/// As much of a text as a buffer of that size holds with its terminator.
std::string cut(const char *text, std::size_t size) { return std::string(text, strnlen(text, size - 1)); }

bool is_marked(const char *variable) {
    const char *mark = std::getenv(variable);
    return mark != nullptr && std::strcmp(mark, "1") == 0;
}

/// A name that becomes part of paths must not hold more than one component.
std::string one_component(std::string name) {
    sanitize_name(name);
    replace_char(name, '/', '_');
    return name;
}

std::optional<DeviceIdentity> device_identity(int kind) {
    const char *serial = std::getenv("ID_SERIAL");
    const char *bus = std::getenv("BUSNUM");
    const char *device = std::getenv("DEVNUM");
    if (serial == nullptr || bus == nullptr || device == nullptr) return std::nullopt;
    std::string name = serial;
    return DeviceIdentity{kind, sanitize_name(name), cut(bus, kNumberSize), cut(device, kNumberSize)};
}

/// Reads one text of the camera's configuration. However it fails, it is missing: -2.
int read_text(CameraWidget *tree, const char *name, std::size_t size, std::string &text) {
    CameraWidget *widget = nullptr;
    const char *value = nullptr;
    if (camset_widget_text(tree, widget, name, value) != GP_OK || value == nullptr) return GP_ERROR_BAD_PARAMETERS;
    text = cut(value, size);
    return GP_OK;
}

/// Asks the camera what it is. 0, the library's error, or -2 when a text is missing.
int read_identity(CameraSet &set, CameraIdentity &camera) {
    CameraWidget *tree = nullptr;
    const int result = gp_camera_get_config(set.camera.get(), &tree, set.context.get());
    const UniqueWidget config(tree);
    if (result < 0) {
        TSBACKUP_LOG(level::error, "gp_camera_get_config failed[%d]!\n", result);
        return result;
    }
    return camera_identity_read(config.get(), camera);
}

} // namespace

std::string &sanitize_name(std::string &text) {
    std::replace_if(
        text.begin(), text.end(),
        [](char character) { return character == '.' || std::isspace(static_cast<unsigned char>(character)) != 0; },
        '_');
    return text;
}

std::string device_name(const CameraIdentity &camera) {
    std::array<char, kNameSize> name{};
    if (camera.manufacturer.starts_with(kNamedByModel))
        str_snprintf(name.data(), name.size(), "%s_%s", camera.model.c_str(), camera.serial.c_str());
    else
        str_snprintf(name.data(), name.size(), "%s_%s_%s", camera.manufacturer.c_str(), camera.model.c_str(),
                     camera.serial.c_str());
    return one_component(name.data());
}

std::string device_name(const DeviceIdentity &device) { return one_component(cut(device.serial.c_str(), kNameSize)); }

int camera_identity_read(CameraWidget *tree, CameraIdentity &camera) {
    int result = read_text(tree, "/main/status/manufacturer", kManufacturerSize, camera.manufacturer);
    if (result != GP_OK) return result;
    result = read_text(tree, "/main/status/cameramodel", kModelSize, camera.model);
    if (result != GP_OK) return result;
    return read_text(tree, "/main/status/serialnumber", kSerialSize, camera.serial);
}

int device_kind() {
    if (is_marked("ID_MTP_DEVICE")) return kMtpDevice;
    return is_marked("ID_GPHOTO2") ? kPtpCamera : 0;
}

void camera_import_queue(const DeviceIdentity &device, const std::string &name) {
    char record[kQueueRecordSize] = {};
    const int length = std::snprintf(record, sizeof record, "enqueue:%d:%s:%s:%s\n", device.kind, device.bus.c_str(),
                                     device.device.c_str(), name.c_str());
    if (queue_record_send(kSender, record, std::min(length, static_cast<int>(kQueueRecordSize) - 1)) != 0) {
        TSBACKUP_LOG(level::error, "Enqueue mtp backup job %s %s %s failed.\n", name.c_str(), device.bus.c_str(),
                     device.device.c_str());
        return;
    }
    event_camera_queued(name.c_str(), kQueuedStatus);
}

int camera_arrival() {
    if (mtpbackup_enabled() != 1) return 0;
    const int kind = device_kind();
    if (kind == 0) {
        TSBACKUP_LOG(level::error, "NOT PTP/MTP device?\n");
        return -1;
    }
    const auto device = device_identity(kind);
    if (!device) {
        TSBACKUP_LOG(level::error, "Can't getenv for serialnum/busnum/devnum?\n");
        return -1;
    }

    CameraSet set;
    const int opened = camset_init(&set, camera_port_path(device->bus.c_str(), device->device.c_str()).c_str());
    if (opened != GP_OK) {
        TSBACKUP_LOG(level::warning, "init cam set failed\n");
        return opened;
    }
    CameraIdentity camera;
    const int result = read_identity(set, camera);
    if (result != GP_OK) TSBACKUP_LOG(level::warning, "Can't get camera config[ret=%d]\n", result);
    const std::string name = result == GP_OK ? device_name(camera) : device_name(*device);
    camset_free(set);
    camera_import_queue(*device, name);
    return result;
}

} // namespace tsbackup
