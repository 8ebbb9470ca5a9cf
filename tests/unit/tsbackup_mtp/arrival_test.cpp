// What a device is called, and which devices are looked at.

#include "arrival.h"

#include "connection.h"
#include "support.h"

#include <cstdlib>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kPipe[] = "/var/run/zelkovad/mtpbackup-q";

TEST(SanitizeName, ReplacesDotsAndWhiteSpaceOnly) {
    const struct {
        std::string text;
        std::string expected;
    } cases[] = {
        {"", ""},
        {"plain", "plain"},
        {".", "_"},
        {"..", "__"},
        {"a.b c", "a_b_c"},
        {" \t\n\v\f\r", "______"},
        {"/:;$\"'&<>\\-_", "/:;$\"'&<>\\-_"},
        {"\x01\x7f", "\x01\x7f"},
        // No byte of a letter beyond ASCII counts as white space, a no-break space neither.
        {"\xC3\xA0 \xC2\xA0 \xC2\x85", "\xC3\xA0_\xC2\xA0_\xC2\x85"},
    };
    for (const auto &[text, expected] : cases) {
        std::string name = text;
        EXPECT_EQ(&sanitize_name(name), &name);
        EXPECT_EQ(name, expected);
    }
}

TEST(DeviceName, IsMadeOfWhatTheCameraSays) {
    const std::string model(15, 'm');
    const std::string serial(31, 's');
    const struct {
        CameraIdentity camera;
        std::string name;
    } cases[] = {
        {{"Canon", "EOS 5D", "12"}, "Canon_EOS_5D_12"},
        {{"Canon Inc.", "PowerShot S1.2", "1 2"}, "Canon_Inc__PowerShot_S1_2_1_2"},
        {{"Apple Inc", "iPhone", "12"}, "iPhone_12"},
        {{"Apple Inc.", "iPhone 4.1", "a b"}, "iPhone_4_1_a_b"},
        {{"Apple Incorpora", "iPhone", "12"}, "iPhone_12"},
        {{"Apple In", "iPhone", "12"}, "Apple_In_iPhone_12"},
        {{"apple Inc", "iPhone", "12"}, "apple_Inc_iPhone_12"},
        {{" Apple Inc", "iPhone", "12"}, "_Apple_Inc_iPhone_12"},
        {{"", "", ""}, "__"},
        {{"Apple Inc", "", ""}, "_"},
        {{"../..", "/etc", "a/b"}, "_______etc_a_b"},
        {{std::string(15, 'f'), model, serial}, std::string(15, 'f') + "_" + model + "_" + serial},
        {{std::string(15, 'f'), model, std::string(40, 's')}, std::string(15, 'f') + "_" + model + "_" + serial},
    };
    for (const auto &[camera, name] : cases)
        EXPECT_EQ(device_name(camera), name);
}

TEST(DeviceName, OfTheDeviceManagerIsItsSerial) {
    const struct {
        std::string serial;
        std::string name;
    } cases[] = {
        {"Canon_EOS_12", "Canon_EOS_12"},
        {"a/b", "a_b"},
        {"", ""},
        {std::string(63, 's'), std::string(63, 's')},
        {std::string(64, 's'), std::string(63, 's')},
    };
    for (const auto &[serial, name] : cases)
        EXPECT_EQ(device_name(DeviceIdentity{1, serial, "1", "2"}), name);
}

/// A camera's configuration with these texts; null: the text is missing.
UniqueWidget configuration(const char *manufacturer, const char *model, const char *serial,
                           CameraWidgetType type = GP_WIDGET_TEXT) {
    const auto add = [](CameraWidget *parent, CameraWidgetType of, const char *name, const char *value) {
        CameraWidget *widget = nullptr;
        gp_widget_new(of, "label", &widget);
        gp_widget_set_name(widget, name);
        if (of == GP_WIDGET_TEXT) gp_widget_set_value(widget, value);
        if (parent != nullptr) gp_widget_append(parent, widget);
        return widget;
    };
    UniqueWidget tree(add(nullptr, GP_WIDGET_WINDOW, "main", nullptr));
    CameraWidget *status = add(tree.get(), GP_WIDGET_SECTION, "status", nullptr);
    if (manufacturer != nullptr) add(status, type, "manufacturer", manufacturer);
    if (model != nullptr) add(status, type, "cameramodel", model);
    if (serial != nullptr) add(status, type, "serialnumber", serial);
    return tree;
}

TEST(CameraIdentity, IsReadAndCut) {
    CameraIdentity camera;
    EXPECT_EQ(camera_identity_read(configuration("Zeno", "M", "1").get(), camera), 0);
    EXPECT_THAT((std::vector{camera.manufacturer, camera.model, camera.serial}), ElementsAre("Zeno", "M", "1"));
    const std::string text(40, 't');
    EXPECT_EQ(camera_identity_read(configuration(text.c_str(), text.c_str(), text.c_str()).get(), camera), 0);
    EXPECT_THAT((std::vector{camera.manufacturer, camera.model, camera.serial}),
                ElementsAre(text.substr(0, 15), text.substr(0, 15), text.substr(0, 31)));
}

TEST(CameraIdentity, AMissingTextEndsTheReading) {
    const std::string missing = "(warning) Not a TEXT type?[1]\n";
    const struct {
        const char *name;
        UniqueWidget tree;
        std::string told;
    } cases[] = {
        {"no manufacturer", configuration(nullptr, "M", "1"), missing},
        {"no model", configuration("Zeno", nullptr, "1"), missing},
        {"no serial number", configuration("Zeno", "M", nullptr), missing},
        {"nothing", configuration(nullptr, nullptr, nullptr), missing},
        {"no texts", configuration("", "", "", GP_WIDGET_TOGGLE), "(warning) Not a TEXT type?[4]\n"},
    };
    for (const auto &[name, tree, told] : cases) {
        const Diagnostics diagnostics;
        CameraIdentity camera;
        EXPECT_EQ(camera_identity_read(tree.get(), camera), -2) << name;
        EXPECT_EQ(diagnostics.without_places(), told) << name;
    }
    // A text without a value is missing, too.
    const Diagnostics diagnostics;
    UniqueWidget tree = configuration("Zeno", "M", nullptr);
    CameraWidget *widget = nullptr;
    gp_widget_new(GP_WIDGET_TEXT, "label", &widget);
    gp_widget_set_name(widget, "serialnumber");
    CameraWidget *status = nullptr;
    gp_widget_get_child_by_name(tree.get(), "status", &status);
    gp_widget_append(status, widget);
    CameraIdentity camera;
    EXPECT_EQ(camera_identity_read(tree.get(), camera), -2);
    EXPECT_EQ(diagnostics.text(), "");
}

class Variables {
  public:
    Variables(const char *gphoto, const char *mtp) {
        set("ID_GPHOTO2", gphoto);
        set("ID_MTP_DEVICE", mtp);
    }
    ~Variables() {
        set("ID_GPHOTO2", nullptr);
        set("ID_MTP_DEVICE", nullptr);
    }
    Variables(const Variables &) = delete;
    Variables &operator=(const Variables &) = delete;

  private:
    static void set(const char *name, const char *value) {
        if (value != nullptr)
            setenv(name, value, 1);
        else
            unsetenv(name);
    }
};

TEST(DeviceKind, IsWhatTheEnvironmentMarks) {
    const struct {
        const char *gphoto;
        const char *mtp;
        int kind;
    } cases[] = {
        {nullptr, nullptr, 0}, {"1", nullptr, 1}, {nullptr, "1", 2}, {"1", "1", 2},     {"1", "0", 1},
        {"0", "1", 2},         {"", "", 0},       {"01", "1 ", 0},   {"11", "true", 0}, {"1", "", 1},
    };
    for (const auto &[gphoto, mtp, kind] : cases) {
        const Variables variables(gphoto, mtp);
        EXPECT_EQ(device_kind(), kind) << testing::PrintToString(gphoto) << testing::PrintToString(mtp);
    }
}

/// The queue daemon's end of the pipe.
class Pipe {
  public:
    Pipe() : fd_(open(kPipe, O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {}
    ~Pipe() { close(fd_); }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    std::string received() const {
        std::string text(1024, '\0');
        const ssize_t length = read(fd_, text.data(), text.size());
        text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
        return text;
    }

  private:
    int fd_;
};

class Queueing : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        if (file_exists(kPipe)) return;
        ASSERT_EQ(mkfifo(kPipe, 0600), 0);
    }
};

std::string record(std::string text) {
    text.resize(128, '\0');
    return text;
}

TEST_F(Queueing, ARequestIsOneRecordAndOneEvent) {
    const struct {
        DeviceIdentity device;
        std::string name;
        std::string text;
    } cases[] = {
        {{1, "", "001", "005"}, "Canon_1", "enqueue:1:001:005:Canon_1\n"},
        {{2, "", "", ""}, "", "enqueue:2:::\n"},
        {{2, "", "1234567", "7654321"},
         std::string(63, 'n'),
         "enqueue:2:1234567:7654321:" + std::string(63, 'n') + "\n"},
        {{1, "", "1", "2"}, "a:b%s", "enqueue:1:1:2:a:b%s\n"},
    };
    for (const auto &[device, name, text] : cases) {
        const Pipe pipe;
        EventReceiver events;
        const Diagnostics diagnostics;
        camera_import_queue(device, name);
        EXPECT_EQ(pipe.received(), record(text));
        EXPECT_THAT(events.received(),
                    ElementsAre("mtpbackup\nzelkovad\n0 0\n<xs:add-s resource-type=\"Backup\"><mtpbackup devname=\"" +
                                name + "\" status=\"5\"/></xs:add-s>"));
        EXPECT_EQ(diagnostics.text(), "");
    }
}

TEST_F(Queueing, AFailureNamesTheDeviceAndSendsNoEvent) {
    EventReceiver events;
    const std::string failed = "(error) Enqueue mtp backup job Canon_1 001 005 failed.\n";
    {
        const Diagnostics diagnostics;
        camera_import_queue({1, "", "001", "005"}, "Canon_1");
        EXPECT_EQ(diagnostics.without_places(),
                  std::string("(error) Cannot open ") + kPipe + ", because tsbackup-q is not running\n" + failed);
    }
    unlink(kPipe);
    make_folder(kPipe);
    {
        const Diagnostics diagnostics;
        camera_import_queue({1, "", "001", "005"}, "Canon_1");
        EXPECT_EQ(diagnostics.without_places(),
                  std::string("(error) Cannot open ") + kPipe + ". errno=" + std::to_string(EISDIR) + "\n" + failed);
    }
    remove_tree(kPipe);
    EXPECT_THAT(events.received(), IsEmpty());
}

} // namespace
} // namespace tsbackup::test
