// The connection to one camera.

#pragma once

#include "tsbackup/owners.h"

#include <gphoto2/gphoto2.h>
#include <memory>
#include <string>

namespace tsbackup {

using UniqueCamera = std::unique_ptr<Camera, ReleaseWith<gp_camera_unref>>;
using UniqueCameraContext = std::unique_ptr<GPContext, ReleaseWith<gp_context_unref>>;
using UniquePortList = std::unique_ptr<GPPortInfoList, ReleaseWith<gp_port_info_list_free>>;
using UniqueAbilitiesList = std::unique_ptr<CameraAbilitiesList, ReleaseWith<gp_abilities_list_free>>;
using UniqueCameraList = std::unique_ptr<CameraList, ReleaseWith<gp_list_free>>;
using UniqueCameraFile = std::unique_ptr<CameraFile, ReleaseWith<gp_file_unref>>;
using UniqueWidget = std::unique_ptr<CameraWidget, ReleaseWith<gp_widget_free>>;

/// Everything that one connection holds. What goes first stands last: the camera is released before its context, that
/// before the list of ports, that before the drivers.
struct CameraSet {
    UniqueText folder;             ///< where the walk is, from "/"
    UniqueAbilitiesList abilities; ///< every driver that the library knows
    UniquePortList ports;          ///< every port that it knows
    UniqueCameraContext context;   ///< of every call
    UniqueCamera camera;
};

/// The library's name of a USB port, cut at 15 characters.
std::string camera_port_path(const char *bus, const char *device);

/// Connects to the camera at a port path ("usb:BUS,DEVICE"). 0, a negative result of the library, -1 when there is no
/// camera at all or an argument is missing, -2 when there are only others. After a failure the set is empty. What the
/// set held before is released. The process's HOME and the character type of its locale are set for the library.
int camset_init(CameraSet *set, const char *port_path);

/// Finds the text widget `name` of a configuration tree and gives it in `widget` and its value, which the tree owns, in
/// `value`. A name is looked for as it is, then as a label, then as a path of names separated by "/". 0, a result of
/// the library, -1 for a widget that is no text, -2 for a path that leads nowhere.
int camset_widget_text(CameraWidget *tree, CameraWidget *&widget, const char *name, const char *&value);

/// Releases what the set holds.
void camset_free(CameraSet &set);

} // namespace tsbackup
