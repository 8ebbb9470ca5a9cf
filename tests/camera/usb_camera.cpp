// A simulated camera on a simulated USB bus: plugged in while this program runs. Needs the kernel's dummy host
// controller (dummy_hcd) and functions in user space (usb_f_fs), as a guest of tests/vm has them.
//
//   usb_camera CAMERA    CAMERA: the folder of a simulated camera (device.h)
//
// Prints "plugged in" when the bus has the camera; SIGTERM pulls it out.

#include "ptp.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <endian.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/usb/functionfs.h>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/mount.h>
#include <sys/signalfd.h>
#include <thread>
#include <unistd.h>

namespace tsbackup::test {
namespace {

namespace fs = std::filesystem;

const std::string kGadgets = "/run/usb_camera/config";
const std::string kGadget = kGadgets + "/usb_gadget/camera";
const std::string kFunction = "/run/usb_camera/function";
constexpr std::size_t kPacket = 512;
constexpr std::size_t kPiece = std::size_t{64} * 1024;
// Requests of still-image devices.
constexpr std::uint8_t kCancel = 0x64;
constexpr std::uint8_t kReset = 0x66;
constexpr std::uint8_t kStatus = 0x67;

void put(const std::string &path, const std::string &text) {
    std::ofstream file(path);
    file << text << '\n';
    file.close();
    if (!file) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
}

void mount_kind(const char *kind, const char *name, const std::string &at) {
    fs::create_directories(at);
    if (mount(name, at.c_str(), kind, 0, nullptr) != 0)
        throw std::runtime_error(std::string("cannot mount ") + kind + ": " + std::strerror(errno));
}

// --- What the interface is ---

struct Interface {
    usb_interface_descriptor interface;
    usb_endpoint_descriptor_no_audio in;
    usb_endpoint_descriptor_no_audio out;
    usb_endpoint_descriptor_no_audio events;
} __attribute__((packed));

struct Descriptors {
    usb_functionfs_descs_head_v2 head;
    __le32 full_speed_count;
    __le32 high_speed_count;
    Interface full_speed;
    Interface high_speed;
} __attribute__((packed));

struct Strings {
    usb_functionfs_strings_head head;
    __le16 language;
    char name[7];
} __attribute__((packed));

usb_endpoint_descriptor_no_audio endpoint(int address, int kind, std::size_t packet, int interval) {
    usb_endpoint_descriptor_no_audio descriptor{};
    descriptor.bLength = sizeof descriptor;
    descriptor.bDescriptorType = USB_DT_ENDPOINT;
    descriptor.bEndpointAddress = static_cast<__u8>(address);
    descriptor.bmAttributes = static_cast<__u8>(kind);
    descriptor.wMaxPacketSize = htole16(static_cast<std::uint16_t>(packet));
    descriptor.bInterval = static_cast<__u8>(interval);
    return descriptor;
}

Interface interface_with(std::size_t packet) {
    constexpr __u8 kStillImage = 6;
    constexpr __u8 kCapture = 1;
    constexpr __u8 kPtp = 1;
    constexpr std::size_t kEvent = 64;
    constexpr int kInterval = 10;
    Interface described{};
    described.interface.bLength = sizeof described.interface;
    described.interface.bDescriptorType = USB_DT_INTERFACE;
    described.interface.bNumEndpoints = 3;
    described.interface.bInterfaceClass = kStillImage;
    described.interface.bInterfaceSubClass = kCapture;
    described.interface.bInterfaceProtocol = kPtp;
    described.interface.iInterface = 1;
    described.in = endpoint(USB_DIR_IN | 1, USB_ENDPOINT_XFER_BULK, packet, 0);
    described.out = endpoint(USB_DIR_OUT | 2, USB_ENDPOINT_XFER_BULK, packet, 0);
    described.events = endpoint(USB_DIR_IN | 3, USB_ENDPOINT_XFER_INT, kEvent, kInterval);
    return described;
}

template <typename T> void put_whole(int fd, const T &record) {
    if (write(fd, &record, sizeof record) != static_cast<ssize_t>(sizeof record))
        throw std::runtime_error(std::string("the function is refused: ") + std::strerror(errno));
}

void describe(int control) {
    constexpr std::size_t kFullSpeedPacket = 64;
    constexpr std::uint32_t kDescriptorsOfASpeed = 4;
    constexpr std::uint16_t kEnglish = 0x409;
    Descriptors descriptors{};
    descriptors.head.magic = htole32(FUNCTIONFS_DESCRIPTORS_MAGIC_V2);
    descriptors.head.flags = htole32(FUNCTIONFS_HAS_FS_DESC | FUNCTIONFS_HAS_HS_DESC);
    descriptors.head.length = htole32(sizeof descriptors);
    descriptors.full_speed_count = htole32(kDescriptorsOfASpeed);
    descriptors.high_speed_count = htole32(kDescriptorsOfASpeed);
    descriptors.full_speed = interface_with(kFullSpeedPacket);
    descriptors.high_speed = interface_with(kPacket);
    put_whole(control, descriptors);

    Strings strings{};
    strings.head.magic = htole32(FUNCTIONFS_STRINGS_MAGIC);
    strings.head.length = htole32(sizeof strings);
    strings.head.str_count = htole32(1);
    strings.head.lang_count = htole32(1);
    strings.language = htole16(kEnglish);
    std::memcpy(strings.name, "Camera", sizeof strings.name);
    put_whole(control, strings);
}

// --- The device on the bus ---

/// A device with one interface, which this process serves; there while the object lives.
class Gadget {
  public:
    explicit Gadget(const CameraDescription &camera) {
        mount_kind("configfs", "config", kGadgets);
        fs::create_directory(kGadget);
        put(kGadget + "/idVendor", "0x1d6b");
        put(kGadget + "/idProduct", "0x0104");
        put(kGadget + "/bcdUSB", "0x0200");
        const std::string strings = kGadget + "/strings/0x409";
        fs::create_directory(strings);
        put(strings + "/manufacturer", camera.manufacturer);
        put(strings + "/product", camera.model);
        put(strings + "/serialnumber", camera.serial);
        fs::create_directory(kGadget + "/configs/c.1");
        fs::create_directory(kGadget + "/functions/ffs.camera");
        fs::create_directory_symlink(kGadget + "/functions/ffs.camera", kGadget + "/configs/c.1/ffs.camera");
        mount_kind("functionfs", "camera", kFunction);
    }
    ~Gadget() {
        unplug();
        umount2(kFunction.c_str(), MNT_DETACH);
        std::error_code ignored;
        for (const char *part :
             {"/configs/c.1/ffs.camera", "/configs/c.1", "/functions/ffs.camera", "/strings/0x409", ""})
            fs::remove(kGadget + part, ignored);
        umount2(kGadgets.c_str(), MNT_DETACH);
    }
    Gadget(const Gadget &) = delete;
    Gadget &operator=(const Gadget &) = delete;

    /// Needs the function's descriptors.
    static void plug_in() {
        for (const auto &controller : fs::directory_iterator("/sys/class/udc"))
            return put(kGadget + "/UDC", controller.path().filename());
        throw std::runtime_error("no device controller: is dummy_hcd loaded?");
    }
    static void unplug() {
        std::ofstream file(kGadget + "/UDC");
        file << '\n';
    }
};

int open_endpoint(const std::string &name) {
    const int fd = open((kFunction + "/" + name).c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) throw std::runtime_error("cannot open " + name + ": " + std::strerror(errno));
    return fd;
}

/// Answers the host's commands at the bulk endpoints until the process ends.
class Responder {
  public:
    explicit Responder(std::string device)
        : device_(std::move(device)), in_(open_endpoint("ep1")), out_(open_endpoint("ep2")) {}

    [[noreturn]] void serve() {
        constexpr auto kPause = std::chrono::milliseconds(20);
        std::array<char, kPacket> command{};
        for (;;) {
            const ssize_t got = read(out_, command.data(), command.size());
            if (got > 0) answer({command.data(), static_cast<std::size_t>(got)});
            // Not plugged in: the host may come back.
            if (got < 0) std::this_thread::sleep_for(kPause);
        }
    }
    /// The host gives up what it has asked for, or starts anew.
    void reset() { reset_ = true; }

  private:
    void answer(std::string_view command) {
        // The camera is opened with a session and let go with it.
        if (reset_.exchange(false) || !camera_) camera_.emplace(device_);
        const PtpAnswer answer = camera_->command(command);
        for (const std::string &transfer : answer.transfers)
            if (!send(transfer)) return;
        constexpr std::size_t kCodeAt = 6;
        std::uint16_t code = 0;
        if (command.size() >= kCodeAt + sizeof code) std::memcpy(&code, command.data() + kCodeAt, sizeof code);
        if (le16toh(code) == close_session) camera_.reset();
    }

    bool send(const std::string &transfer) const {
        for (std::size_t at = 0; at < transfer.size(); at += kPiece) {
            const std::size_t piece = std::min(kPiece, transfer.size() - at);
            if (write(in_, transfer.data() + at, piece) != static_cast<ssize_t>(piece)) return false;
        }
        // A last packet that is full does not end a transfer.
        return transfer.size() % kPacket != 0 || write(in_, "", 0) == 0;
    }

    std::string device_;
    int in_;
    int out_;
    std::optional<PtpCamera> camera_;
    std::atomic<bool> reset_ = false;
};

void answer_request(int control, const usb_ctrlrequest &request, Responder &responder) {
    constexpr std::array<unsigned char, 4> kReady = {4, 0, 0x01, 0x20};
    const std::size_t wanted = le16toh(request.wLength);
    const bool to_host = (request.bRequestType & USB_DIR_IN) != 0;
    std::array<char, 64> data{};
    ssize_t done = 0;
    if (to_host && request.bRequest == kStatus) {
        done = write(control, kReady.data(), std::min(wanted, kReady.size()));
    } else if (!to_host && (request.bRequest == kCancel || request.bRequest == kReset)) {
        responder.reset();
        done = read(control, data.data(), std::min(wanted, data.size()));
    } else {
        // Going on in the wrong direction refuses the request.
        done = to_host ? read(control, data.data(), 0) : write(control, data.data(), 0);
    }
    if (done < 0 && errno != EL2HLT) std::fprintf(stderr, "usb_camera: a request failed: %s\n", std::strerror(errno));
}

/// Serves the control endpoint until the process is asked to end. Waits for either without blocking in a read: a
/// device whose control endpoint is being read cannot be taken from the bus.
void serve_control(int control, int signals, Responder &responder) {
    std::array<pollfd, 2> waiting = {pollfd{control, POLLIN, 0}, pollfd{signals, POLLIN, 0}};
    for (;;) {
        if (poll(waiting.data(), waiting.size(), -1) < 0) continue;
        if (waiting[1].revents != 0) return;
        usb_functionfs_event event{};
        if (read(control, &event, sizeof event) != static_cast<ssize_t>(sizeof event)) continue;
        if (event.type == FUNCTIONFS_SETUP) answer_request(control, event.u.setup, responder);
    }
}

int run(const std::string &device) {
    sigset_t ending;
    sigemptyset(&ending);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&ending, signal);
    sigprocmask(SIG_BLOCK, &ending, nullptr);
    const int signals = signalfd(-1, &ending, SFD_CLOEXEC);

    std::optional<Gadget> gadget(std::in_place, description_read(device));
    const int control = open_endpoint("ep0");
    describe(control);
    Responder responder(device);
    std::thread([&responder] { responder.serve(); }).detach();
    Gadget::plug_in();
    std::puts("plugged in");
    std::fflush(stdout);
    serve_control(control, signals, responder);
    gadget.reset();
    // The thread at the endpoints ends with the process.
    _exit(0);
}

} // namespace
} // namespace tsbackup::test

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fputs("usage: usb_camera CAMERA\n", stderr);
        return 2;
    }
    try {
        return tsbackup::test::run(argv[1]);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "usb_camera: %s\n", failure.what());
        return 1;
    }
}
