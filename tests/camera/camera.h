// Simulated cameras for tests: plugged in when the object exists, gone with everything on it when it does not. The
// camera library finds them instead of the machine's USB devices, in programs that run with `simulated_usb`.

#pragma once

#include "appliance_support.h"
#include "device.h"

#include <ctime>
#include <string>
#include <utility>
#include <vector>

namespace tsbackup::test {

/// The environment in which a program finds the simulated cameras; to be added to its own.
std::vector<std::pair<std::string, std::string>> simulated_usb();

class Camera {
  public:
    /// Where the first storage of a camera is.
    static constexpr char kCard[] = "00010001";
    static constexpr char kSecondCard[] = "00020001";

    /// A camera with one empty storage, at a place on the bus.
    explicit Camera(const CameraDescription &description = {}, std::string bus = "001", std::string number = "005");
    ~Camera();
    Camera(const Camera &) = delete;
    Camera &operator=(const Camera &) = delete;

    const std::string &bus() const { return bus_; }
    const std::string &number() const { return number_; }

    /// Puts a file on a storage, its folders included. `time`: seconds since the epoch; 0: the camera tells none.
    void put(const std::string &path, const std::string &content, std::time_t time, const std::string &storage = kCard);
    /// Makes an empty folder on a storage; the storage too, when it is new. An empty path makes the storage alone.
    void put_folder(const std::string &path, const std::string &storage = kCard);
    void remove(const std::string &path, const std::string &storage = kCard);
    void remove_storage(const std::string &storage);
    bool holds(const std::string &path, const std::string &storage = kCard) const;
    /// Lets the camera report a file or folder under another name, whatever it is.
    void report_as(const std::string &path, const std::string &name, const std::string &storage = kCard);

    /// Adds something that goes wrong; of several that fit, the first one happens.
    void fail(const CameraFault &fault);
    void mend();

    /// What was asked of the camera: "OPENING: OPERATION SUBJECT -> OUTCOME".
    std::vector<std::string> log() const;
    /// How many lines of the log hold the text.
    int asked(const std::string &text) const;
    void forget_log();
    /// How often it was opened.
    int openings() const;

    const std::string &folder() const { return folder_; }

  private:
    std::string path_of(const std::string &path, const std::string &storage) const;

    std::string bus_;
    std::string number_;
    std::string folder_;
};

} // namespace tsbackup::test
