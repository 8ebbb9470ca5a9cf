#include "import.h"

#include "connection.h"
#include "services.h"
#include "tsbackup/log.h"
#include "tsbackup/paths.h"
#include "tsbackup_mtp.h"
#include "tsbackup_utils.h"
#include "walk.h"
#include "zelkova.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

namespace tsbackup {

namespace {

/// Why an import failed, as its last event tells.
enum Reason : int {
    none = 0,
    camera_failed = 100,
    destination_failed = 101,
    removing_failed = 102,
    bad_input = 104,
};

constexpr int kPtpCamera = 1;
constexpr int kMtpDevice = 2;
constexpr int kAnyType = 100;
constexpr mode_t kFolderMode = 0777;
constexpr std::size_t kDeleteSize = 8;
constexpr int kSetupRetries = 5;
constexpr unsigned kSetupWait = 5;
constexpr int kListingRetries = 20;
constexpr unsigned kListingWait = 2;
constexpr std::int32_t kMostLogLines = 10000;
constexpr char kSeparator[] = "----------------------------------------------------\n";
constexpr char kUnknown[] = "unknown";

struct Import {
    std::int32_t kind = 0;
    std::string port;
    std::string name = kUnknown;
    std::string folder = kUnknown; ///< "unknown" until it was made
    bool remove = false;           ///< delete from the camera what was imported
    std::int32_t start_time = 0;
    CameraSet set;
    ImportCounters counters;
    std::string log_path;
    UniqueFile log; ///< may be none
};

std::int32_t now() { return static_cast<std::int32_t>(std::time(nullptr)); }

void status_write(const Import &import, MtpBackupStatusCode code, std::int32_t timestamp) {
    mtpbackup_status_write(import.name.c_str(), code, timestamp, import.counters.statistics);
}

/// Tells a state by status file and event.
void state_tell(const Import &import, MtpBackupStatusCode code, std::int32_t timestamp) {
    status_write(import, code, timestamp);
    event_camera_import(import.name.c_str(), import.folder.c_str(), static_cast<std::int32_t>(code));
}

void failure_tell(const Import &import, MtpBackupStatusCode code, std::int32_t timestamp, Reason reason) {
    status_write(import, code, timestamp);
    event_camera_import_failed(import.name.c_str(), import.folder.c_str(), static_cast<std::int32_t>(code), reason);
}

Reason reason_of_walk(int result) { return result == GP_ERROR_BAD_PARAMETERS ? camera_failed : destination_failed; }

Reason take_arguments(Import &import, const char *kind, const char *bus, const char *device, const char *name) {
    // A name with a folder in it is no device's: it would lead out of the destination.
    const bool named = name != nullptr && (*name == '\0' || is_plain_name(name));
    if (named) import.name = name;
    if (kind == nullptr || bus == nullptr || device == nullptr || !named) {
        TSBACKUP_LOG(level::error, "Invaild input for perform_mtpbackup\n");
        return bad_input;
    }
    TSBACKUP_LOG(level::debug, "perform_mtpbackup: %s %s %s %s\n", kind, bus, device, name);
    import.kind = decimal_value(kind);
    import.port = camera_port_path(bus, device);
    return none;
}

Reason read_settings(Import &import, std::string &destination) {
    std::array<char, paths::buffer_size> folder{};
    std::array<char, kDeleteSize + 1> remove{};
    if (services_get("MTPBACKUP_DIR", folder.data(), folder.size()) != 0 ||
        services_get("MTPBACKUP_DELETE", remove.data(), kDeleteSize) != 0) {
        TSBACKUP_LOG(level::error, "Can't get MTPBACKUP_DIR or MTPBACKUP_DELETE.\n");
        return bad_input;
    }
    destination = folder.data();
    const std::int32_t setting = decimal_value(remove.data());
    TSBACKUP_LOG(level::debug, "MTP backup delete: %d\n", setting);
    import.remove = setting == 1;
    return none;
}

Reason make_folder(Import &import, const std::string &destination) {
    if (destination_ensure(destination) != 0) return destination_failed;
    std::array<char, paths::buffer_size> folder{};
    str_snprintf(folder.data(), folder.size(), "%s/%s", destination.c_str(), import.name.c_str());
    if (mkdir_p(folder.data(), kFolderMode) != 0) {
        TSBACKUP_LOG(level::error, "Can't mkdir %s for mtpbackup.\n", folder.data());
        return destination_failed;
    }
    import.folder = folder.data();
    return none;
}

Reason check_kind(const Import &import) {
    if (import.kind == kPtpCamera) return none;
    if (import.kind == kMtpDevice)
        TSBACKUP_LOG(level::error, "MTP is not supported yet!\n");
    else
        TSBACKUP_LOG(level::error, "Invalid proto [%d] for perform_mtpbackup.\n", import.kind);
    return bad_input;
}

/// Makes the device's folder the working folder, unless somebody who may write to the share put a link in its place.
int enter_folder(const std::string &path) {
    const UniqueFd folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return folder ? fchdir(folder.get()) : -1;
}

/// Opens the camera and counts its files. 0, or a reason; `result` is that of the count.
Reason open_and_count(Import &import, int &result) {
    if (camset_init(&import.set, import.port.c_str()) != 0) {
        TSBACKUP_LOG(level::error, "init_cam_set failed.\n");
        return camera_failed;
    }
    if (enter_folder(import.folder) != 0) {
        TSBACKUP_LOG(level::error, "chdir to %s failed.\n", import.folder.c_str());
        return destination_failed;
    }
    import.counters.statistics.total_files = 0;
    result = iterate_get_files(&import.set, nullptr, &import.counters, nullptr);
    return none;
}

/// Opens the camera until it shows its files: many take a while after they were plugged in.
Reason set_up_camera(Import &import) {
    int setups = 0;
    int listings = 0;
    while (true) {
        int result = 0;
        if (const Reason reason = open_and_count(import, result); reason != none) return reason;
        const bool empty = result == 0 && import.counters.statistics.total_files == 0;
        if (empty && setups < kSetupRetries) {
            ++setups;
            camset_free(import.set);
            TSBACKUP_LOG(level::warning, "Retrying setup camera[%d].\n", setups);
            sleep(kSetupWait);
        } else if (result == 0) {
            return none;
        } else if (result == GP_ERROR_BAD_PARAMETERS && listings < kListingRetries) {
            ++listings;
            camset_free(import.set);
            TSBACKUP_LOG(level::warning, "Retrying list files[%d].\n", listings);
            sleep(kListingWait);
        } else {
            TSBACKUP_LOG(level::error, "download file dry run failed[%d].\n", result);
            return reason_of_walk(result);
        }
    }
}

/// Sums up what there is to copy; only when bytes are accounted for.
Reason count_bytes(Import &import) {
    if (import.counters.accounting == 0) return none;
    import.counters.statistics = {};
    import.counters.counting_pass = 1;
    const int result = iterate_get_files(&import.set, download_file, &import.counters, nullptr);
    if (result == 0) return none;
    TSBACKUP_LOG(level::error, "download file dry run failed[%d].\n", result);
    return reason_of_walk(result);
}

void open_log(Import &import) {
    import.start_time = now();
    import.log_path = paths::camera_log(import.name.c_str());
    import.log.reset(std::fopen(import.log_path.c_str(), "w+e"));
    if (!import.log) {
        TSBACKUP_LOG(level::error, "Can't open %s.\n", import.log_path.c_str());
        state_tell(import, MtpBackupStatusCode::active_copying, import.start_time);
        return;
    }
    // A line at a time: people follow the import in its log.
    setvbuf(import.log.get(), nullptr, _IOLBF, BUFSIZ);
    std::fprintf(import.log.get(), "Source: %s\n", import.name.c_str());
    std::fprintf(import.log.get(), "Destination: %s\n", import.folder.c_str());
    state_tell(import, MtpBackupStatusCode::active_copying, import.start_time);
    std::fprintf(import.log.get(), "Start Time: %ld\n", static_cast<long>(import.start_time));
    std::fputs(kSeparator, import.log.get());
}

void close_log(Import &import, bool success) {
    if (!import.log) return;
    import_log_finish(import.log.get(), success);
    import.log.reset();
    log_cap(import.log_path);
}

/// Deletes from the camera what was imported. What is deleted there has to be on the disk here, not only on its way.
int remove_from_camera(Import &import) {
    if (sync_fs(import.folder.c_str()) != 0) {
        TSBACKUP_LOG(level::error, "Can't write %s to its disk.\n", import.folder.c_str());
        return -1;
    }
    return iterate_get_files(&import.set, delete_file, &import.counters, import.log.get());
}

/// The end of an import whose files have all arrived.
void finish(Import &import) {
    int removed = 0;
    if (import.remove) {
        status_write(import, MtpBackupStatusCode::active_removing, now());
        removed = remove_from_camera(import);
    }
    camset_free(import.set);
    if (removed == 0)
        state_tell(import, MtpBackupStatusCode::completed, now());
    else
        failure_tell(import, MtpBackupStatusCode::partly_completed, now(), removing_failed);
    // Kept as it is: the files have arrived, so the log tells of a success also when their deletion failed.
    close_log(import, true);
}

Reason copy_files(Import &import) {
    import.counters.counting_pass = 0;
    import.counters.device = import.name;
    gettimeofday(&import.counters.last_time, nullptr);
    const int result = iterate_get_files(&import.set, download_file, &import.counters, import.log.get());
    if (result == 0) {
        finish(import);
        return none;
    }
    TSBACKUP_LOG(level::error, "download file failed[%d].\n", result);
    camset_free(import.set);
    close_log(import, false);
    return reason_of_walk(result);
}

Reason run(Import &import, const char *kind, const char *bus, const char *device, const char *name) {
    std::string destination;
    Reason reason = take_arguments(import, kind, bus, device, name);
    if (reason == none) reason = read_settings(import, destination);
    if (reason == none) reason = make_folder(import, destination);
    if (reason == none) reason = check_kind(import);
    if (reason == none) reason = set_up_camera(import);
    if (reason == none) reason = count_bytes(import);
    if (reason != none) return reason;
    open_log(import);
    return copy_files(import);
}

/// Recreates a share through the tool that the platform has for its kind.
int recreate_share(const char *volume, const char *share, const char *path) {
    static constexpr char home_tool[] = "/sbin/mkhomedir_helper";
    static constexpr char share_tool[] = "zk_nml";
    TSBACKUP_LOG(level::info, "Auto media backup share %s doesn't exist, create it.\n", path);
    int result = 0;
    if (std::string_view(volume) == "home") {
        const char *const arguments[] = {home_tool, share, nullptr};
        result = exec_cmd(home_tool, arguments);
    } else {
        const std::string resource = std::string("share:") + path;
        const char *const arguments[] = {share_tool, "-a", resource.c_str(), nullptr};
        result = exec_cmd(share_tool, arguments);
    }
    if (result == 0) return 0;
    TSBACKUP_LOG(level::error, "Recreate Auto media backup share failed.\n");
    return -1;
}

} // namespace

int destination_ensure(const std::string &destination) {
    if (exists(destination.c_str(), kAnyType) != 0) return 0;
    if (destination.starts_with("/media/")) {
        TSBACKUP_LOG(level::error, "Don't recreate media share[%s].\n", destination.c_str());
        return -1;
    }
    std::array<char, 32> volume{};
    std::array<char, 32> share{};
    std::array<char, paths::buffer_size> rest{};
    const int fields =
        std::sscanf(destination.c_str(), "/%31[^/]/%31[^/]/%4095s", volume.data(), share.data(), rest.data());
    if (fields < 2) {
        if (fields == 1)
            TSBACKUP_LOG(level::error, "Only match volume?[%s].\n", destination.c_str());
        else
            TSBACKUP_LOG(level::error, "Nothing matched?[%s].\n", destination.c_str());
        return -1;
    }
    const std::string path = std::string("/") + volume.data() + "/" + share.data();
    return exists(path.c_str(), kAnyType) != 0 ? 0 : recreate_share(volume.data(), share.data(), path.c_str());
}

void import_log_finish(std::FILE *log, bool success) {
    std::fputs(kSeparator, log);
    std::fprintf(log, "Finish Time: %ld\n", static_cast<long>(now()));
    std::fprintf(log, "Backup Status: %s\n", success ? "Success" : "Fail");
    std::fputs("\n", log);
}

void log_cap(const std::string &path) {
    const std::string capped = path + ".1";
    if (ts_copy_file_truncate(path.c_str(), capped.c_str(), kMostLogLines) >= 0)
        std::rename(capped.c_str(), path.c_str());
}

int perform_mtpbackup(const char *kind, const char *bus, const char *device, const char *name) {
    if (mtpbackup_enabled() != 1) return 0;
    Import import;
    import.start_time = now();
    const Reason reason = run(import, kind, bus, device, name);
    if (reason == none) return 0;
    camset_free(import.set);
    failure_tell(import, MtpBackupStatusCode::failed, import.start_time, reason);
    return reason;
}

} // namespace tsbackup
