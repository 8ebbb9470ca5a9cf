// What the tests of camera import share: the settings, the two roles of the program, what they tell others.

#pragma once

#include "camera.h"
#include "job_runs.h"

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tsbackup::test {

inline constexpr char kCameraQueue[] = "/var/run/zelkovad/mtpbackup-q";

/// Replaces /etc/default/services.
void set_services(const std::vector<std::pair<std::string, std::string>> &services);
/// Import enabled, with this destination; `remove`: files are deleted from the camera afterwards.
void enable_import(const std::string &destination, bool remove = false);

/// Options of a program that finds the simulated cameras and whose long waits are short. The lengths that these would
/// have had are told by `waits`.
ProgramOptions camera_options(const std::vector<std::pair<std::string, std::string>> &environment = {});
/// To be added where a camera cannot be opened: its driver in the library loses memory then, which a sanitizer reports.
inline const std::pair<std::string, std::string> kDriverLosesMemory = {"ASAN_OPTIONS",
                                                                       "detect_leaks=0:verify_asan_link_order=0"};
/// The waits of the programs since the last call of `camera_options`, in seconds.
std::vector<double> waits();

/// Runs the import of a camera, as the camera queue's daemon starts it.
Outcome run_import(const Camera &camera, const std::string &name, const ProgramOptions &options = camera_options());

/// What the device manager says of a camera that was plugged in.
std::vector<std::pair<std::string, std::string>> device_environment(const Camera &camera);
/// Runs the hook that the device manager starts for a camera; with all of its diagnostics.
Outcome run_arrival(const Camera &camera);
Outcome run_arrival(const std::vector<std::pair<std::string, std::string>> &environment);

/// Diagnostics without line numbers.
std::string told(const Outcome &outcome);

// The datagrams of an import's events.
std::string queued_event(const std::string &device);
std::string import_event(const std::string &device, const std::string &destination, int status);
std::string failure_event(const std::string &device, const std::string &destination, int status, int reason);

std::string import_status_path(const std::string &device);
std::string import_log_path(const std::string &device);
/// The log of an import with "TIME" for each time.
std::string import_log(const std::string &device);
/// A line of the status file: "COMPLETED", "OK", the number of the camera's files.
std::string import_status(const std::string &state, const std::string &severity, std::uint64_t files);

/// Paths of the files below a folder, relative to it, sorted; folders that hold nothing end in "/".
std::vector<std::string> files_below(const std::string &folder);
/// Every path of the appliance that an import could have made.
std::set<std::string> every_path();
/// The paths that have come since, apart from logs, status files and what the tests themselves make.
std::vector<std::string> new_paths(const std::set<std::string> &before);

std::time_t utc(int year, int month, int day, int hour = 0, int minute = 0, int second = 0);
std::time_t file_time(const std::string &path);

} // namespace tsbackup::test
