// How a text is found in a camera's configuration, and what a connection says when there is no camera.

#include "connection.h"

#include "support.h"

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <langinfo.h>

namespace tsbackup::test {
namespace {

CameraWidget *add(CameraWidget *parent, CameraWidgetType type, const char *name, const char *label,
                  const char *value = nullptr) {
    CameraWidget *widget = nullptr;
    gp_widget_new(type, label, &widget);
    gp_widget_set_name(widget, name);
    if (value != nullptr) gp_widget_set_value(widget, value);
    if (parent != nullptr) gp_widget_append(parent, widget);
    return widget;
}

/// A configuration like that of a camera.
UniqueWidget configuration() {
    UniqueWidget tree(add(nullptr, GP_WIDGET_WINDOW, "main", "Camera and Driver Configuration"));
    CameraWidget *status = add(tree.get(), GP_WIDGET_SECTION, "status", "Camera Status Information");
    add(status, GP_WIDGET_TEXT, "manufacturer", "Camera Manufacturer", "Zeno");
    add(status, GP_WIDGET_TEXT, "cameramodel", "Camera Model", "Model 3");
    add(status, GP_WIDGET_TEXT, "empty", "Nothing");
    add(status, GP_WIDGET_TOGGLE, "switch", "A switch");
    add(status, GP_WIDGET_TEXT, "unnamed", "serialnumber", "by label");
    CameraWidget *other = add(tree.get(), GP_WIDGET_SECTION, "other", "status2");
    add(other, GP_WIDGET_TEXT, "manufacturer", "Other", "second");
    add(other, GP_WIDGET_TEXT, "a/b", "With a slash", "slashed");
    return tree;
}

struct WidgetCase {
    const char *name;
    int result;
    const char *value;       ///< null: none
    const char *diagnostics; ///< without places
};

TEST(WidgetText, IsFoundByNameLabelOrPath) {
    const WidgetCase cases[] = {
        {"manufacturer", 0, "Zeno", ""},
        {"Camera Model", 0, "Model 3", ""},
        {"a/b", 0, "slashed", ""},
        {"/main/status/manufacturer", 0, "Zeno", ""},
        {"/main/other/manufacturer", 0, "second", ""},
        {"main/status/cameramodel", 0, "Model 3", ""},
        {"///main//status///cameramodel//", 0, "Model 3", ""},
        {"/status/cameramodel", 0, "Model 3", ""},
        {"/main/cameramodel", 0, "Model 3", ""},
        {"serialnumber", 0, "by label", ""},
        // A last component that is there only by its label, or not at all, ends on its section.
        {"/main/status/serialnumber", -1, nullptr, "(warning) Not a TEXT type?[1]\n"},
        {"/main/status/nothing", -1, nullptr, "(warning) Not a TEXT type?[1]\n"},
        {"/nothing", -1, nullptr, "(warning) Not a TEXT type?[0]\n"},
        {"/", -1, nullptr, "(warning) Not a TEXT type?[0]\n"},
        // A component in between may not be missing, nor there only by its label.
        {"/main/nothing/manufacturer", -2, nullptr, "(warning) gp_widget_get_child failed[-2].\n"},
        {"/main/status2/manufacturer", -2, nullptr, "(warning) gp_widget_get_child failed[-2].\n"},
        {"/nothing/status/manufacturer", -2, nullptr, "(warning) gp_widget_get_child failed[-2].\n"},
        {"status", -1, nullptr, "(warning) Not a TEXT type?[1]\n"},
        {"/main/status/switch", -1, nullptr, "(warning) Not a TEXT type?[4]\n"},
        {"/main/status/empty", 0, nullptr, ""},
    };
    const UniqueWidget tree = configuration();
    for (const WidgetCase &test : cases) {
        const Diagnostics diagnostics;
        CameraWidget *widget = nullptr;
        const char *value = nullptr;
        EXPECT_EQ(camset_widget_text(tree.get(), widget, test.name, value), test.result) << test.name;
        EXPECT_STREQ(value, test.value) << test.name;
        EXPECT_EQ(diagnostics.without_places(), test.diagnostics) << test.name;
    }
}

TEST(WidgetText, GivesTheWidgetItself) {
    const UniqueWidget tree = configuration();
    CameraWidget *widget = nullptr;
    const char *value = nullptr;
    ASSERT_EQ(camset_widget_text(tree.get(), widget, "/main/other/manufacturer", value), 0);
    const char *label = nullptr;
    gp_widget_get_label(widget, &label);
    EXPECT_STREQ(label, "Other");
}

TEST(PortPath, IsCutAtFifteenCharacters) {
    EXPECT_EQ(camera_port_path("001", "005"), "usb:001,005");
    EXPECT_EQ(camera_port_path("", ""), "usb:,");
    EXPECT_EQ(camera_port_path("1234567", "123"), "usb:1234567,123");
    EXPECT_EQ(camera_port_path("1234567", "1234567"), "usb:1234567,123");
}

bool is_empty(const CameraSet &set) {
    return !set.camera && !set.context && !set.ports && !set.abilities && !set.folder;
}

TEST(CameraSetInit, MissingArgumentsAreRefused) {
    const Diagnostics diagnostics;
    CameraSet set;
    EXPECT_EQ(camset_init(nullptr, "usb:001,005"), -1);
    EXPECT_EQ(camset_init(&set, nullptr), -1);
    EXPECT_TRUE(is_empty(set));
    EXPECT_EQ(diagnostics.without_places(), "(error) camset or port is NULL!\n(error) camset or port is NULL!\n");
}

/// Leaves the library no driver for ports, so that no machine has a camera.
class NoPorts {
  public:
    NoPorts() { setenv("IOLIBS", folder_.path().c_str(), 1); }
    ~NoPorts() { unsetenv("IOLIBS"); }
    NoPorts(const NoPorts &) = delete;
    NoPorts &operator=(const NoPorts &) = delete;

  private:
    TempFolder folder_;
};

TEST(CameraSetInit, AFailureLeavesNothingBehind) {
    const NoPorts none;
    const Diagnostics diagnostics;
    CameraSet set;
    EXPECT_EQ(camset_init(&set, "usb:001,005"), GP_ERROR_LIBRARY);
    EXPECT_TRUE(is_empty(set));
    EXPECT_EQ(diagnostics.without_places(), "(error) Init camera port [usb:001,005] or model failed[ret=-4].\n");
}

TEST(CameraSetInit, TakesTheCharacterTypeAsUtf8AndNothingElse) {
    const NoPorts none;
    setenv("LC_ALL", "de_DE.ISO-8859-1", 1);
    CameraSet set;
    camset_init(&set, "usb:001,005");
    unsetenv("LC_ALL");
    EXPECT_STREQ(nl_langinfo(CODESET), "UTF-8");
    for (const int category : {LC_TIME, LC_NUMERIC, LC_COLLATE, LC_MESSAGES, LC_MONETARY})
        EXPECT_STREQ(setlocale(category, nullptr), "C");
    setlocale(LC_ALL, "C");
}

TEST(CameraSetInit, HidesEveryHomeFromTheLibrary) {
    const NoPorts none;
    const TempFolder home;
    for (const char *value : {home.path().c_str(), static_cast<const char *>(nullptr)}) {
        if (value != nullptr)
            setenv("HOME", value, 1);
        else
            unsetenv("HOME");
        CameraSet set;
        camset_init(&set, "usb:001,005");
        // The library's own settings are read from and written to a folder below it.
        gp_setting_set(const_cast<char *>("tsbackup"), const_cast<char *>("key"), const_cast<char *>("value"));
        EXPECT_TRUE(list_folder(home.path()).empty());
        EXPECT_FALSE(file_exists("(null)"));
        EXPECT_FALSE(file_exists("/nonexistent"));
        EXPECT_STREQ(getenv("HOME"), "/nonexistent");
    }
}

TEST(CameraSetFree, TakesAPartlyBuiltSet) {
    CameraSet set;
    camset_free(set);
    GPPortInfoList *ports = nullptr;
    gp_port_info_list_new(&ports);
    set.ports.reset(ports);
    set.folder.reset(strdup("/"));
    camset_free(set);
    EXPECT_TRUE(is_empty(set));
    camset_free(set);
}

} // namespace
} // namespace tsbackup::test
