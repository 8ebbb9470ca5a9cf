// The camera library's calls on a camera, answered by the test: for what no camera can be brought to do. Everything
// else of the library is real. What real cameras do is tested with the simulated camera.

#pragma once

#include <ctime>
#include <gphoto2/gphoto2.h>
#include <map>
#include <string>
#include <vector>

namespace tsbackup::test {

struct FileOnCamera {
    std::string content;
    std::time_t mtime = 0;
    std::string type = "image/jpeg";
    bool tells_size = true;
};

/// Answers for the camera as long as it exists; one at a time.
class CameraDouble {
  public:
    CameraDouble();
    ~CameraDouble();
    CameraDouble(const CameraDouble &) = delete;
    CameraDouble &operator=(const CameraDouble &) = delete;

    void put(const std::string &folder, const std::string &name, const FileOnCamera &file);
    void put_folder(const std::string &parent, const std::string &name);

    std::map<std::string, std::vector<std::string>> names;   ///< of files, by folder
    std::map<std::string, std::vector<std::string>> folders; ///< names of folders, by parent
    std::map<std::string, FileOnCamera> files;               ///< by "FOLDER/NAME"
    std::map<std::string, int> failing_listings;             ///< of files, by folder
    std::map<std::string, int> failing_folder_listings;      ///< by parent
    int info_result = GP_OK;
    int get_result = GP_OK; ///< after the whole content was written
    int delete_result = GP_OK;
    int name_result = GP_OK; ///< of every name in a list
    bool null_names = false; ///< names in lists are null
    int new_file_result = GP_OK;
    std::vector<std::string> deleted;
    std::vector<std::string> fetched;
};

} // namespace tsbackup::test
