#include "connection.h"

#include "tsbackup/log.h"
#include "tsbackup_utils.h"

#include <array>
#include <clocale>
#include <cstdlib>
#include <cstring>

namespace tsbackup {

namespace {

constexpr std::size_t kPortPathSize = 16;
constexpr char kNoHome[] = "/nonexistent";

/// Takes over what a function of the library made, whatever the function returned.
template <typename Owner, auto make> int make_owned(Owner &owner) {
    typename Owner::pointer made = nullptr;
    const int result = make(&made);
    owner.reset(made);
    return result;
}

/// The library turns letters that the locale's character type lacks into "?", and with that two files into one.
void character_type_set() {
    if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr)
        TSBACKUP_LOG(level::warning, "Names beyond ASCII cannot be told apart.\n");
}

/// The library makes a folder for a person's settings below HOME, or below the working folder when there is none, and
/// obeys what it finds there: on an appliance that may be anybody's share.
void home_hide() { setenv("HOME", kNoHome, 1); }

/// Finds the port and hands it to the camera.
int select_port(CameraSet &set, const char *port_path, GPPortInfo &port) {
    int result = make_owned<UniqueCamera, gp_camera_new>(set.camera);
    if (result < 0) return result;
    result = make_owned<UniquePortList, gp_port_info_list_new>(set.ports);
    if (result < 0) return result;
    result = gp_port_info_list_load(set.ports.get());
    if (result < 0) return result;
    result = gp_port_info_list_count(set.ports.get());
    if (result < 0) return result;
    const int index = gp_port_info_list_lookup_path(set.ports.get(), port_path);
    if (index < 0) return index;
    result = gp_port_info_list_get_info(set.ports.get(), index, &port);
    if (result < 0) return result;
    return gp_camera_set_port_info(set.camera.get(), port);
}

/// Lists the cameras on all ports.
int detect(CameraSet &set, UniqueCameraList &detected) {
    set.context.reset(gp_context_new());
    if (!set.context) return GP_ERROR_NO_MEMORY;
    int result = make_owned<UniqueAbilitiesList, gp_abilities_list_new>(set.abilities);
    if (result < 0) return result;
    result = gp_abilities_list_load(set.abilities.get(), set.context.get());
    if (result < 0) return result;
    result = make_owned<UniqueCameraList, gp_list_new>(detected);
    if (result < 0) return result;
    return gp_abilities_list_detect(set.abilities.get(), set.ports.get(), detected.get(), set.context.get());
}

/// Gives the camera the driver of its model.
int select_model(CameraSet &set, CameraList *detected, int entry) {
    const char *model = nullptr;
    const int result = gp_list_get_name(detected, entry, &model);
    if (result < 0) return result;
    const int index = gp_abilities_list_lookup_model(set.abilities.get(), model);
    if (index < 0) return index;
    CameraAbilities abilities{};
    const int got = gp_abilities_list_get_abilities(set.abilities.get(), index, &abilities);
    return got < 0 ? got : gp_camera_set_abilities(set.camera.get(), abilities);
}

/// Selects the model of the first camera that was detected at the port.
int select_camera_at(CameraSet &set, GPPortInfo port, CameraList *detected) {
    const int cameras = gp_list_count(detected);
    if (cameras <= 0) return GP_ERROR;
    char *path = nullptr;
    const int result = gp_port_info_get_path(port, &path);
    if (result < 0) return result;
    for (int entry = 0; entry < cameras; ++entry) {
        const char *value = nullptr;
        if (gp_list_get_value(detected, entry, &value) < 0 || value == nullptr) continue;
        if (std::strcmp(value, path) == 0) return select_model(set, detected, entry);
    }
    return GP_ERROR_BAD_PARAMETERS;
}

int connect(CameraSet &set, const char *port_path) {
    GPPortInfo port = nullptr;
    int result = select_port(set, port_path, port);
    if (result < 0) return result;
    UniqueCameraList detected;
    result = detect(set, detected);
    return result < 0 ? result : select_camera_at(set, port, detected.get());
}

/// Follows a path of widget names from the root of a tree.
int widget_at_path(CameraWidget *tree, const char *path, CameraWidget *&widget) {
    const UniqueText copy(strdup(path));
    if (!copy) return GP_ERROR;
    widget = tree;
    char *rest = nullptr;
    char *component = strtok_r(copy.get(), "/", &rest);
    while (component != nullptr) {
        char *next = strtok_r(nullptr, "/", &rest);
        CameraWidget *child = nullptr;
        const int result = gp_widget_get_child_by_name(widget, component, &child);
        if (result >= 0) {
            widget = child;
        } else if (next != nullptr) {
            TSBACKUP_LOG(level::warning, "gp_widget_get_child failed[%d].\n", result);
            return GP_ERROR_BAD_PARAMETERS;
        }
        // Kept as it is: a last component that has no such name, or only such a label, ends on its section.
        component = next;
    }
    return GP_OK;
}

int find_widget(CameraWidget *tree, const char *name, CameraWidget *&widget) {
    if (gp_widget_get_child_by_name(tree, name, &widget) >= 0) return GP_OK;
    if (gp_widget_get_child_by_label(tree, name, &widget) >= 0) return GP_OK;
    return widget_at_path(tree, name, widget);
}

} // namespace

std::string camera_port_path(const char *bus, const char *device) {
    std::array<char, kPortPathSize> path{};
    return str_snprintf(path.data(), path.size(), "usb:%s,%s", bus, device);
}

int camset_init(CameraSet *set, const char *port_path) {
    if (set == nullptr || port_path == nullptr) {
        TSBACKUP_LOG(level::error, "camset or port is NULL!\n");
        return GP_ERROR;
    }
    character_type_set();
    home_hide();
    camset_free(*set);
    set->folder.reset(strdup("/"));
    if (!set->folder) {
        TSBACKUP_LOG(level::error, "folder is NULL!\n");
        return GP_ERROR;
    }
    const int result = connect(*set, port_path);
    if (result >= 0) return GP_OK;
    TSBACKUP_LOG(level::error, "Init camera port [%s] or model failed[ret=%d].\n", port_path, result);
    camset_free(*set);
    return result;
}

int camset_widget_text(CameraWidget *tree, CameraWidget *&widget, const char *name, const char *&value) {
    int result = find_widget(tree, name, widget);
    if (result < 0) return result;
    CameraWidgetType type = GP_WIDGET_WINDOW;
    result = gp_widget_get_type(widget, &type);
    if (result < 0) {
        TSBACKUP_LOG(level::warning, "gp_widget_get_type failed[%d].\n", result);
        return result;
    }
    if (type != GP_WIDGET_TEXT) {
        TSBACKUP_LOG(level::warning, "Not a TEXT type?[%d]\n", static_cast<int>(type));
        return GP_ERROR;
    }
    result = gp_widget_get_value(widget, static_cast<void *>(&value));
    if (result != GP_OK) TSBACKUP_LOG(level::warning, "gp_widget_get_value failed.\n");
    return result;
}

void camset_free(CameraSet &set) {
    set.camera.reset();
    set.context.reset();
    set.ports.reset();
    set.abilities.reset();
    set.folder.reset();
}

} // namespace tsbackup
