#pragma once

#include "tsbackup/job.h"

#include <optional>
#include <string>

namespace tsbackup {

/// The share that the media server publishes.
struct MediaShare {
    std::string volume;
    std::string share;
};

/// The share name of the SD card in a line of the table of USB storage; nothing when the line is no SD card's or the
/// card is not enabled. A switch that ends the line counts as off while the line's end is still there.
std::optional<std::string> sd_card_in(const std::string &line);

/// The media server's share in a line of its configuration; nothing when the line names no folder with a volume and a
/// share.
std::optional<MediaShare> media_share_in(const std::string &line);

/// The job that copies a card into a folder of its own in the share.
BackupJob sd_card_job(const std::string &card, const MediaShare &target);

} // namespace tsbackup
