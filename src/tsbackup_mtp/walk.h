// The walk over a camera's folders, and what it does with each file.

#pragma once

#include "connection.h"
#include "tsbackup_utils.h"

#include <cstdio>
#include <ctime>
#include <optional>
#include <set>
#include <string>
#include <sys/time.h>

namespace tsbackup {

/// What an import counts and remembers.
struct ImportCounters {
    int accounting = 0;             ///< not 0: count bytes and copied files, and publish them after each file
    std::string device;             ///< name of the camera in its status file
    timeval last_time{};            ///< when the previous file was complete, or the import began
    int counting_pass = 0;          ///< 1: nothing is copied or deleted, only counted
    MtpBackupStatistics statistics; ///< with accounting off only the number of files is ever more than 0
    std::set<std::string> kept;     ///< files (FOLDER/NAME) that did not arrive and must stay on the camera
};

/// Deals with one file. 0: the walk goes on; anything else ends it.
using FileAction = int (*)(CameraSet *set, const char *folder, const char *file, ImportCounters *counters,
                           std::FILE *log);

/// Walks from the set's folder through every folder that is not hidden: first a folder's files, in the camera's order,
/// then its folders. Every media file is given to `action`; without one (null) all files are counted. Names that could
/// lead out of a folder are left out. 0, the action's result, or that of a listing that failed; the set's folder is
/// restored after a walk that succeeded. `log` may be null.
int iterate_get_files(CameraSet *set, FileAction action, ImportCounters *counters, std::FILE *log);

/// 0 when the file is a picture, a film or a sound by its MIME type, -1 when an argument is missing or the camera does
/// not tell, 1 for every other file.
int is_media_file(CameraSet *set, const char *folder, const char *file);

/// Copies a file into the folder of its month below the working folder, unless it is there with the camera's time.
/// Another file of its name is moved aside first. The file has its name only once it is complete; a download that fails
/// leaves nothing. A file that no temporary file can be made for is skipped and kept on the camera.
/// 0, -1 (the destination), -2 (the camera does not know the file), or the library's failure of the download.
int download_file(CameraSet *set, const char *folder, const char *file, ImportCounters *counters, std::FILE *log);

/// Deletes a file from the camera, unless it is to be kept there. The library's result.
int delete_file(CameraSet *set, const char *folder, const char *file, ImportCounters *counters, std::FILE *log);

/// Whether the name is one of an entry of a folder, and of no other place.
bool is_plain_name(const char *name);

/// Path of an entry of a folder of the camera; null without memory.
UniqueText camera_path(const char *folder, const char *name);

/// FOLDER/NAME, as logs and `ImportCounters::kept` name a file.
std::string file_on_camera(const char *folder, const char *file);

/// The folder of a time's month, in local time: "2024/03-Mar". Nothing, with a diagnostic, for a time without one.
std::optional<std::string> month_folder(std::time_t time);

/// The name that an older file gets when one with this time takes its place. It fits into a folder: a name that is too
/// long is cut.
std::string name_aside(const std::string &name, std::time_t time);

} // namespace tsbackup
