// Imports that fail, with the real camera library: destinations that are not there, cameras that break off, and what is
// left behind and told in each case.

#include "imports.h"

#include <gmock/gmock.h>

namespace tsbackup::test {
namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

const std::string kName = "Zeno_M_1";
const std::string kDestination = "/data/Pictures/cameras";
const std::string kFolder = kDestination + "/" + kName;
const std::string kLine = std::string(52, '-') + "\n";
const std::time_t kMarch = utc(2024, 3, 5, 10, 11, 12);
constexpr int kCameraUnusable = 100;
constexpr int kDestinationFailed = 101;
constexpr int kBadInput = 104;
constexpr std::size_t kMebibyte = 1 << 20;

const std::string kPicture = "DCIM/100ZENO/IMG_0002.JPG";
const std::string kPictureObject = std::string(Camera::kCard) + "/" + kPicture;

void put_pictures(Camera &camera) {
    camera.put("DCIM/100ZENO/IMG_0001.JPG", "first picture", kMarch);
    camera.put(kPicture, std::string(kMebibyte, 'x'), kMarch + 1);
    camera.put("DCIM/100ZENO/IMG_0003.JPG", "third picture", kMarch + 2);
}

class ImportFailure : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        reset_appliance();
        make_folder(kDestination);
        enable_import(kDestination);
    }
};

std::string failed_status(std::uint64_t files) { return import_status("FAILED", "warn", files) + "\n"; }

std::string status_of(const std::string &name = kName) {
    return with_placeholders(read_file(import_status_path(name)));
}

/// Expects that the import ended with the reason before it began to copy.
void expect_refusal(const Outcome &outcome, const std::string &diagnostic, int reason, EventReceiver &events,
                    const std::string &folder = "unknown", std::uint64_t files = 0) {
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(told(outcome), HasSubstr("tsbackup_mtp (error) " + diagnostic + "\n"));
    EXPECT_THAT(events.received(), ElementsAre(failure_event(kName, folder, 2, reason)));
    EXPECT_EQ(status_of(), failed_status(files));
    EXPECT_FALSE(file_exists(import_log_path(kName)));
}

// --- Settings and arguments ---

TEST_F(ImportFailure, NothingHappensUnlessImportIsEnabled) {
    Camera camera;
    put_pictures(camera);
    for (const char *value : {"0", "2", "yes", "", "-1", "10"}) {
        set_services({{"MTPBACKUP", value}, {"MTPBACKUP_DIR", kDestination}});
        EventReceiver events;
        EXPECT_EQ(run_import(camera, kName).status, 0);
        EXPECT_THAT(events.received(), IsEmpty()) << value;
    }
    remove_tree("/etc/default/services");
    EXPECT_EQ(run_import(camera, kName).status, 0);
    EXPECT_EQ(camera.openings(), 0);
    EXPECT_THAT(files_below(kDestination), IsEmpty());
    EXPECT_THAT(list_folder(kLogFolder), IsEmpty());
}

TEST_F(ImportFailure, MissingArgumentsAreRefused) {
    const std::vector<std::string> words = {"-m", "1", "001", "005"};
    for (std::size_t count = 2; count <= words.size(); ++count) {
        reset_appliance();
        enable_import(kDestination);
        EventReceiver events;
        const Outcome outcome =
            run_program({words.begin(), words.begin() + static_cast<std::ptrdiff_t>(count)}, camera_options());
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(told(outcome), "tsbackup_mtp (error) Invaild input for perform_mtpbackup\n");
        EXPECT_THAT(events.received(), ElementsAre(failure_event("unknown", "unknown", 2, kBadInput)));
        EXPECT_EQ(status_of("unknown"), failed_status(0));
        EXPECT_FALSE(file_exists(kDestination));
    }
}

TEST_F(ImportFailure, OnlyPtpCamerasAreImported) {
    const Camera camera;
    const struct {
        const char *kind;
        const char *diagnostic;
    } cases[] = {
        {"2", "MTP is not supported yet!"},
        {"0", "Invalid proto [0] for perform_mtpbackup."},
        {"3", "Invalid proto [3] for perform_mtpbackup."},
        {"x", "Invalid proto [0] for perform_mtpbackup."},
        {"12", "Invalid proto [12] for perform_mtpbackup."},
    };
    for (const auto &[kind, diagnostic] : cases) {
        EventReceiver events;
        const Outcome outcome = run_program({"-m", kind, "001", "005", kName}, camera_options());
        expect_refusal(outcome, diagnostic, kBadInput, events, kFolder);
        EXPECT_THAT(list_folder(kDestination), ElementsAre(kName));
    }
    EXPECT_EQ(camera.openings(), 0);
}

TEST_F(ImportFailure, ADeviceNameThatLeadsElsewhereIsRefused) {
    Camera camera;
    put_pictures(camera);
    const auto before = every_path();
    for (const std::string name : {"../up", "a/b", "/data/Documents/x", "..", "."}) {
        EventReceiver events;
        const Outcome outcome = run_import(camera, name);
        EXPECT_EQ(told(outcome), "tsbackup_mtp (error) Invaild input for perform_mtpbackup\n") << name;
        EXPECT_THAT(events.received(), ElementsAre(failure_event("unknown", "unknown", 2, kBadInput))) << name;
    }
    EXPECT_THAT(new_paths(before), IsEmpty());
    EXPECT_THAT(list_folder(kLogFolder), ElementsAre("status_mtpbackup_unknown"));
}

// --- The destination ---

TEST_F(ImportFailure, DestinationsThatAreNotThereAndCannotBeMadeAreRefused) {
    const Camera camera;
    write_file("/data/Pictures/file", "text");
    const struct {
        std::string destination;
        std::string diagnostic;
    } cases[] = {
        {"/media/GONE", "Don't recreate media share[/media/GONE]."},
        {"/media/USB/new", "Don't recreate media share[/media/USB/new]."},
        {"/media/", "Don't recreate media share[/media/]."},
        {"/gone", "Only match volume?[/gone]."},
        {"/gone/", "Only match volume?[/gone/]."},
        {"/" + std::string(32, 'v') + "/Share", "Only match volume?[/" + std::string(32, 'v') + "/Share]."},
        {"relative/share", "Nothing matched?[relative/share]."},
        {"//data/Share", "Nothing matched?[//data/Share]."},
    };
    for (const auto &[destination, diagnostic] : cases) {
        if (file_exists(destination)) continue; // "/media/" in every appliance with disks
        enable_import(destination);
        const auto before = every_path();
        EventReceiver events;
        const Outcome outcome = run_import(camera, kName);
        expect_refusal(outcome, diagnostic, kDestinationFailed, events);
        EXPECT_THAT(new_paths(before), IsEmpty());
    }
    EXPECT_EQ(camera.openings(), 0);
}

TEST_F(ImportFailure, WithoutADestinationNothingIsCopied) {
    const Camera camera;
    set_services({{"MTPBACKUP", "1"}});
    EventReceiver events;
    expect_refusal(run_import(camera, kName), "Nothing matched?[].", kDestinationFailed, events);
}

TEST_F(ImportFailure, AFileInPlaceOfAFolderIsAFailureOfTheDestination) {
    const Camera camera;
    write_file("/data/Pictures/file", "text");
    write_file(kFolder, "in the way");
    const struct {
        std::string destination;
        std::string folder;
    } cases[] = {
        {"/data/Pictures/file", "/data/Pictures/file/" + kName},
        {"/data/Pictures/file/below", "/data/Pictures/file/below/" + kName},
        {kDestination, kFolder},
    };
    for (const auto &[destination, folder] : cases) {
        enable_import(destination);
        EventReceiver events;
        expect_refusal(run_import(camera, kName), "Can't mkdir " + folder + " for mtpbackup.", kDestinationFailed,
                       events);
    }
    EXPECT_EQ(read_file("/data/Pictures/file"), "text");
    EXPECT_EQ(read_file(kFolder), "in the way");
}

TEST_F(ImportFailure, MissingFoldersBelowAShareAreMade) {
    Camera camera;
    put_pictures(camera);
    const StandIn tool("/sbin/zk_nml", "exit 1");
    for (const std::string destination : {"/data/Pictures/a/b/c", "/media/USB", "/data", "/data/Pictures/"}) {
        if (destination == "/media/USB" && !file_exists(destination)) continue;
        enable_import(destination);
        EventReceiver events;
        run_import(camera, kName);
        EXPECT_THAT(files_below(destination + "/" + kName), SizeIs(3)) << destination;
        EXPECT_THAT(events.received(), ElementsAre(import_event(kName, destination + "/" + kName, 0),
                                                   import_event(kName, destination + "/" + kName, 4)));
    }
    EXPECT_EQ(tool.calls(), "");
}

TEST_F(ImportFailure, AMissingShareIsMadeByTheShareTool) {
    Camera camera;
    put_pictures(camera);
    const struct {
        std::string destination;
        std::string call;
    } cases[] = {
        {"/data/Photos", "-a share:/data/Photos\n"},
        {"/data/Photos/from/cameras", "-a share:/data/Photos\n"},
        {"/data/two words", "-a share:/data/two words\n"},
        {"/data/$(x);y", "-a share:/data/$(x);y\n"},
        {"/homes/carol/Photos", "-a share:/homes/carol\n"},
        // Of a name that is too long, as much as fits is taken.
        {"/data/" + std::string(33, 's'), "-a share:/data/" + std::string(31, 's') + "\n"},
    };
    for (const auto &[destination, call] : cases) {
        reset_appliance();
        enable_import(destination);
        const StandIn tool("/sbin/zk_nml", "mkdir -p \"${2#share:}\"");
        EventReceiver events;
        const Outcome outcome = run_import(camera, kName);
        EXPECT_EQ(tool.calls(), call) << outcome.err;
        EXPECT_THAT(files_below(destination + "/" + kName), SizeIs(3)) << outcome.err;
        EXPECT_THAT(events.received(), SizeIs(2));
        remove_tree("/homes");
    }
}

TEST_F(ImportFailure, AMissingHomeIsMadeByTheToolForHomes) {
    Camera camera;
    put_pictures(camera);
    enable_import("/home/carol/Photos");
    const StandIn tool("/sbin/mkhomedir_helper", "mkdir \"/home/$1\"");
    const StandIn other("/sbin/zk_nml", "exit 1");
    EventReceiver events;
    const Outcome outcome = run_import(camera, kName);
    EXPECT_EQ(tool.calls(), "carol\n");
    EXPECT_EQ(other.calls(), "");
    EXPECT_THAT(files_below("/home/carol/Photos/" + kName), SizeIs(3)) << outcome.err;
    remove_tree("/home/carol");

    enable_import("/home/alice/Photos");
    run_import(camera, kName);
    EXPECT_EQ(tool.calls(), "carol\n");
    EXPECT_THAT(files_below("/home/alice/Photos/" + kName), SizeIs(3));
}

TEST_F(ImportFailure, AShareThatCannotBeMadeIsAFailureOfTheDestination) {
    const Camera camera;
    for (const std::string destination : {"/data/Photos/sub", "/home/carol"}) {
        enable_import(destination);
        for (const char *script : {"exit 1", "exit 255", "kill -9 $$"}) {
            const StandIn shares("/sbin/zk_nml", script);
            const StandIn homes("/sbin/mkhomedir_helper", script);
            EventReceiver events;
            expect_refusal(run_import(camera, kName), "Recreate Auto media backup share failed.", kDestinationFailed,
                           events);
        }
        EXPECT_FALSE(file_exists(destination));
    }
}

TEST_F(ImportFailure, WithoutTheShareToolTheShareStaysMissing) {
    const Camera camera;
    enable_import("/data/Photos");
    EventReceiver events;
    expect_refusal(run_import(camera, kName), "Recreate Auto media backup share failed.", kDestinationFailed, events);
    EXPECT_FALSE(file_exists("/data/Photos"));
}

// --- Setting the camera up ---

TEST_F(ImportFailure, ACameraThatIsNotThereIsUnusable) {
    const Camera other({}, "001", "006");
    EventReceiver events;
    const Outcome outcome = run_program({"-m", "1", "001", "005", kName}, camera_options());
    expect_refusal(outcome, "init_cam_set failed.", kCameraUnusable, events, kFolder);
    EXPECT_THAT(told(outcome),
                HasSubstr("tsbackup_mtp (error) Init camera port [usb:001,005] or model failed[ret=-5].\n"));
    EXPECT_THAT(waits(), IsEmpty());
}

TEST_F(ImportFailure, AnEmptyCameraIsTriedSixTimesAndThenImported) {
    for (const bool with_folders : {false, true}) {
        Camera camera;
        if (with_folders) camera.put_folder("DCIM/100ZENO");
        EventReceiver events;
        StatusWatcher status(import_status_path(kName));
        const Outcome outcome = run_import(camera, kName);
        EXPECT_EQ(outcome.status, 0);
        std::string retries;
        for (int retry = 1; retry <= 5; ++retry)
            EXPECT_THAT(told(outcome),
                        HasSubstr("tsbackup_mtp (warning) Retrying setup camera[" + std::to_string(retry) + "].\n"));
        EXPECT_THAT(told(outcome), Not(HasSubstr("setup camera[6]")));
        EXPECT_THAT(waits(), ElementsAre(5, 5, 5, 5, 5));
        EXPECT_EQ(camera.openings(), 6);
        EXPECT_THAT(events.received(), ElementsAre(import_event(kName, kFolder, 0), import_event(kName, kFolder, 4)));
        EXPECT_EQ(status_of(), import_status("COMPLETED", "OK", 0) + "\n");
        EXPECT_EQ(import_log(kName), "Source: " + kName + "\nDestination: " + kFolder + "\nStart Time: TIME\n" + kLine +
                                         kLine + "Finish Time: TIME\nBackup Status: Success\n\n");
    }
}

TEST_F(ImportFailure, ACameraThatShowsItsFilesLateIsImported) {
    Camera camera;
    put_pictures(camera);
    // Its handles are asked for, and are none, in the first three openings.
    for (int opening = 1; opening <= 3; ++opening)
        camera.fail({get_object_handles, FaultKind::response, parameter_not_supported, opening});
    EventReceiver events;
    const Outcome outcome = run_import(camera, kName);
    EXPECT_THAT(waits(), ElementsAre(5, 5, 5)) << outcome.err;
    EXPECT_EQ(camera.openings(), 4);
    EXPECT_THAT(files_below(kFolder), SizeIs(3));
    EXPECT_EQ(status_of(), import_status("COMPLETED", "OK", 3) + "\n");
    EXPECT_THAT(events.received(), SizeIs(2));
}

TEST_F(ImportFailure, AListingThatFailsIsTriedAgainTwentyTimes) {
    Camera camera;
    put_pictures(camera);
    camera.fail({get_object_info, FaultKind::response, parameter_not_supported});
    EventReceiver events;
    const Outcome outcome = run_import(camera, kName);
    expect_refusal(outcome, "download file dry run failed[-2].", kCameraUnusable, events, kFolder);
    EXPECT_EQ(camera.openings(), 21);
    EXPECT_THAT(waits(), AllOf(SizeIs(20), Each(2)));
    EXPECT_THAT(told(outcome), HasSubstr("tsbackup_mtp (warning) Retrying list files[20].\n"));
    EXPECT_THAT(told(outcome), Not(HasSubstr("list files[21]")));
    EXPECT_EQ(camera.asked(": CloseSession "), 21);
}

TEST_F(ImportFailure, AListingThatRecoversIsCountedOnce) {
    Camera camera;
    camera.put("AAA/IMG_0000.JPG", "zeroth picture", kMarch);
    put_pictures(camera);
    // Once after some files have been counted, once without any.
    camera.fail({get_object_info, FaultKind::response, parameter_not_supported, 1, 0, false, kPictureObject});
    camera.fail({get_object_info, FaultKind::response, parameter_not_supported, 2});
    camera.fail({get_object_handles, FaultKind::response, parameter_not_supported, 3});
    const Outcome outcome = run_import(camera, kName);
    EXPECT_THAT(waits(), ElementsAre(2, 2, 5)) << outcome.err;
    EXPECT_EQ(camera.openings(), 4);
    EXPECT_EQ(status_of(), import_status("COMPLETED", "OK", 4) + "\n");
    EXPECT_THAT(files_below(kFolder), SizeIs(4));
}

TEST_F(ImportFailure, OtherFailuresOfTheListingEndTheImportAtOnce) {
    const struct {
        const char *name;
        CameraFault fault;
        int result;
    } cases[] = {
        {"the port is taken", {port_open, FaultKind::port_error, -53}, -53},
        {"no session", {open_session, FaultKind::port_error, -7}, -7},
        {"no information", {get_device_info, FaultKind::response, general_error}, -1},
        {"busy", {get_device_info, FaultKind::response, device_busy}, -110},
        {"the line breaks", {get_object_handles, FaultKind::port_error, -7}, -7},
        {"the list is cut", {get_object_handles, FaultKind::cut, 2}, -7},
        {"handles refused", {get_object_handles, FaultKind::response, general_error}, -1},
        {"the camera falls silent", {get_object_handles, FaultKind::port_error, -10}, -7},
        {"unplugged", {get_object_handles, FaultKind::unplug, 0}, -7},
    };
    for (const auto &[name, fault, result] : cases) {
        SCOPED_TRACE(name);
        Camera camera;
        put_pictures(camera);
        camera.fail(fault);
        EventReceiver events;
        const Outcome outcome = run_import(camera, kName, camera_options({kDriverLosesMemory}));
        expect_refusal(outcome, "download file dry run failed[" + std::to_string(result) + "].", kDestinationFailed,
                       events, kFolder);
        EXPECT_THAT(waits(), IsEmpty());
        EXPECT_EQ(camera.openings(), 1);
    }
}

TEST_F(ImportFailure, ACameraWithoutACardEndsTheImportAtOnce) {
    Camera camera;
    camera.remove_storage(Camera::kCard);
    EventReceiver events;
    expect_refusal(run_import(camera, kName), "download file dry run failed[-1].", kDestinationFailed, events, kFolder);
    EXPECT_THAT(waits(), IsEmpty());
}

// --- Breaking off ---

std::string failed_log(const std::string &lines) {
    return "Source: " + kName + "\nDestination: " + kFolder + "\nStart Time: TIME\n" + kLine + lines + kLine +
           "Finish Time: TIME\nBackup Status: Fail\n\n";
}

const std::string kCopied = "Copy file /store_00010001/DCIM/100ZENO/";

TEST_F(ImportFailure, ADownloadThatFailsLeavesNoPartOfItsFile) {
    const struct {
        const char *name;
        CameraFault fault;
        int result;
        int reason;
    } cases[] = {
        {"cut in the middle", {get_object, FaultKind::cut, kMebibyte / 2, 0, 0, false, kPictureObject}, -7, 101},
        {"cut before the first byte", {get_object, FaultKind::cut, 0, 0, 0, false, kPictureObject}, -7, 101},
        {"cut before the last byte", {get_object, FaultKind::cut, kMebibyte - 1, 0, 0, false, kPictureObject}, -7, 101},
        {"the line breaks", {get_object, FaultKind::port_error, -7, 0, 0, false, kPictureObject}, -7, 101},
        {"the camera falls silent", {get_object, FaultKind::port_error, -10, 0, 0, false, kPictureObject}, -7, 101},
        {"unplugged", {get_object, FaultKind::unplug, kMebibyte / 2, 0, 0, false, kPictureObject}, -7, 101},
        {"refused", {get_object, FaultKind::response, general_error, 0, 0, false, kPictureObject}, -1, 101},
        {"busy", {get_object, FaultKind::response, device_busy, 0, 0, false, kPictureObject}, -110, 101},
        {"wrong parameter",
         {get_object, FaultKind::response, parameter_not_supported, 0, 0, false, kPictureObject},
         -2,
         100},
    };
    for (const auto &[name, fault, result, reason] : cases) {
        SCOPED_TRACE(name);
        remove_tree(kFolder);
        Camera camera;
        put_pictures(camera);
        camera.fail(fault);
        EventReceiver events;
        StatusWatcher status(import_status_path(kName));
        const Outcome outcome = run_import(camera, kName);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_THAT(files_below(kFolder), ElementsAre("2024/03-Mar/IMG_0001.JPG"));
        EXPECT_THAT(told(outcome),
                    AllOf(HasSubstr("tsbackup_mtp (error) gp_camera_file_get "
                                    "/store_00010001/DCIM/100ZENO-IMG_0002.JPG err!\n"),
                          HasSubstr("tsbackup_mtp (error) download_file!\n"),
                          HasSubstr("tsbackup_mtp (error) download file failed[" + std::to_string(result) + "].\n")));
        EXPECT_EQ(import_log(kName), failed_log(kCopied + "IMG_0001.JPG\n"));
        EXPECT_EQ(with_placeholders(status.seen().back()), failed_status(3));
        EXPECT_THAT(events.received(),
                    ElementsAre(import_event(kName, kFolder, 0), failure_event(kName, kFolder, 2, reason)));
        EXPECT_EQ(camera.asked(": GetObject 00010001/DCIM/100ZENO/IMG_0003.JPG"), 0);
    }
}

TEST_F(ImportFailure, TellsWhereTheWalkBrokeOff) {
    Camera camera;
    camera.put("DCIM/A.JPG", "a", kMarch);
    camera.fail({get_object});
    const Outcome outcome = run_import(camera, kName);
    const std::string empty = "tsbackup_mtp (warning) No files under /\n"
                              "tsbackup_mtp (warning) No files under /store_00010001\n";
    EXPECT_TRUE(same_text(empty + empty +
                              "tsbackup_mtp (error) gp_camera_file_get /store_00010001/DCIM-A.JPG err!\n"
                              "tsbackup_mtp (error) download_file!\n"
                              "tsbackup_mtp (error) iterate_get_files!\n"
                              "tsbackup_mtp (error) iterate_get_files!\n"
                              "tsbackup_mtp (error) download file failed[-1].\n",
                          told(outcome)));
}

TEST_F(ImportFailure, TheNextImportTakesWhatIsMissing) {
    Camera camera;
    put_pictures(camera);
    camera.fail({get_object, FaultKind::cut, kMebibyte / 2, 1, 0, false, kPictureObject});
    run_import(camera, kName);
    EXPECT_THAT(files_below(kFolder), SizeIs(1));
    camera.forget_log();
    run_import(camera, kName);
    EXPECT_THAT(list_folder(kFolder + "/2024/03-Mar"), ElementsAre("IMG_0001.JPG", "IMG_0002.JPG", "IMG_0003.JPG"));
    EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/IMG_0002.JPG"), std::string(kMebibyte, 'x'));
    EXPECT_EQ(camera.asked(": GetObject "), 2);
    EXPECT_EQ(status_of(), import_status("COMPLETED", "OK", 3) + "\n");
}

TEST_F(ImportFailure, AnEarlierCopyOfTheNameSurvivesAFailedDownload) {
    Camera camera;
    put_pictures(camera);
    run_import(camera, kName);
    camera.put(kPicture, "changed", kMarch + 100);
    camera.fail({get_object, FaultKind::cut, 2, 0, 0, false, kPictureObject});
    run_import(camera, kName);
    EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/IMG_0002.JPG." + std::to_string(kMarch + 100)),
              std::string(kMebibyte, 'x'));
    EXPECT_THAT(list_folder(kFolder + "/2024/03-Mar"), SizeIs(3));
}

TEST_F(ImportFailure, NothingIsDeletedFromTheCameraAfterAFailedDownload) {
    enable_import(kDestination, true);
    Camera camera;
    put_pictures(camera);
    camera.fail({get_object, FaultKind::cut, 10, 0, 0, false, kPictureObject});
    run_import(camera, kName);
    EXPECT_EQ(camera.asked(": DeleteObject "), 0);
    EXPECT_TRUE(camera.holds("DCIM/100ZENO/IMG_0001.JPG"));
}

TEST_F(ImportFailure, AFullDestinationLeavesNoPartOfItsFile) {
    REQUIRE_ROOT();
    const std::string small = "/media/small";
    const MountedFor disk("-t tmpfs -o size=600k tmpfs", small);
    enable_import(small);
    Camera camera;
    put_pictures(camera);
    EventReceiver events;
    const Outcome outcome = run_import(camera, kName);
    EXPECT_THAT(files_below(small + "/" + kName), ElementsAre("2024/03-Mar/IMG_0001.JPG")) << outcome.err;
    EXPECT_THAT(events.received(), ElementsAre(import_event(kName, small + "/" + kName, 0),
                                               failure_event(kName, small + "/" + kName, 2, kDestinationFailed)));
    EXPECT_THAT(import_log(kName), HasSubstr("Backup Status: Fail\n"));
}

TEST_F(ImportFailure, ADestinationThatTakesNoFolderIsAFailure) {
    REQUIRE_ROOT();
    Camera camera;
    put_pictures(camera);
    // A file stands where the year's folder should be, then where the month's should.
    for (const std::string in_the_way : {"/2024", "/2024/03-Mar"}) {
        remove_tree(kFolder);
        write_file(kFolder + in_the_way, "text");
        EventReceiver events;
        const Outcome outcome = run_import(camera, kName);
        EXPECT_THAT(told(outcome), HasSubstr("tsbackup_mtp (error) make_dir err.\n"));
        EXPECT_THAT(told(outcome), HasSubstr("tsbackup_mtp (error) download file failed[-1].\n"));
        EXPECT_EQ(read_file(kFolder + in_the_way), "text");
        EXPECT_THAT(events.received(),
                    ElementsAre(import_event(kName, kFolder, 0), failure_event(kName, kFolder, 2, kDestinationFailed)));
    }
}

TEST_F(ImportFailure, ALinkInPlaceOfTheFolderOfTheDeviceIsNotFollowed) {
    Camera camera;
    put_pictures(camera);
    make_folder("/data/Pictures/elsewhere");
    ASSERT_EQ(symlink("/data/Pictures/elsewhere", kFolder.c_str()), 0);
    EventReceiver events;
    expect_refusal(run_import(camera, kName), "chdir to " + kFolder + " failed.", kDestinationFailed, events, kFolder);
    EXPECT_THAT(list_folder("/data/Pictures/elsewhere"), IsEmpty());
}

TEST_F(ImportFailure, ANameThatTheDestinationCannotTakeIsAFailure) {
    Camera camera;
    camera.put("DCIM/A.JPG", "a", kMarch);
    std::string name;
    for (int letter = 0; letter < 130; ++letter)
        name += "\xC3\xA4";
    camera.report_as("DCIM/A.JPG", name);
    EventReceiver events;
    const Outcome outcome = run_import(camera, kName);
    EXPECT_THAT(told(outcome), HasSubstr("tsbackup_mtp (error) rename " + name + " err!\n"));
    EXPECT_THAT(files_below(kFolder), ElementsAre("2024/03-Mar/"));
    EXPECT_THAT(events.received(),
                ElementsAre(import_event(kName, kFolder, 0), failure_event(kName, kFolder, 2, kDestinationFailed)));
}

TEST_F(ImportFailure, FilesThatGetNoTemporaryFileAreSkipped) {
    REQUIRE_VOLUMES();
    Camera camera;
    put_pictures(camera);
    const std::string month = kFolder + "/2024/03-Mar";
    make_folder(month);
    shell_output("chattr +i " + month);
    EventReceiver events;
    const Outcome outcome = run_import(camera, kName);
    shell_output("chattr -i " + month);
    EXPECT_THAT(told(outcome), HasSubstr("tsbackup_mtp (error) Can't create tmp file!\n"));
    EXPECT_THAT(files_below(kFolder), ElementsAre("2024/03-Mar/"));
    EXPECT_THAT(events.received(), ElementsAre(import_event(kName, kFolder, 0), import_event(kName, kFolder, 4)));
    EXPECT_EQ(import_log(kName), "Source: " + kName + "\nDestination: " + kFolder + "\nStart Time: TIME\n" + kLine +
                                     kLine + "Finish Time: TIME\nBackup Status: Success\n\n");
}

TEST_F(ImportFailure, NothingIsLeftOpenOrRunning) {
    Camera camera;
    put_pictures(camera);
    camera.fail({get_object, FaultKind::unplug, 100, 0, 0, false, kPictureObject});
    const auto before = shell_output("ls /tmp /run");
    run_import(camera, kName);
    remove_tree("/run/waits");
    EXPECT_EQ(shell_output("ls /tmp /run"), before);
}

} // namespace
} // namespace tsbackup::test
