// Camera import through the kernel's USB: the camera library with its own port driver, and a camera on a simulated bus.

#include "guest.h"
#include "imports.h"

#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <sstream>
#include <stdexcept>

namespace tsbackup::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

using Environment = std::vector<std::pair<std::string, std::string>>;

const std::string kName = "Zeno_Optics_Model_3_1_0042";
const std::string kFolder = "/data/Pictures/" + kName;
const std::time_t kMarch = utc(2024, 3, 5, 10, 11, 12);

/// What the kernel tells about the simulated device ("NAME=VALUE" lines); empty when there is none.
std::string device_of_the_bus() {
    for (const auto &entry : std::filesystem::directory_iterator("/sys/bus/usb/devices")) {
        std::string told = read_file(entry.path() / "uevent");
        if (told.find("DEVTYPE=usb_device\n") != std::string::npos &&
            told.find("PRODUCT=1d6b/104/") != std::string::npos)
            return told;
    }
    return "";
}

/// A camera's place on the bus while it is plugged in.
class PluggedIn {
  public:
    explicit PluggedIn(const Camera &camera) : responder_({camera.folder()}, {{}, {}, USB_CAMERA}) {
        if (!wait_until([] { return !device_of_the_bus().empty(); }, 60s))
            throw std::runtime_error("the bus has no camera: " + responder_.wait(1s).err);
        std::istringstream lines(device_of_the_bus());
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with("BUSNUM=")) bus_ = line.substr(7);
            if (line.starts_with("DEVNUM=")) number_ = line.substr(7);
        }
    }
    ~PluggedIn() {
        if (responder_.running()) pull_out();
    }
    PluggedIn(const PluggedIn &) = delete;
    PluggedIn &operator=(const PluggedIn &) = delete;

    void pull_out() {
        responder_.signal(SIGTERM);
        EXPECT_EQ(responder_.wait(60s).status, 0);
        EXPECT_TRUE(wait_until([] { return device_of_the_bus().empty(); }));
    }
    const std::string &bus() const { return bus_; }
    const std::string &number() const { return number_; }
    /// What the device manager tells the hook.
    Environment environment() const {
        return {{"ID_GPHOTO2", "1"}, {"ID_SERIAL", "Zeno"}, {"BUSNUM", bus_}, {"DEVNUM", number_}};
    }

  private:
    Program responder_;
    std::string bus_;
    std::string number_;
};

Outcome run_hook(const Environment &environment) {
    ProgramOptions options;
    options.environment = environment;
    return run_program({"-v", "7", "-s", "x"}, options);
}

/// Starts what a record of the queue asks for.
Outcome run_record(const std::string &record) {
    std::vector<std::string> words{"-m"};
    std::istringstream fields(record.substr(0, record.find('\n')));
    std::string field;
    std::getline(fields, field, ':'); // "enqueue"
    while (std::getline(fields, field, ':'))
        words.push_back(field);
    return run_program(words);
}

class UsbCamera : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_GUEST();
        start_in_guest();
        enable_import("/data/Pictures");
    }
};

TEST_F(UsbCamera, IsQueuedImportedAndEmptied) {
    Camera camera;
    const std::string film(3'000'000, 'm');
    camera.put("DCIM/100ZENO/IMG_0001.JPG", "first picture", kMarch);
    camera.put("DCIM/100ZENO/IMG_0002.JPG", "", kMarch);
    camera.put("DCIM/100ZENO/IMG_0003.JPG", std::string(500, 'x'), kMarch); // whole packets on the bus
    camera.put("DCIM/100ZENO/notes.txt", "text", kMarch);
    camera.put("DCIM/MVI_0004.MOV", film, utc(2023, 12, 24), Camera::kSecondCard);
    const PluggedIn plugged(camera);

    RequestQueue queue(kCameraQueue);
    EventReceiver events;
    const Outcome hook = run_hook(plugged.environment());
    const std::string record = queue.received();
    ASSERT_EQ(record, request_record("enqueue:1:" + plugged.bus() + ":" + plugged.number() + ":" + kName + "\n"))
        << hook.err;
    EXPECT_THAT(events.received(), ElementsAre(queued_event(kName)));

    const Outcome import = run_record(record);
    EXPECT_THAT(files_below(kFolder), ElementsAre("2023/12-Dec/MVI_0004.MOV", "2024/03-Mar/IMG_0001.JPG",
                                                  "2024/03-Mar/IMG_0002.JPG", "2024/03-Mar/IMG_0003.JPG"))
        << import.err;
    EXPECT_EQ(read_file(kFolder + "/2023/12-Dec/MVI_0004.MOV"), film);
    EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/IMG_0001.JPG"), "first picture");
    EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/IMG_0003.JPG"), std::string(500, 'x'));
    EXPECT_EQ(file_time(kFolder + "/2024/03-Mar/IMG_0001.JPG"), kMarch);
    EXPECT_THAT(events.received(), ElementsAre(import_event(kName, kFolder, 0), import_event(kName, kFolder, 4)));
    EXPECT_EQ(with_placeholders(read_file(import_status_path(kName))), import_status("COMPLETED", "OK", 5) + "\n");
    EXPECT_THAT(import_log(kName), HasSubstr("Copy file /store_00020001/DCIM/MVI_0004.MOV\n"));

    // Nothing is copied again; everything that was copied goes.
    enable_import("/data/Pictures", true);
    camera.forget_log();
    run_record(record);
    EXPECT_EQ(camera.asked(": GetObject "), 0);
    EXPECT_FALSE(camera.holds("DCIM/100ZENO/IMG_0001.JPG"));
    EXPECT_FALSE(camera.holds("DCIM/MVI_0004.MOV", Camera::kSecondCard));
    EXPECT_TRUE(camera.holds("DCIM/100ZENO/notes.txt"));
    EXPECT_EQ(with_placeholders(read_file(import_status_path(kName))), import_status("COMPLETED", "OK", 5) + "\n");
}

TEST_F(UsbCamera, ThatIsPulledOutBeforeItsTurnIsUnusable) {
    Camera camera;
    camera.put("DCIM/A.JPG", "a", kMarch);
    PluggedIn plugged(camera);
    RequestQueue queue(kCameraQueue);
    run_hook(plugged.environment());
    const std::string record = queue.received();
    ASSERT_FALSE(record.empty());
    plugged.pull_out();

    EventReceiver events;
    const Outcome import = run_record(record);
    EXPECT_THAT(import.err, HasSubstr("init_cam_set failed.\n"));
    EXPECT_THAT(events.received(), ElementsAre(failure_event(kName, kFolder, 2, 100)));
    EXPECT_THAT(files_below("/data/Pictures"), ElementsAre(kName + "/"));
    EXPECT_EQ(run_hook(plugged.environment()).status, 0);
    EXPECT_EQ(queue.received(), "");
}

} // namespace
} // namespace tsbackup::test
