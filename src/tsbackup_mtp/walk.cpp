#include "walk.h"

#include "tsbackup/log.h"
#include "tsbackup/paths.h"
#include "zelkova.h"

#include <cstring>

namespace tsbackup {

namespace {

/// What a file's MIME type begins with.
constexpr const char *kMediaTypes[] = {"image", "video", "audio"};
constexpr std::size_t kMediaTypeLength = 5;

bool has_place(const char *name) {
    if (is_plain_name(name)) return true;
    TSBACKUP_LOG(level::warning, "Skip strange name: %s\n", name != nullptr ? name : "");
    return false;
}

int visit_file(CameraSet &set, const char *name, FileAction action, ImportCounters *counters, std::FILE *log) {
    const char *folder = set.folder.get();
    if (!has_place(name) || is_media_file(&set, folder, name) != 0) return 0;
    const int result = action(&set, folder, name, counters, log);
    if (result != 0) TSBACKUP_LOG(level::error, "download_file!\n");
    return result;
}

int walk_files(CameraSet &set, FileAction action, ImportCounters *counters, std::FILE *log) {
    CameraList *made = nullptr;
    int result = gp_list_new(&made);
    if (result < 0) return result;
    const UniqueCameraList files(made);
    result = gp_camera_folder_list_files(set.camera.get(), set.folder.get(), files.get(), set.context.get());
    if (result < 0) return result;

    const int count = gp_list_count(files.get());
    if (count < 0) return count;
    if (count == 0) TSBACKUP_LOG(level::warning, "No files under %s\n", set.folder.get());
    if (action == nullptr) {
        if (counters != nullptr) counters->statistics.total_files += static_cast<std::uint64_t>(count);
        return 0;
    }
    for (int index = 0; index < count; ++index) {
        const char *name = nullptr;
        if (gp_list_get_name(files.get(), index, &name) < 0) {
            TSBACKUP_LOG(level::error, "gp_list_count!\n");
            return GP_ERROR_BAD_PARAMETERS;
        }
        result = visit_file(set, name, action, counters, log);
        if (result != 0) return result;
    }
    return 0;
}

int walk_into(CameraSet &set, const char *name, FileAction action, ImportCounters *counters, std::FILE *log) {
    UniqueText folder = camera_path(set.folder.get(), name);
    if (!folder) {
        TSBACKUP_LOG(level::error, "calloc failed!\n");
        return GP_ERROR;
    }
    // A camera that invents folders without end must not exhaust this process.
    if (std::strlen(folder.get()) >= paths::buffer_size) {
        TSBACKUP_LOG(level::warning, "Skip folder that is too deep: %s\n", folder.get());
        return 0;
    }
    set.folder.swap(folder);
    const int result = iterate_get_files(&set, action, counters, log);
    set.folder.swap(folder);
    if (result != 0) TSBACKUP_LOG(level::error, "iterate_get_files!\n");
    return result;
}

int visit_folder(CameraSet &set, const char *name, FileAction action, ImportCounters *counters, std::FILE *log) {
    if (name == nullptr) {
        TSBACKUP_LOG(level::error, "folder name is null!\n");
        return 0;
    }
    if (name[0] == '.') {
        TSBACKUP_LOG(level::info, "Skip hidden folder: %s\n", name);
        return 0;
    }
    return has_place(name) ? walk_into(set, name, action, counters, log) : 0;
}

int walk_folders(CameraSet &set, FileAction action, ImportCounters *counters, std::FILE *log) {
    CameraList *made = nullptr;
    int result = gp_list_new(&made);
    if (result < 0) return result;
    const UniqueCameraList folders(made);
    result = gp_camera_folder_list_folders(set.camera.get(), set.folder.get(), folders.get(), set.context.get());
    if (result < 0) return result;

    const int count = gp_list_count(folders.get());
    if (count < 0) {
        TSBACKUP_LOG(level::error, "gp_list_count!\n");
        return count;
    }
    for (int index = 0; index < count; ++index) {
        const char *name = nullptr;
        result = gp_list_get_name(folders.get(), index, &name);
        if (result < 0) {
            TSBACKUP_LOG(level::error, "gp_list_get_name!\n");
            return result;
        }
        result = visit_folder(set, name, action, counters, log);
        if (result != 0) return result;
    }
    return 0;
}

} // namespace

bool is_plain_name(const char *name) {
    return name != nullptr && *name != '\0' && std::strchr(name, '/') == nullptr && std::strcmp(name, ".") != 0 &&
           std::strcmp(name, "..") != 0;
}

UniqueText camera_path(const char *folder, const char *name) {
    const std::size_t length = std::strlen(folder);
    const char *separator = length > 0 && folder[length - 1] == '/' ? "" : "/";
    char *path = nullptr;
    safe_asprintf(&path, "%s%s%s", folder, separator, name);
    return UniqueText(path);
}

std::string file_on_camera(const char *folder, const char *file) { return str_concat(folder, {"/", file}); }

int iterate_get_files(CameraSet *set, FileAction action, ImportCounters *counters, std::FILE *log) {
    if (set == nullptr) {
        TSBACKUP_LOG(level::error, "camset is NULL!\n");
        return GP_ERROR;
    }
    const int result = walk_files(*set, action, counters, log);
    return result != 0 ? result : walk_folders(*set, action, counters, log);
}

int is_media_file(CameraSet *set, const char *folder, const char *file) {
    if (set == nullptr || folder == nullptr || file == nullptr) return -1;
    CameraFileInfo info{};
    if (gp_camera_file_get_info(set->camera.get(), folder, file, &info, set->context.get()) < 0) return -1;
    for (const char *type : kMediaTypes)
        if (std::strncmp(info.file.type, type, kMediaTypeLength) == 0) return 0;
    return 1;
}

int delete_file(CameraSet *set, const char *folder, const char *file, ImportCounters *counters, std::FILE *log) {
    if (set == nullptr || folder == nullptr || file == nullptr || counters == nullptr) {
        TSBACKUP_LOG(level::error, "param is NULL!");
        return GP_ERROR;
    }
    if (counters->counting_pass == 1) return 0;
    if (counters->kept.contains(file_on_camera(folder, file))) {
        TSBACKUP_LOG(level::warning, "Keep %s/%s on the camera.\n", folder, file);
        return 0;
    }
    const int result = gp_camera_file_delete(set->camera.get(), folder, file, set->context.get());
    if (result == GP_OK && log != nullptr) std::fprintf(log, "Remove file %s/%s\n", folder, file);
    return result;
}

} // namespace tsbackup
