// One job of the administration interface's job file.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tsbackup {

/// A setting's text. Three states differ and callers rely on it: no value (the element is absent), an empty
/// text (the element is empty), a text.
using JobText = std::optional<std::string>;

/// A job as the administrator wrote it: nothing is trimmed, checked or converted.
/// Every field but the first carries the name of its XML element.
struct BackupJob {
    std::int32_t job_id = -1; ///< -1: the job has no number and nothing finds it

    JobText name;      ///< display name, for events, the history and e-mails
    JobText enabled;   ///< schedule switch; the scheduler's
    JobText sch_every; ///< schedule; the scheduler's, as are the next three
    JobText sch_start;
    JobText sch_end;
    JobText sch_dow;

    JobText src_type;        ///< "remote" or a local kind: "share", "home", "volume", "usb", "timemachine"
    JobText src_share_proto; ///< remote: the protocol; share: its name; home: the user; usb: "usb_port_" and its number
    JobText src_share_vol;   ///< share: the volume that holds it
    JobText src_path;        ///< remote: host and path; local: the path below the end
    JobText src_login;
    JobText src_password; ///< as typed; never shown, never on a command line
    JobText src_port;     ///< decimal
    JobText src_eject;    ///< decimal; not 0: eject the source's USB disk after the run

    JobText dst_type; ///< the destination's fields, as the source's
    JobText dst_share_proto;
    JobText dst_share_vol;
    JobText dst_path;
    JobText dst_login;
    JobText dst_password;
    JobText dst_port;
    JobText dst_eject;

    JobText opt_full_backup_freq;          ///< keyword of the full-backup policy
    JobText opt_remove_previous_backup;    ///< decimal; not 0: empty the destination before a full run
    JobText opt_chown_to_share_owner;      ///< "1": give the copied tree to the destination's owner after the run
    JobText opt_rsync_options;             ///< decimal bit mask
    JobText opt_email_this_to_alert_email; ///< decimal; carried in the events
    JobText opt_rsync_exclude;             ///< exclusion patterns
    JobText opt_misc_option;
    JobText opt_max_log_lines; ///< decimal line cap of the kept copy log; at least 1 once loaded
    JobText wol_addr;          ///< hardware address of a machine to wake first
    JobText time_to_wait;      ///< decimal minutes to wait after waking it
};

} // namespace tsbackup
