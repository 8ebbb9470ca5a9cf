#include "camera_double.h"

#include <cstdio>
#include <dlfcn.h>

namespace tsbackup::test {

namespace {

CameraDouble *answering = nullptr;

template <typename Function> Function *real(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

int list(CameraList *list, const std::vector<std::string> &names) {
    for (const std::string &name : names)
        gp_list_append(list, name.c_str(), nullptr);
    return GP_OK;
}

const FileOnCamera *find(const char *folder, const char *file) {
    const auto found = answering->files.find(std::string(folder) + "/" + file);
    return found != answering->files.end() ? &found->second : nullptr;
}

} // namespace

CameraDouble::CameraDouble() { answering = this; }
CameraDouble::~CameraDouble() { answering = nullptr; }

void CameraDouble::put(const std::string &folder, const std::string &name, const FileOnCamera &file) {
    names[folder].push_back(name);
    files[folder + "/" + name] = file;
}

void CameraDouble::put_folder(const std::string &parent, const std::string &name) { folders[parent].push_back(name); }

} // namespace tsbackup::test

using tsbackup::test::answering;

// These stand before the library's own in the order of symbols.
extern "C" {

int gp_camera_folder_list_files(Camera *, const char *folder, CameraList *list, GPContext *) {
    if (answering->failing_listings.contains(folder)) return answering->failing_listings[folder];
    return tsbackup::test::list(list, answering->names[folder]);
}

int gp_camera_folder_list_folders(Camera *, const char *folder, CameraList *list, GPContext *) {
    if (answering->failing_folder_listings.contains(folder)) return answering->failing_folder_listings[folder];
    return tsbackup::test::list(list, answering->folders[folder]);
}

int gp_camera_file_get_info(Camera *, const char *folder, const char *file, CameraFileInfo *info, GPContext *) {
    if (answering->info_result != GP_OK) return answering->info_result;
    const auto *found = tsbackup::test::find(folder, file);
    if (found == nullptr) return GP_ERROR_FILE_NOT_FOUND;
    std::snprintf(info->file.type, sizeof info->file.type, "%s", found->type.c_str());
    info->file.mtime = found->mtime;
    info->file.size = found->content.size();
    info->file.fields = static_cast<CameraFileInfoFields>(GP_FILE_INFO_MTIME | GP_FILE_INFO_TYPE);
    if (found->tells_size) info->file.fields = static_cast<CameraFileInfoFields>(info->file.fields | GP_FILE_INFO_SIZE);
    return GP_OK;
}

int gp_camera_file_get(Camera *, const char *folder, const char *file, CameraFileType, CameraFile *data, GPContext *) {
    answering->fetched.push_back(std::string(folder) + "/" + file);
    const auto *found = tsbackup::test::find(folder, file);
    if (found == nullptr) return GP_ERROR_FILE_NOT_FOUND;
    gp_file_append(data, found->content.data(), found->content.size());
    return answering->get_result;
}

int gp_camera_file_delete(Camera *, const char *folder, const char *file, GPContext *) {
    if (answering->delete_result == GP_OK) answering->deleted.push_back(std::string(folder) + "/" + file);
    return answering->delete_result;
}

int gp_list_get_name(CameraList *list, int index, const char **name) {
    static const auto library = tsbackup::test::real<int(CameraList *, int, const char **)>("gp_list_get_name");
    if (answering != nullptr && answering->name_result != GP_OK) return answering->name_result;
    const int result = library(list, index, name);
    if (answering != nullptr && answering->null_names) *name = nullptr;
    return result;
}

int gp_file_new_from_fd(CameraFile **file, int fd) {
    static const auto library = tsbackup::test::real<int(CameraFile **, int)>("gp_file_new_from_fd");
    if (answering != nullptr && answering->new_file_result != GP_OK) return answering->new_file_result;
    return library(file, fd);
}
}
