// The hook that the device manager starts when a camera is plugged in, with the real camera library: what it asks the
// camera, and how it queues the import.

#include "imports.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using Environment = std::vector<std::pair<std::string, std::string>>;

const std::string kName = "Zeno_Optics_Model_3_1_0042";
const std::string kSerialName = "Zeno_Serial_of_the_bus";

class Arrival : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        reset_appliance();
        enable_import("/data/Pictures");
    }
};

/// The environment of a camera without one of its variables.
Environment without(Environment environment, const std::string &name) {
    std::erase_if(environment, [&](const auto &variable) { return variable.first == name; });
    return environment;
}

Environment with(Environment environment, const std::string &name, const std::string &value) {
    environment = without(std::move(environment), name);
    environment.emplace_back(name, value);
    return environment;
}

TEST_F(Arrival, QueuesTheImportAndTellsTheManagementDaemon) {
    const Camera camera;
    RequestQueue queue(kCameraQueue);
    EventReceiver events;
    const Outcome outcome = run_arrival(camera);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(queue.received(), request_record("enqueue:1:001:005:" + kName + "\n"));
    EXPECT_THAT(events.received(), ElementsAre(queued_event(kName)));
    EXPECT_THAT(list_folder(kLogFolder), IsEmpty());
}

TEST_F(Arrival, CopiesNothingAndLetsTheCameraGo) {
    Camera camera;
    camera.put("DCIM/100ZENO/IMG_0001.JPG", "picture", utc(2024, 3, 5));
    const RequestQueue queue(kCameraQueue);
    run_arrival(camera);
    EXPECT_EQ(camera.openings(), 1);
    EXPECT_EQ(camera.asked(": GetObject "), 0);
    EXPECT_EQ(camera.asked(": CloseSession "), 1);
    EXPECT_TRUE(camera.holds("DCIM/100ZENO/IMG_0001.JPG"));
    EXPECT_THAT(files_below("/data/Pictures"), IsEmpty());
}

TEST_F(Arrival, NamesTheDeviceByWhatTheCameraSaysOfItself) {
    const struct {
        CameraDescription camera;
        std::string name;
    } cases[] = {
        {{"Zeno Optics", "Model 3.1", "0042"}, "Zeno_Optics_Model_3_1_0042"},
        {{"Apple Inc.", "iPhone 4", "a.b c"}, "iPhone_4_a_b_c"},
        {{"Apple Incorporat", "Phone", "1"}, "Phone_1"},
        {{"apple Inc.", "Phone", "1"}, "apple_Inc__Phone_1"},
        {{"Apple", "Phone", "1"}, "Apple_Phone_1"},
        {{"Zeno Apple Inc.", "Phone", "1"}, "Zeno_Apple_Inc__Phone_1"},
        {{"123456789012345", "abcdefghijklmno", "1"}, "123456789012345_abcdefghijklmno_1"},
        {{"1234567890123456", "abcdefghijklmnop", "1"}, "123456789012345_abcdefghijklmno_1"},
        {{"Z", "M", std::string(31, '7')}, "Z_M_" + std::string(31, '7')},
        {{"Z", "M", std::string(32, '7')}, "Z_M_" + std::string(31, '7')},
        // The longest parts and what joins them are 63 characters, and one more is not taken.
        {{std::string(15, 'z'), std::string(15, 'm'), std::string(31, '7')},
         std::string(15, 'z') + "_" + std::string(15, 'm') + "_" + std::string(31, '7')},
        {{"Tab\there", "line\nend", "ret\rurn"}, "Tab_here_line_end_ret_urn"},
        {{"Vert\vical", "form\ffeed", "."}, "Vert_ical_form_feed__"},
        // A name becomes part of paths.
        {{"../../etc", "a/b", "/"}, "______etc_a_b__"},
        {{"Kamera f\xC3\xBCr", "M", "1"}, "Kamera_f\xC3\xBCr_M_1"},
        {{"semi;colon", "dollar$", "quo'te\""}, "semi;colon_dollar$_quo'te\""},
    };
    for (const auto &[description, name] : cases) {
        const Camera camera(description);
        RequestQueue queue(kCameraQueue);
        const Outcome outcome = run_arrival(camera);
        EXPECT_EQ(queue.received(), request_record("enqueue:1:001:005:" + name + "\n")) << outcome.err;
    }
}

TEST_F(Arrival, DeviceNamesAreEscapedInEvents) {
    const Camera camera({"A&B <\"'>", "M", "1"});
    RequestQueue queue(kCameraQueue);
    EventReceiver events;
    run_arrival(camera);
    EXPECT_EQ(queue.received(), request_record("enqueue:1:001:005:A&B_<\"'>_M_1\n"));
    const auto received = events.received();
    ASSERT_EQ(received.size(), 1U);
    EXPECT_THAT(received[0], Not(HasSubstr("A&B")));
    EXPECT_THAT(received[0], HasSubstr("devname=\"A&amp;B_&lt;&quot;"));
}

TEST_F(Arrival, TheKindIsWhatTheDeviceManagerSays) {
    const Camera camera;
    const struct {
        Environment kind;
        std::string expected; ///< the record's; empty: nothing is queued
    } cases[] = {
        {{{"ID_GPHOTO2", "1"}}, "1"},
        {{{"ID_MTP_DEVICE", "1"}}, "2"},
        {{{"ID_GPHOTO2", "1"}, {"ID_MTP_DEVICE", "1"}}, "2"},
        {{{"ID_GPHOTO2", "1"}, {"ID_MTP_DEVICE", "0"}}, "1"},
        {{{"ID_GPHOTO2", "0"}, {"ID_MTP_DEVICE", "1"}}, "2"},
        {{}, ""},
        {{{"ID_GPHOTO2", ""}}, ""},
        {{{"ID_GPHOTO2", "01"}}, ""},
        {{{"ID_GPHOTO2", "1 "}}, ""},
        {{{"ID_GPHOTO2", "true"}, {"ID_MTP_DEVICE", "yes"}}, ""},
    };
    for (const auto &[kind, expected] : cases) {
        Environment environment = without(device_environment(camera), "ID_GPHOTO2");
        environment.insert(environment.end(), kind.begin(), kind.end());
        RequestQueue queue(kCameraQueue);
        EventReceiver events;
        const Outcome outcome = run_arrival(environment);
        EXPECT_EQ(outcome.status, 0);
        const std::string record =
            expected.empty() ? "" : request_record("enqueue:" + expected + ":001:005:" + kName + "\n");
        EXPECT_EQ(queue.received(), record) << testing::PrintToString(kind);
        EXPECT_EQ(events.received().size(), expected.empty() ? 0U : 1U);
        EXPECT_EQ(told(outcome) == "tsbackup_mtp (error) NOT PTP/MTP device?\n", expected.empty()) << outcome.err;
    }
}

TEST_F(Arrival, ADeviceWithoutItsIdentityIsLeftAlone) {
    const Camera camera;
    for (const char *variable : {"ID_SERIAL", "BUSNUM", "DEVNUM"}) {
        RequestQueue queue(kCameraQueue);
        EventReceiver events;
        const Outcome outcome = run_arrival(without(device_environment(camera), variable));
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(told(outcome), "tsbackup_mtp (error) Can't getenv for serialnum/busnum/devnum?\n") << variable;
        EXPECT_EQ(queue.received(), "");
        EXPECT_THAT(events.received(), IsEmpty());
    }
    EXPECT_EQ(camera.openings(), 0);
}

TEST_F(Arrival, NothingHappensUnlessImportIsEnabled) {
    const Camera camera;
    const struct {
        Environment services;
        bool enabled;
    } cases[] = {
        {{{"MTPBACKUP", "1"}}, true},
        {{{"MTPBACKUP", "0"}}, false},
        {{{"MTPBACKUP", "2"}}, false},
        {{{"MTPBACKUP", "-1"}}, false},
        {{{"MTPBACKUP", "yes"}}, false},
        {{{"MTPBACKUP", "11"}}, false},
        {{}, false},
        {{{"MTPBACKUP_DIR", "1"}, {"XMTPBACKUP", "1"}, {"mtpbackup", "1"}, {"MTPBACKUP ", "1"}}, false},
        // The first line with the key counts.
        {{{"MTPBACKUP", "0"}, {"MTPBACKUP", "1"}}, false},
        {{{"MTPBACKUP", "1"}, {"MTPBACKUP", "0"}}, true},
    };
    for (const auto &[services, enabled] : cases) {
        set_services(services);
        RequestQueue queue(kCameraQueue);
        const Outcome outcome = run_arrival(camera);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(!queue.received().empty(), enabled) << testing::PrintToString(services);
        if (!enabled) {
            EXPECT_EQ(told(outcome), "tsbackup_mtp (info) Automatically media backup is disabled.\n");
        }
    }
}

TEST_F(Arrival, WithoutTheServicesFileNothingIsQueued) {
    const Camera camera;
    remove_tree("/etc/default/services");
    RequestQueue queue(kCameraQueue);
    const Outcome outcome = run_arrival(camera);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(told(outcome), HasSubstr("Failed to open service file /etc/default/services!\n"));
    EXPECT_THAT(told(outcome), HasSubstr("Get MTPBACKUP tag error.\n"));
    EXPECT_EQ(queue.received(), "");
    EXPECT_EQ(camera.openings(), 0);
}

TEST_F(Arrival, NumbersOfBusAndDeviceAreCutLikeThePort) {
    // Seven characters of each are kept, and the port that they make has fifteen.
    const Camera camera({}, "1234567", "123");
    RequestQueue queue(kCameraQueue);
    Environment environment = with(device_environment(camera), "BUSNUM", "12345678");
    environment = with(environment, "DEVNUM", "12345678");
    const Outcome outcome = run_arrival(environment);
    EXPECT_EQ(queue.received(), request_record("enqueue:1:1234567:1234567:" + kName + "\n")) << outcome.err;
}

// --- Cameras that cannot be asked ---

TEST_F(Arrival, ACameraThatIsNotThereIsNotQueued) {
    const Camera other({}, "001", "006");
    RequestQueue queue(kCameraQueue);
    EventReceiver events;
    const Outcome outcome = run_arrival(with(device_environment(other), "DEVNUM", "005"));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(told(outcome), "tsbackup_mtp (error) Init camera port [usb:001,005] or model failed[ret=-5].\n"
                             "tsbackup_mtp (warning) init cam set failed\n");
    EXPECT_EQ(queue.received(), "");
    EXPECT_THAT(events.received(), IsEmpty());
}

TEST_F(Arrival, ADeviceThatNoDriverTakesIsNotQueued) {
    CameraDescription printer;
    printer.is_camera = false;
    const Camera device(printer);
    RequestQueue queue(kCameraQueue);
    EXPECT_EQ(told(run_arrival(device)),
              "tsbackup_mtp (error) Init camera port [usb:001,005] or model failed[ret=-1].\n"
              "tsbackup_mtp (warning) init cam set failed\n");
    // With a camera elsewhere on the bus the list of cameras is not empty.
    const Camera other({}, "001", "006");
    EXPECT_EQ(told(run_arrival(device)),
              "tsbackup_mtp (error) Init camera port [usb:001,005] or model failed[ret=-2].\n"
              "tsbackup_mtp (warning) init cam set failed\n");
    EXPECT_EQ(queue.received(), "");
}

TEST_F(Arrival, OfSeveralCamerasTheOneThatArrivedIsAsked) {
    const Camera first({"First", "A", "1"}, "001", "004");
    const Camera second({"Second", "B", "2"}, "001", "005");
    const Camera third({"Third", "C", "3"}, "002", "005");
    RequestQueue queue(kCameraQueue);
    for (const Camera *camera : {&second, &third, &first})
        run_arrival(*camera);
    EXPECT_EQ(queue.received(), request_record("enqueue:1:001:005:Second_B_2\n") +
                                    request_record("enqueue:1:002:005:Third_C_3\n") +
                                    request_record("enqueue:1:001:004:First_A_1\n"));
}

TEST_F(Arrival, ACameraWhoseConfigurationFailsIsQueuedUnderItsSerial) {
    const struct {
        CameraFault fault;
        int result;
    } cases[] = {
        {{port_open, FaultKind::port_error, -53}, -53},
        {{open_session, FaultKind::port_error, -7}, -7},
        {{get_device_info, FaultKind::port_error, -7}, -7},
        {{get_device_info, FaultKind::port_error, -10}, -7},
        {{get_device_info, FaultKind::response, general_error}, -1},
        {{get_device_info, FaultKind::response, device_busy}, -110},
        {{get_device_info, FaultKind::cut, 20}, -7},
        {{open_session, FaultKind::unplug, 0}, -7},
    };
    for (const auto &[fault, result] : cases) {
        Camera camera;
        camera.fail(fault);
        RequestQueue queue(kCameraQueue);
        EventReceiver events;
        const Outcome outcome =
            run_arrival(with(device_environment(camera), kDriverLosesMemory.first, kDriverLosesMemory.second));
        const std::string number = std::to_string(result);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(told(outcome), "tsbackup_mtp (error) gp_camera_get_config failed[" + number + "]!\n" +
                                     "tsbackup_mtp (warning) Can't get camera config[ret=" + number + "]\n");
        EXPECT_EQ(queue.received(), request_record("enqueue:1:001:005:" + kSerialName + "\n"));
        EXPECT_THAT(events.received(), ElementsAre(queued_event(kSerialName)));
    }
}

TEST_F(Arrival, TheSerialOfTheDeviceManagerIsCutAndMadeAName) {
    Camera camera;
    camera.fail({get_device_info});
    const struct {
        std::string serial;
        std::string name;
    } cases[] = {
        {"a.b c\td", "a_b_c_d"},
        {std::string(63, 's'), std::string(63, 's')},
        {std::string(64, 's'), std::string(63, 's')},
        {std::string(500, '.'), std::string(63, '_')},
        {"../up/x", "___up_x"},
        {"", ""},
    };
    for (const auto &[serial, name] : cases) {
        RequestQueue queue(kCameraQueue);
        run_arrival(with(device_environment(camera), "ID_SERIAL", serial));
        EXPECT_EQ(queue.received(), request_record("enqueue:1:001:005:" + name + "\n")) << serial;
    }
}

// --- The queue ---

TEST_F(Arrival, WithoutADaemonNothingBlocksAndNothingIsTold) {
    const Camera camera;
    EventReceiver events;
    const Outcome outcome = run_arrival(camera);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(told(outcome),
              "tsbackup_mtp (error) Cannot open /var/run/zelkovad/mtpbackup-q, because tsbackup-q is not running\n"
              "tsbackup_mtp (error) Enqueue mtp backup job " +
                  kName + " 001 005 failed.\n");
    EXPECT_THAT(events.received(), IsEmpty());
}

TEST_F(Arrival, AMissingPipeIsToldWithItsErrorNumber) {
    const Camera camera;
    remove_tree(kCameraQueue);
    EXPECT_EQ(told(run_arrival(camera)), "tsbackup_mtp (error) Cannot open /var/run/zelkovad/mtpbackup-q. errno=2\n"
                                         "tsbackup_mtp (error) Enqueue mtp backup job " +
                                             kName + " 001 005 failed.\n");
    EXPECT_FALSE(file_exists(kCameraQueue));
}

/// Fills the pipe until not one record more fits.
int fill_queue() {
    const int pipe = open(kCameraQueue, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    int records = 0;
    while (write(pipe, request_record("old").data(), 128) == 128)
        ++records;
    close(pipe);
    return records;
}

TEST_F(Arrival, WaitsForRoomInAFullQueue) {
    const Camera camera;
    RequestQueue queue(kCameraQueue);
    const int old = fill_queue();
    ASSERT_GT(old, 0);
    Environment environment = device_environment(camera);
    Program hook({"-s", "x"}, camera_options(environment));
    ASSERT_TRUE(wait_until([] { return waits().size() >= 2; }));
    EXPECT_TRUE(hook.running());
    EXPECT_EQ(waits()[0], 1);
    std::string received = queue.received();
    EXPECT_EQ(hook.wait().err, "");
    received += queue.received();
    ASSERT_EQ(received.size(), static_cast<std::size_t>(old + 1) * 128);
    EXPECT_EQ(received.substr(received.size() - 128), request_record("enqueue:1:001:005:" + kName + "\n"));
}

TEST_F(Arrival, ADaemonThatEndsMeanwhileIsAFailureOfTheQueue) {
    const Camera camera;
    EventReceiver events;
    std::unique_ptr<Program> hook;
    {
        const RequestQueue queue(kCameraQueue);
        fill_queue();
        hook =
            std::make_unique<Program>(std::vector<std::string>{"-s", "x"}, camera_options(device_environment(camera)));
        ASSERT_TRUE(wait_until([] { return !waits().empty(); }));
    }
    const Outcome outcome = hook->wait();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(told(outcome), "tsbackup_mtp (error) write() /var/run/zelkovad/mtpbackup-q failed. errno=32\n"
                             "tsbackup_mtp (error) Enqueue mtp backup job " +
                                 kName + " 001 005 failed.\n");
    EXPECT_THAT(events.received(), IsEmpty());
}

TEST_F(Arrival, WaitsForTheSenderBeforeIt) {
    const Camera camera;
    RequestQueue queue(kCameraQueue);
    const int other = open(kCameraQueue, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_EQ(lockf(other, F_LOCK, 0), 0);
    Program hook({"-s", "x"}, camera_options(device_environment(camera)));
    // It has let the camera go and waits for the lock only.
    ASSERT_TRUE(wait_until([&] { return camera.asked("CloseSession") == 1; }));
    std::this_thread::sleep_for(200ms);
    EXPECT_TRUE(hook.running());
    EXPECT_EQ(queue.received(), "");
    close(other);
    EXPECT_EQ(hook.wait().err, "");
    EXPECT_EQ(queue.received(), request_record("enqueue:1:001:005:" + kName + "\n"));
}

TEST_F(Arrival, SeveralArrivalsDoNotMingleTheirRecords) {
    constexpr int kCameras = 6;
    std::vector<std::unique_ptr<Camera>> cameras;
    std::vector<std::unique_ptr<Program>> hooks;
    RequestQueue queue(kCameraQueue);
    const ProgramOptions common = camera_options();
    for (int index = 1; index <= kCameras; ++index)
        cameras.push_back(std::make_unique<Camera>(CameraDescription{"Z", "M", std::to_string(index)}, "001",
                                                   "00" + std::to_string(index)));
    for (const auto &camera : cameras) {
        ProgramOptions options = common;
        const Environment environment = device_environment(*camera);
        options.environment.insert(options.environment.end(), environment.begin(), environment.end());
        hooks.push_back(std::make_unique<Program>(std::vector<std::string>{"-s", "x"}, options));
    }
    for (const auto &hook : hooks)
        EXPECT_EQ(hook->wait().err, "");
    const std::string received = queue.received();
    ASSERT_EQ(received.size(), kCameras * 128U);
    std::set<std::string> records;
    for (std::size_t at = 0; at < received.size(); at += 128)
        records.insert(received.substr(at, 128));
    std::set<std::string> expected;
    for (int index = 1; index <= kCameras; ++index)
        expected.insert(
            request_record("enqueue:1:001:00" + std::to_string(index) + ":Z_M_" + std::to_string(index) + "\n"));
    EXPECT_EQ(records, expected);
}

} // namespace
} // namespace tsbackup::test
