#include "job_file.h"

#include "tsbackup.h"
#include "tsbackup/log.h"
#include "tsbackup/paths.h"
#include "tsbackup_utils.h"

#include <array>
#include <cstring>
#include <fcntl.h>
#include <libxml/parser.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr char kJobNumber[] = "job_id";
constexpr char kDefaultLogLines[] = "1000";

struct Setting {
    const char *element;
    JobText BackupJob::*text;
};

/// Every setting but the job's number.
constexpr Setting kSettings[] = {
    {"name", &BackupJob::name},
    {"enabled", &BackupJob::enabled},
    {"sch_every", &BackupJob::sch_every},
    {"sch_start", &BackupJob::sch_start},
    {"sch_end", &BackupJob::sch_end},
    {"sch_dow", &BackupJob::sch_dow},
    {"src_type", &BackupJob::src_type},
    {"src_share_proto", &BackupJob::src_share_proto},
    {"src_share_vol", &BackupJob::src_share_vol},
    {"src_path", &BackupJob::src_path},
    {"src_login", &BackupJob::src_login},
    {"src_password", &BackupJob::src_password},
    {"src_port", &BackupJob::src_port},
    {"src_eject", &BackupJob::src_eject},
    {"dst_type", &BackupJob::dst_type},
    {"dst_share_proto", &BackupJob::dst_share_proto},
    {"dst_share_vol", &BackupJob::dst_share_vol},
    {"dst_path", &BackupJob::dst_path},
    {"dst_login", &BackupJob::dst_login},
    {"dst_password", &BackupJob::dst_password},
    {"dst_port", &BackupJob::dst_port},
    {"dst_eject", &BackupJob::dst_eject},
    {"opt_full_backup_freq", &BackupJob::opt_full_backup_freq},
    {"opt_remove_previous_backup", &BackupJob::opt_remove_previous_backup},
    {"opt_chown_to_share_owner", &BackupJob::opt_chown_to_share_owner},
    {"opt_rsync_options", &BackupJob::opt_rsync_options},
    {"opt_email_this_to_alert_email", &BackupJob::opt_email_this_to_alert_email},
    {"opt_rsync_exclude", &BackupJob::opt_rsync_exclude},
    {"opt_misc_option", &BackupJob::opt_misc_option},
    {"opt_max_log_lines", &BackupJob::opt_max_log_lines},
    {"wol_addr", &BackupJob::wol_addr},
    {"time_to_wait", &BackupJob::time_to_wait},
};

xmlParserInputPtr refuse_external_entity(const char *, const char *, xmlParserCtxtPtr) { return nullptr; }

void log_too_large() {
    TSBACKUP_LOG(level::error, "%s is larger than %d MiB and is not read.\n", paths::job_file,
                 kLargestJobFileMebibytes);
}

/// The file's bytes; nothing when it cannot be read, is no regular file or is too large.
std::optional<std::string> job_file_content() {
    if (access(paths::job_file, R_OK) != 0) return std::nullopt;
    // A named pipe in the file's place must not keep the program waiting for a writer.
    const UniqueFd file(open(paths::job_file, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) return std::nullopt;
    if (!S_ISREG(status.st_mode)) {
        TSBACKUP_LOG(level::error, "%s is no regular file and is not read.\n", paths::job_file);
        return std::nullopt;
    }
    if (static_cast<std::uint64_t>(status.st_size) > kLargestJobFile) {
        log_too_large();
        return std::nullopt;
    }

    std::string content;
    std::array<char, 16384> block; // NOLINT(cppcoreguidelines-pro-type-member-init): filled by read
    ssize_t got = 0;
    while ((got = read(file.get(), block.data(), block.size())) > 0) {
        content.append(block.data(), static_cast<std::size_t>(got));
        if (content.size() > kLargestJobFile) {
            log_too_large();
            return std::nullopt;
        }
    }
    if (got < 0) return std::nullopt;
    return content;
}

const Setting *setting_of(const char *element) {
    for (const Setting &setting : kSettings)
        if (std::strcmp(setting.element, element) == 0) return &setting;
    return nullptr;
}

void apply_setting(const xmlNode *node, BackupJob &job) {
    const char *element = node_name(node);
    const char *value = node_value(node);
    if (std::strcmp(element, kJobNumber) == 0) {
        job.job_id = value != nullptr ? decimal_value(value) : -1;
    } else if (const Setting *setting = setting_of(element)) {
        job.*setting->text = value != nullptr ? value : "";
    } else {
        TSBACKUP_LOG(level::error, "Unknown element <%s> found\n", element);
    }
}

} // namespace

UniqueXmlDoc job_text_parse(std::string_view content) {
    xmlInitParser();
    xmlSetExternalEntityLoader(refuse_external_entity);
    return UniqueXmlDoc(xmlReadMemory(content.data(), static_cast<int>(content.size()), paths::job_file, "utf-8",
                                      XML_PARSE_NOBLANKS | XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING |
                                          XML_PARSE_BIG_LINES));
}

UniqueXmlDoc job_file_parse() {
    const std::optional<std::string> content = job_file_content();
    return content ? job_text_parse(*content) : nullptr;
}

const xmlNode *first_child(const xmlNode *node) { return node->type == XML_ENTITY_REF_NODE ? nullptr : node->children; }

const xmlNode *first_entry(const xmlDoc *document) {
    const xmlNode *root = document != nullptr ? xmlDocGetRootElement(document) : nullptr;
    return root != nullptr ? first_child(root) : nullptr;
}

const char *node_name(const xmlNode *node) {
    return node->name != nullptr ? reinterpret_cast<const char *>(node->name) : "";
}

const char *node_value(const xmlNode *node) {
    const xmlNode *child = first_child(node);
    return child != nullptr ? reinterpret_cast<const char *>(child->content) : nullptr;
}

BackupJob job_read(const xmlNode *entry) {
    BackupJob job;
    for (const xmlNode *node = first_child(entry); node != nullptr; node = node->next)
        apply_setting(node, job);
    return job;
}

bool job_setting_exists(const char *element) {
    return std::strcmp(element, kJobNumber) == 0 || setting_of(element) != nullptr;
}

std::unique_ptr<BackupJob> job_find(const xmlDoc *document, std::int32_t job_id) {
    for (const xmlNode *entry = first_entry(document); entry != nullptr; entry = entry->next) {
        BackupJob job = job_read(entry);
        if (job.job_id != job_id) continue;

        if (decimal_value(job.opt_max_log_lines) < 1) job.opt_max_log_lines = kDefaultLogLines;
        return std::make_unique<BackupJob>(std::move(job));
    }
    return nullptr;
}

std::unique_ptr<BackupJob> backup_job_load(std::int32_t job_id) {
    // A job without a number counts as number -1.
    if (job_id < 0) return nullptr;
    return job_find(job_file_parse().get(), job_id);
}

} // namespace tsbackup
