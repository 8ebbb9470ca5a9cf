#include "tsbackup_utils.h"

#include "support.h"

#include <functional>
#include <gtest/gtest.h>

using namespace tsbackup;
using namespace tsbackup::test;

namespace {

std::string datagram(const std::string &kind, const std::string &message) {
    return kind + "\nzelkovad\n0 0\n" + message;
}

class Events : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        receiver_.emplace();
    }

    /// The one event that `send` pushes.
    std::string event(const std::function<void()> &send) {
        send();
        const std::vector<std::string> events = receiver_->received();
        EXPECT_EQ(events.size(), 1U);
        return events.empty() ? std::string() : events.front();
    }

    std::optional<EventReceiver> receiver_;
};

TEST_F(Events, EveryMessageIsWordedAsTheDaemonExpects) {
    const std::string special = R"(A & B <"it's">)";
    const std::string escaped = "A &amp; B &lt;&quot;it&apos;s&quot;&gt;";
    const struct {
        const char *name;
        std::function<void()> send;
        const char *kind;
        std::string message;
    } cases[] = {
        {"a job's result", [] { event_job_result(7, "Photos", 0, 1, 0); }, "backup",
         R"(<xs:add-s resource-type="Backup"><backup job-id="7" job-name="Photos" status="0" email="1" by-button="0"/></xs:add-s>)"},
        {"a failed job that the button started", [] { event_job_result(12, "Photos", 99, -1, 1); }, "backup",
         R"(<xs:add-s resource-type="Backup"><backup job-id="12" job-name="Photos" status="99" email="-1" by-button="1"/></xs:add-s>)"},
        {"a job with special characters in its name", [&] { event_job_result(7, special.c_str(), 11, 0, 0); }, "backup",
         R"(<xs:add-s resource-type="Backup"><backup job-id="7" job-name=")" + escaped +
             R"(" status="11" email="0" by-button="0"/></xs:add-s>)"},
        {"a job without a name", [] { event_job_result(7, nullptr, 0, 0, 0); }, "backup",
         R"(<xs:add-s resource-type="Backup"><backup job-id="7" job-name="" status="0" email="0" by-button="0"/></xs:add-s>)"},
        {"the button jobs succeeded", [] { event_button_summary(0); }, "backup",
         R"(<xs:add-s resource-type="Backup"><backup job-id="0" job-name="button" status="0" email="0" by-button="1"/></xs:add-s>)"},
        {"a button job failed", [] { event_button_summary(1); }, "backup",
         R"(<xs:add-s resource-type="Backup"><backup job-id="0" job-name="button" status="1" email="0" by-button="1"/></xs:add-s>)"},
        {"an SD card without a target", [] { event_sd_card_failed(0, 4, 1); }, "backup",
         R"(<xs:add-s resource-type="Backup"><backup job-id="0" job-name="SD_to_" status="4" email="0" by-button="1"/></xs:add-s>)"},
        {"an eject request", [] { event_usb_eject("sdq1"); }, "ui",
         R"(<xs:delete-s resource-type="HotPlug" resource-id="UsbStorage" action="eject" device="sdq1"></xs:delete-s>)"},
        {"an eject notice", [&] { event_usb_eject_notice("USB Disk", special.c_str()); }, "backup",
         R"(<xs:add-s resource-type="Log" resource-id="Log"><Log severity="notice" category="system" message-tag="LOGMSG_USB_EJECT_BY_BACKUP"><args ShareName="USB Disk" JobName=")" +
             escaped + R"("/></Log></xs:add-s>)"},
        {"an eject notice for a job without a name", [] { event_usb_eject_notice("USB", nullptr); }, "backup",
         R"(<xs:add-s resource-type="Log" resource-id="Log"><Log severity="notice" category="system" message-tag="LOGMSG_USB_EJECT_BY_BACKUP"><args ShareName="USB" JobName=""/></Log></xs:add-s>)"},
        {"a camera was queued", [] { event_camera_queued("Canon_IXUS_1", 5); }, "mtpbackup",
         R"(<xs:add-s resource-type="Backup"><mtpbackup devname="Canon_IXUS_1" status="5"/></xs:add-s>)"},
        {"a camera with special characters was queued", [&] { event_camera_queued(special.c_str(), 5); }, "mtpbackup",
         R"(<xs:add-s resource-type="Backup"><mtpbackup devname=")" + escaped + R"(" status="5"/></xs:add-s>)"},
        {"an import's state", [&] { event_camera_import("cam&1", special.c_str(), 4); }, "mtpbackup",
         R"(<xs:add-s resource-type="Backup"><mtpbackup devname="cam&amp;1" dest=")" + escaped +
             R"(" status="4"/></xs:add-s>)"},
        {"an import that failed", [] { event_camera_import_failed("cam<1", "data/Pictures", 2, 102); }, "mtpbackup",
         R"(<xs:add-s resource-type="Backup"><mtpbackup devname="cam&lt;1" dest="data/Pictures" status="2" reason="102"/></xs:add-s>)"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(event(c.send), datagram(c.kind, c.message));
    }
}

TEST_F(Events, ALongMessageIsCut) {
    const std::string name(2000, 'n');
    const std::string start = R"(<xs:add-s resource-type="Backup"><backup job-id="7" job-name=")";
    EXPECT_EQ(event([&] { event_job_result(7, name.c_str(), 0, 0, 0); }),
              datagram("backup", (start + name).substr(0, 1023)));

    const std::string camera = R"(<xs:add-s resource-type="Backup"><mtpbackup devname=")";
    EXPECT_EQ(event([&] { event_camera_queued(name.c_str(), 5); }),
              datagram("mtpbackup", (camera + name).substr(0, 1023)));

    const std::string eject =
        R"(<xs:delete-s resource-type="HotPlug" resource-id="UsbStorage" action="eject" device=")";
    EXPECT_EQ(event([&] { event_usb_eject(name.c_str()); }), datagram("ui", (eject + name).substr(0, 1023)));
}

TEST_F(Events, AnEjectNoticeThatDoesNotFitIsSentEmpty) {
    const std::string start =
        R"(<xs:add-s resource-type="Log" resource-id="Log"><Log severity="notice" category="system" message-tag="LOGMSG_USB_EJECT_BY_BACKUP"><args ShareName="USB" JobName=")";
    const std::string end = R"("/></Log></xs:add-s>)";
    const std::string longest(1023 - start.size() - end.size(), 'n');
    EXPECT_EQ(event([&] { event_usb_eject_notice("USB", longest.c_str()); }),
              datagram("backup", start + longest + end));
    EXPECT_EQ(event([&] { event_usb_eject_notice("USB", (longest + "n").c_str()); }), datagram("backup", ""));
}

} // namespace
