#include "result.h"

#include "tsbackup/codes.h"

namespace tsbackup {

std::string result_in_words(std::int32_t code) {
    switch (code) {
    case error_code::success:
        return "completed";
    case error_code::source_setup:
        return "source could not be set up";
    case error_code::not_available:
        return "disk or mount not available";
    case error_code::invalid_source:
        return "invalid source";
    case error_code::invalid_destination:
        return "invalid destination";
    case error_code::path_missing:
        return "path does not exist";
    case error_code::copy_failed:
        return "not everything was copied";
    case error_code::login_refused:
        return "log-in refused";
    case error_code::destination_full:
        return "destination full or read-only";
    case error_code::rsync_error_line:
        return "rsync reported an error";
    case error_code::tool_failed:
        return "transfer tool failed";
    case error_code::cancelled:
        return "cancelled";
    case error_code::rsync_protocol:
        return "rsync connection broken";
    case error_code::destination_read_only:
        return "destination read-only";
    case error_code::cifs_other:
        return "SMB failure";
    default:
        return "unknown result " + std::to_string(code);
    }
}

} // namespace tsbackup
