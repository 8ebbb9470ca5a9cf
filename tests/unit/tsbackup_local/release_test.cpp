// What a released end leaves to the platform: the eject of its USB disk.

#include "local_ends.h"
#include "tsbackup_local.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace tsbackup::test {

namespace {

/// How many events had arrived when the buffers were flushed, in order of the flushes.
std::vector<std::size_t> events_at_flush;
EventReceiver *watched = nullptr;
std::vector<std::string> arrived;

void collect() {
    if (watched == nullptr) return;
    for (std::string &event : watched->received())
        arrived.push_back(std::move(event));
}

class Release : public LocalEnds {
  protected:
    void SetUp() override {
        LocalEnds::SetUp();
        if (IsSkipped()) return;
        receiver_.emplace();
        watched = &*receiver_;
        arrived.clear();
        events_at_flush.clear();
    }
    void TearDown() override {
        watched = nullptr;
        receiver_.reset();
        LocalEnds::TearDown();
    }
    static std::vector<std::string> events() {
        collect();
        return std::exchange(arrived, {});
    }

  private:
    std::optional<EventReceiver> receiver_;
};

std::string request(const std::string &device) {
    return "ui\nzelkovad\n0 0\n"
           "<xs:delete-s resource-type=\"HotPlug\" resource-id=\"UsbStorage\" action=\"eject\" device=\"" +
           device + "\"></xs:delete-s>";
}

std::string notice_text(const std::string &share, const std::string &escaped_job) {
    return "<xs:add-s resource-type=\"Log\" resource-id=\"Log\"><Log severity=\"notice\" category=\"system\" "
           "message-tag=\"LOGMSG_USB_EJECT_BY_BACKUP\"><args ShareName=\"" +
           share + "\" JobName=\"" + escaped_job + "\"/></Log></xs:add-s>";
}

std::string notice(const std::string &share, const std::string &escaped_job) {
    return "backup\nzelkovad\n0 0\n" + notice_text(share, escaped_job);
}

using Events = std::vector<std::string>;

BackupJob ejecting(JobText source, JobText destination, JobText name = "Nightly") {
    BackupJob job;
    job.name = std::move(name);
    job.src_eject = std::move(source);
    job.dst_eject = std::move(destination);
    return job;
}

TEST_F(Release, AsksForTheEjectAndThenNotesIt) {
    LoggedRun run;
    local_endpoint_release(ejecting("1", {}), run, "/media/DISK/photos", Side::source);
    EXPECT_EQ(events(), (Events{request("sdb1"), notice("DISK", "Nightly")}));
    EXPECT_TRUE(run.silent());
}

TEST_F(Release, FlushesTheBuffersFirst) {
    LoggedRun run;
    local_endpoint_release(ejecting({}, "1"), run, "/media/DISK", Side::destination);
    EXPECT_EQ(events_at_flush, std::vector<std::size_t>{0});
    EXPECT_EQ(events().size(), 2U);
}

TEST_F(Release, EjectsTheSideThatAsksForIt) {
    struct {
        const char *name;
        JobText source, destination;
        Side side;
        bool ejected;
    } const cases[] = {
        {"source asks, source released", "1", "0", Side::source, true},
        {"source asks, destination released", "1", "0", Side::destination, false},
        {"destination asks, source released", "0", "1", Side::source, false},
        {"destination asks, destination released", "0", "1", Side::destination, true},
        {"other number", "2", {}, Side::source, true},
        {"negative number", "-1", {}, Side::source, true},
        {"blank before the number", " 1", {}, Side::source, true},
        {"number and text", "1x", {}, Side::source, true},
        {"zero", "0", {}, Side::source, false},
        {"zeros", "00", {}, Side::source, false},
        {"empty", "", {}, Side::source, false},
        {"text", "yes", {}, Side::source, false},
        {"absent", {}, {}, Side::source, false},
        {"absent at the destination", {}, {}, Side::destination, false},
    };
    for (const auto &released : cases) {
        SCOPED_TRACE(released.name);
        LoggedRun run;
        events_at_flush.clear();
        local_endpoint_release(ejecting(released.source, released.destination), run, "/media/DISK", released.side);
        EXPECT_EQ(events().size(), released.ejected ? 2U : 0U);
        EXPECT_EQ(events_at_flush.size(), released.ejected ? 1U : 0U);
    }
}

TEST_F(Release, EjectsTheDiskThatHoldsThePath) {
    write_storage_table("-!!NINE!!-!!-!!-!!sdx1!!-!!-!!4\n" + storage_line("USB", "sda1", "1") +
                        storage_line("USB2", "sdb1", "2") + storage_line("USB", "sdc1", "3") +
                        storage_line("My Disk", "sdd1", "4") + storage_line("outer/inner", "sde1", "5"));
    struct {
        const char *path;
        const char *device; ///< null: none
        const char *share;
    } const cases[] = {
        {"/media/USB", "sda1", "USB"},
        {"/media/USB/dir", "sda1", "USB"},
        {"/media/USB/USB2", "sda1", "USB"},
        {"/media/USB2", "sdb1", "USB2"},
        {"/media/USB2/dir", "sdb1", "USB2"},
        {"/media/USB3", nullptr, ""},
        {"/media/US", nullptr, ""},
        {"/media/usb", nullptr, ""},
        {"/media/NINE", nullptr, ""},
        {"/media/My Disk/dir", "sdd1", "My Disk"},
        {"/media/My", nullptr, ""},
        {"/media/outer/inner/dir", "sde1", "outer/inner"},
        {"/media/outer", nullptr, ""},
        {"/media", nullptr, ""},
        {"/media/", nullptr, ""},
        {"/mediaUSB", nullptr, ""},
        {"/MEDIA/USB", nullptr, ""},
        {"/files/USB", nullptr, ""},
        {"/data/USB", nullptr, ""},
        {"/data/media/USB", nullptr, ""},
        {"media/USB", nullptr, ""},
        {"//media/USB", nullptr, ""},
        {"/", nullptr, ""},
        {"", nullptr, ""},
    };
    for (const auto &released : cases) {
        SCOPED_TRACE(released.path);
        LoggedRun run;
        local_endpoint_release(ejecting({}, "1"), run, released.path, Side::destination);
        EXPECT_EQ(events(), released.device != nullptr
                                ? (Events{request(released.device), notice(released.share, "Nightly")})
                                : Events());
    }
}

TEST_F(Release, FirstLineThatMatchesCounts) {
    write_storage_table(storage_line("outer", "sda1", "1") + storage_line("outer/inner", "sdb1", "2"));
    LoggedRun run;
    local_endpoint_release(ejecting({}, "1"), run, "/media/outer/inner", Side::destination);
    EXPECT_EQ(events(), (Events{request("sda1"), notice("outer", "Nightly")}));
}

TEST_F(Release, WithoutATableEjectsNothing) {
    remove_tree("/etc/tessera");
    LoggedRun run;
    local_endpoint_release(ejecting({}, "1"), run, "/media/DISK", Side::destination);
    EXPECT_EQ(events(), Events());
    EXPECT_EQ(events_at_flush.size(), 0U);
    EXPECT_TRUE(run.silent());
}

TEST_F(Release, EscapesTheJobsNameAndNothingElse) {
    write_storage_table(storage_line("R&D 'old'", "sd<a>", "1"));
    LoggedRun run;
    local_endpoint_release(ejecting({}, "1", "<Tom & \"Jerry's\">"), run, "/media/R&D 'old'", Side::destination);
    EXPECT_EQ(events(), (Events{request("sd<a>"), notice("R&D 'old'", "&lt;Tom &amp; &quot;Jerry&apos;s&quot;&gt;")}));
}

TEST_F(Release, NamesAJobWithoutANameByAnEmptyText) {
    for (const JobText &name : {JobText(), JobText("")}) {
        LoggedRun run;
        local_endpoint_release(ejecting({}, "1", name), run, "/media/DISK", Side::destination);
        EXPECT_EQ(events(), (Events{request("sdb1"), notice("DISK", "")}));
    }
}

TEST_F(Release, SendsANoticeThatDoesNotFitEmpty) {
    const std::size_t room = 1023 - notice_text("DISK", "").size();
    LoggedRun run;
    local_endpoint_release(ejecting({}, "1", std::string(room, 'n')), run, "/media/DISK", Side::destination);
    EXPECT_EQ(events(), (Events{request("sdb1"), notice("DISK", std::string(room, 'n'))}));

    local_endpoint_release(ejecting({}, "1", std::string(room + 1, 'n')), run, "/media/DISK", Side::destination);
    EXPECT_EQ(events(), (Events{request("sdb1"), "backup\nzelkovad\n0 0\n"}));

    // It is the escaped name that has to fit.
    local_endpoint_release(ejecting({}, "1", std::string(room / 5 + 1, '&')), run, "/media/DISK", Side::destination);
    EXPECT_EQ(events(), (Events{request("sdb1"), "backup\nzelkovad\n0 0\n"}));
}

TEST_F(Release, EjectsEachDiskOnItsOwn) {
    LoggedRun run;
    const BackupJob job = ejecting("1", "1");
    local_endpoint_release(job, run, "/media/DISK", Side::source);
    local_endpoint_release(job, run, "/media/USB", Side::destination);
    EXPECT_EQ(events(),
              (Events{request("sdb1"), notice("DISK", "Nightly"), request("sdc1"), notice("USB", "Nightly")}));
}

TEST_F(Release, DeletesTheSnapshotWhateverTheEjectSays) {
    for (const JobText &eject : {JobText("1"), JobText("0"), JobText()}) {
        SnapshotTool tool(SnapshotTool::Behaviour::fails);
        LoggedRun run;
        run.snapshot_path = "/data/._share/share/.snapshot/b_7_1";
        run.snapshot_skip_path = "/data/._share/share/.snapshot/b_7_1/own";
        local_endpoint_release(ejecting(eject, "1"), run, "/data/share", Side::source);
        EXPECT_EQ(tool.calls(), (std::vector<std::vector<std::string>>{
                                    {"subvolume", "delete", "/data/._share/share/.snapshot/b_7_1"}}));
        EXPECT_FALSE(run.snapshot_path);
        EXPECT_FALSE(run.snapshot_skip_path);
        EXPECT_TRUE(run.silent()) << "a failed deletion is nobody's error";

        local_endpoint_release(ejecting(eject, "1"), run, "/data/share", Side::source);
        EXPECT_TRUE(tool.calls().empty()) << "deleted once";
    }
    EXPECT_EQ(events(), Events());
}

TEST_F(Release, LogsTheDeletionAsItsCommand) {
    const SnapshotTool tool(SnapshotTool::Behaviour::fails);
    const Diagnostics diagnostics;
    LoggedRun run;
    run.snapshot_path = "/data/._share/share/.snapshot/b_7_1";
    local_endpoint_release(BackupJob(), run, "/data/share", Side::source);
    EXPECT_EQ(diagnostics.without_places(),
              "(debug) cmd=/sbin/btrfs subvolume delete /data/._share/share/.snapshot/b_7_1\n");
}

TEST_F(Release, OfTheDestinationLeavesTheSnapshotAlone) {
    SnapshotTool tool(SnapshotTool::Behaviour::fails);
    LoggedRun run;
    run.snapshot_path = "/data/._share/share/.snapshot/b_7_1";
    run.snapshot_skip_path = "/data/._share/share/.snapshot/b_7_1/own";
    local_endpoint_release(ejecting("1", {}), run, "/data/share", Side::destination);
    EXPECT_TRUE(tool.calls().empty());
    EXPECT_TRUE(run.snapshot_path);
    EXPECT_TRUE(run.snapshot_skip_path);
}

} // namespace

} // namespace tsbackup::test

// The definition of the program itself comes before the C library's.
extern "C" void sync() noexcept {
    using namespace tsbackup::test;
    collect();
    if (watched != nullptr) events_at_flush.push_back(arrived.size());
    syscall(SYS_sync);
}
