// The destination of an import, the end of its log, and what is refused before any camera is asked.

#include "import.h"

#include "support.h"
#include "tsbackup_mtp.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr char kServices[] = "/etc/default/services";
constexpr char kLog[] = "/var/log/tessera/backup/mtpbackup_Zeno.log";

class Destination : public testing::Test {
  protected:
    void SetUp() override { REQUIRE_APPLIANCE(); }
    void TearDown() override {
        remove_tree("/volume");
        remove_tree("/sbin/zk_nml");
        remove_tree("/calls");
        if (in_appliance()) write_file(kServices, "ANTIVIRUS=0\n");
    }

    /// Puts a tool in place that notes its arguments.
    static void tool(const std::string &path, int status) {
        write_file(path, "#!/bin/sh\nprintf '%s\\n' \"$0\" \"$@\" >>/calls\nexit " + std::to_string(status) + "\n",
                   0755);
    }
};

TEST_F(Destination, WhatExistsWillDo) {
    make_folder("/volume/Share");
    write_file("/volume/file", "text");
    const Diagnostics diagnostics;
    for (const char *path : {"/", "/volume", "/volume/", "/volume/Share", "/volume/file"})
        EXPECT_EQ(destination_ensure(path), 0) << path;
    // Folders below a share are made with the folder of the device.
    EXPECT_EQ(destination_ensure("/volume/Share/a/b"), 0);
    EXPECT_EQ(diagnostics.text(), "");
}

TEST_F(Destination, WhatCannotBeAShareIsRefused) {
    const std::string long_volume(32, 'v');
    const struct {
        std::string path;
        std::string told;
    } cases[] = {
        {"/media/Disk", "Don't recreate media share[/media/Disk].\n"},
        {"/media/Disk/Photos", "Don't recreate media share[/media/Disk/Photos].\n"},
        {"/nowhere", "Only match volume?[/nowhere].\n"},
        {"/nowhere/", "Only match volume?[/nowhere/].\n"},
        {"/nowhere//", "Only match volume?[/nowhere//].\n"},
        {"/nowhere//Share", "Only match volume?[/nowhere//Share].\n"},
        {"/" + long_volume + "/Share", "Only match volume?[/" + long_volume + "/Share].\n"},
        {"", "Nothing matched?[].\n"},
        {"nowhere/Share", "Nothing matched?[nowhere/Share].\n"},
        {"//nowhere", "Nothing matched?[//nowhere].\n"},
        {" /nowhere/Share", "Nothing matched?[ /nowhere/Share].\n"},
    };
    for (const auto &[path, told] : cases) {
        const Diagnostics diagnostics;
        EXPECT_EQ(destination_ensure(path), -1) << path;
        EXPECT_EQ(diagnostics.without_places(), "(error) " + told);
    }
}

TEST_F(Destination, AMissingShareIsMadeByItsTool) {
    tool("/sbin/zk_nml", 0);
    const struct {
        std::string path;
        std::string share;
    } cases[] = {
        {"/volume/Photos", "/volume/Photos"},
        {"/volume/Photos/", "/volume/Photos"},
        {"/volume/My Photos/a b", "/volume/My Photos"},
        {"/volume/$(x);'y/z", "/volume/$(x);'y"},
        {"/homes/carol", "/homes/carol"},
        {"/" + std::string(31, 'v') + "/" + std::string(31, 's'),
         "/" + std::string(31, 'v') + "/" + std::string(31, 's')},
        {"/volume/" + std::string(40, 's'), "/volume/" + std::string(31, 's')},
        {"/media", ""},
        {"/mediaX/Disk", "/mediaX/Disk"},
    };
    for (const auto &[path, share] : cases) {
        if (share.empty()) continue;
        remove_tree("/calls");
        const Diagnostics diagnostics;
        EXPECT_EQ(destination_ensure(path), 0) << path;
        EXPECT_EQ(read_file("/calls"), "/sbin/zk_nml\n-a\nshare:" + share + "\n");
        EXPECT_EQ(diagnostics.without_places(),
                  "(info) Auto media backup share " + share + " doesn't exist, create it.\n");
    }
}

TEST_F(Destination, AToolThatFailsIsAFailure) {
    for (const int status : {1, 2, 255}) {
        tool("/sbin/zk_nml", status);
        const Diagnostics diagnostics;
        EXPECT_EQ(destination_ensure("/volume/Photos"), -1);
        EXPECT_EQ(diagnostics.without_places(), "(info) Auto media backup share /volume/Photos doesn't exist, create "
                                                "it.\n(error) Recreate Auto media backup share failed.\n");
    }
    remove_tree("/sbin/zk_nml");
    EXPECT_EQ(destination_ensure("/volume/Photos"), -1);
}

// --- The log ---

TEST(ImportLog, EndsWithItsResult) {
    for (const bool success : {true, false}) {
        char *text = nullptr;
        std::size_t size = 0;
        std::FILE *log = open_memstream(&text, &size);
        import_log_finish(log, success);
        std::fclose(log);
        EXPECT_THAT(std::string(text), MatchesRegex("-{52}\nFinish Time: [0-9]+\nBackup Status: " +
                                                    std::string(success ? "Success" : "Fail") + "\n\n"));
        std::free(text);
    }
}

std::string numbered_lines(int first, int last) {
    std::string text;
    for (int line = first; line <= last; ++line)
        text += std::to_string(line) + "\n";
    return text;
}

TEST(ImportLog, HasTenThousandLinesAndTheLastTen) {
    const TempFolder folder;
    const std::string log = folder / "log";
    const struct {
        int lines;
        std::string expected;
    } cases[] = {
        {3, numbered_lines(1, 3)},
        {10000, numbered_lines(1, 10000)},
        {10010, numbered_lines(1, 10010)},
        {10011, numbered_lines(1, 10000) + "BACKUP_INFO_LOG_TRUNCATED:1\n" + numbered_lines(10002, 10011)},
        {20000, numbered_lines(1, 10000) + "BACKUP_INFO_LOG_TRUNCATED:9990\n" + numbered_lines(19991, 20000)},
    };
    for (const auto &[lines, expected] : cases) {
        write_file(log, numbered_lines(1, lines));
        log_cap(log);
        EXPECT_TRUE(read_file(log) == expected) << lines;
        EXPECT_THAT(list_folder(folder.path()), ElementsAre("log"));
    }
    log_cap(folder / "missing");
    EXPECT_THAT(list_folder(folder.path()), ElementsAre("log"));
}

// --- Refusals ---

TEST_F(Destination, AnImportThatIsNotEnabledDoesNothing) {
    EventReceiver events;
    for (const char *services : {"", "MTPBACKUP=0\n", "MTPBACKUP=x\n"}) {
        write_file(kServices, services);
        EXPECT_EQ(perform_mtpbackup(nullptr, nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(camera_arrival(), 0);
    }
    remove_tree(kServices);
    EXPECT_EQ(perform_mtpbackup("1", "001", "005", "Zeno"), 0);
    EXPECT_EQ(camera_arrival(), 0);
    EXPECT_THAT(events.received(), IsEmpty());
    EXPECT_FALSE(file_exists("/var/log/tessera/backup/status_mtpbackup_Zeno"));
}

struct RefusalCase {
    const char *name;
    const char *arguments[4];
    const char *destination;
    int reason;
    std::string told; ///< the last diagnostic at the levels up to "error"
    std::string device;
    std::string folder;
};

TEST_F(Destination, RefusalsAreToldWithTheirReason) {
    make_folder("/volume/Share");
    write_file("/volume/file", "text");
    // Without any driver for ports no machine has a camera.
    const TempFolder no_ports;
    setenv("IOLIBS", no_ports.path().c_str(), 1);
    const std::string bad_input = "(error) Invaild input for perform_mtpbackup\n";
    const RefusalCase cases[] = {
        {"no kind", {nullptr, "001", "005", "Zeno"}, "/volume/Share", 104, bad_input, "Zeno", "unknown"},
        {"no bus", {"1", nullptr, "005", "Zeno"}, "/volume/Share", 104, bad_input, "Zeno", "unknown"},
        {"no device", {"1", "001", nullptr, "Zeno"}, "/volume/Share", 104, bad_input, "Zeno", "unknown"},
        {"no name", {"1", "001", "005", nullptr}, "/volume/Share", 104, bad_input, "unknown", "unknown"},
        {"name of a parent", {"1", "001", "005", ".."}, "/volume/Share", 104, bad_input, "unknown", "unknown"},
        {"name with folders", {"1", "001", "005", "../../etc"}, "/volume/Share", 104, bad_input, "unknown", "unknown"},
        {"no destination", {"1", "001", "005", "Zeno"}, "", 101, "(error) Nothing matched?[].\n", "Zeno", "unknown"},
        {"a file",
         {"1", "001", "005", "Zeno"},
         "/volume/file",
         101,
         "(error) Can't mkdir /volume/file/Zeno for mtpbackup.\n",
         "Zeno",
         "unknown"},
        {"media player",
         {"2", "001", "005", "Zeno"},
         "/volume/Share",
         104,
         "(error) MTP is not supported yet!\n",
         "Zeno",
         "/volume/Share/Zeno"},
        {"unknown kind",
         {"3", "001", "005", "Zeno"},
         "/volume/Share",
         104,
         "(error) Invalid proto [3] for perform_mtpbackup.\n",
         "Zeno",
         "/volume/Share/Zeno"},
        {"negative kind",
         {"-1", "001", "005", "Zeno"},
         "/volume/Share",
         104,
         "(error) Invalid proto [-1] for perform_mtpbackup.\n",
         "Zeno",
         "/volume/Share/Zeno"},
        {"no camera",
         {"1", "998", "999", "Zeno"},
         "/volume/Share",
         100,
         "(error) Init camera port [usb:998,999] or model failed[ret=-4].\n(error) init_cam_set failed.\n",
         "Zeno",
         "/volume/Share/Zeno"},
    };
    for (const RefusalCase &test : cases) {
        SCOPED_TRACE(test.name);
        write_file(kServices, std::string("MTPBACKUP=1\nMTPBACKUP_DIR=") + test.destination + "\n");
        const std::string status = "/var/log/tessera/backup/status_mtpbackup_" + test.device;
        EventReceiver events;
        const Diagnostics diagnostics(3);
        EXPECT_EQ(perform_mtpbackup(test.arguments[0], test.arguments[1], test.arguments[2], test.arguments[3]),
                  test.reason);
        EXPECT_EQ(diagnostics.without_places(), test.told);
        EXPECT_THAT(events.received(),
                    ElementsAre("mtpbackup\nzelkovad\n0 0\n<xs:add-s resource-type=\"Backup\"><mtpbackup devname=\"" +
                                test.device + "\" dest=\"" + test.folder + "\" status=\"2\" reason=\"" +
                                std::to_string(test.reason) + "\"/></xs:add-s>"));
        EXPECT_THAT(read_file(status), MatchesRegex("MBACKUP_STATUS__FAILED!![0-9]+!!warn!!0!!0!!0!!0!!0.000000\n"));
        EXPECT_FALSE(file_exists(kLog));
        remove_tree(status);
        remove_tree("/volume/Share/Zeno");
    }
    unsetenv("IOLIBS");
    EXPECT_THAT(list_folder("/volume"), ElementsAre("Share", "file"));
    EXPECT_FALSE(file_exists("/volume/etc"));
}

TEST_F(Destination, SettingsAndArgumentsAreTold) {
    const struct {
        const char *setting;
        const char *told;
    } cases[] = {
        {"", "(debug) MTP backup delete: 0\n"},
        {"MTPBACKUP_DELETE=1\n", "(debug) MTP backup delete: 1\n"},
        {"MTPBACKUP_DELETE=0\n", "(debug) MTP backup delete: 0\n"},
        {"MTPBACKUP_DELETE=yes\n", "(debug) MTP backup delete: 0\n"},
        {"MTPBACKUP_DELETE=12345678\n", "(debug) MTP backup delete: 12345678\n"},
        {"MTPBACKUP_DELETE=123456789\n", "(debug) MTP backup delete: 12345678\n"},
    };
    for (const auto &[setting, told] : cases) {
        write_file(kServices, std::string("MTPBACKUP=1\n") + setting);
        const Diagnostics diagnostics;
        EXPECT_EQ(perform_mtpbackup("1", "001", "005", "Zeno"), 101);
        EXPECT_EQ(diagnostics.without_places(),
                  std::string("(debug) perform_mtpbackup: 1 001 005 Zeno\n") + told + "(error) Nothing matched?[].\n");
    }
}

} // namespace
} // namespace tsbackup::test
