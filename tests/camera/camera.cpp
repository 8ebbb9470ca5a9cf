#include "camera.h"

#include <fcntl.h>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

namespace tsbackup::test {

namespace {
constexpr char kBus[] = "/srv/cameras";
}

std::vector<std::pair<std::string, std::string>> simulated_usb() {
    return {{"IOLIBS", CAMERA_PORTS}, {"SIMULATED_CAMERAS", kBus}};
}

Camera::Camera(const CameraDescription &description, std::string bus, std::string number)
    : bus_(std::move(bus)), number_(std::move(number)), folder_(std::string(kBus) + "/usb:" + bus_ + "," + number_) {
    remove_tree(folder_);
    put_folder("");
    description_write(folder_, description);
}

Camera::~Camera() { remove_tree(folder_); }

std::string Camera::path_of(const std::string &path, const std::string &storage) const {
    return storages_folder(folder_) + "/" + storage + (path.empty() ? "" : "/") + path;
}

void Camera::put(const std::string &path, const std::string &content, std::time_t time, const std::string &storage) {
    const std::string file = path_of(path, storage);
    write_file(file, content);
    const timespec times[] = {{time, 0}, {time, 0}};
    if (utimensat(AT_FDCWD, file.c_str(), times, 0) != 0) throw std::runtime_error("cannot set the time of " + file);
}

void Camera::put_folder(const std::string &path, const std::string &storage) { make_folder(path_of(path, storage)); }

void Camera::remove(const std::string &path, const std::string &storage) { remove_tree(path_of(path, storage)); }

void Camera::remove_storage(const std::string &storage) { remove_tree(path_of("", storage)); }

bool Camera::holds(const std::string &path, const std::string &storage) const {
    return file_exists(path_of(path, storage));
}

void Camera::report_as(const std::string &path, const std::string &name, const std::string &storage) {
    name_append(folder_, storage + "/" + path, name);
}

void Camera::fail(const CameraFault &fault) { fault_append(folder_, fault); }

void Camera::mend() {
    remove_tree(folder_ + "/faults");
    remove_tree(folder_ + "/unplugged");
}

std::vector<std::string> Camera::log() const {
    std::vector<std::string> lines;
    std::istringstream text(read_file(folder_ + "/log"));
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    return lines;
}

int Camera::asked(const std::string &text) const {
    int count = 0;
    for (const std::string &line : log())
        if (line.find(text) != std::string::npos) ++count;
    return count;
}

void Camera::forget_log() { remove_tree(folder_ + "/log"); }

int Camera::openings() const { return static_cast<int>(read_file(folder_ + "/openings").size()); }

} // namespace tsbackup::test
