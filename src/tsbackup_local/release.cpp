#include "snapshot.h"
#include "tsbackup_local.h"
#include "tsbackup_utils.h"
#include "usb_storage.h"

#include <string_view>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr std::string_view kMedia = "/media/";

/// Whether a path below "/media/" lies on the disk with that mount name.
bool lies_on(std::string_view below_media, const std::string &mount_name) {
    if (below_media.substr(0, mount_name.size()) != mount_name) return false;
    return below_media.size() == mount_name.size() || below_media[mount_name.size()] == '/';
}

} // namespace

void local_endpoint_release(const BackupJob &job, BackupRun &run, const std::string &local_path, Side side) {
    if (side == Side::source) snapshot_delete(run);

    const JobText &eject = side == Side::source ? job.src_eject : job.dst_eject;
    if (decimal_value(eject) == 0) return;
    if (local_path.compare(0, kMedia.size(), kMedia) != 0) return;

    const std::string_view below_media = std::string_view(local_path).substr(kMedia.size());
    const auto disk =
        usb_storage_find([below_media](const UsbStorage &storage) { return lies_on(below_media, storage.mount_name); });
    if (!disk) return;

    sync();
    event_usb_eject(disk->device.c_str());
    event_usb_eject_notice(disk->mount_name.c_str(), text_or_empty(job.name));
}

} // namespace tsbackup
