#include "job_texts.h"

#include "appliance_support.h"

#include <algorithm>

namespace tsbackup::test {

std::string job_text(const Changes &changes, const std::string &in_job, const std::string &behind_job) {
    Settings settings =
        source_share("data", "Pictures") + destination_usb("1", "copy") +
        Settings{{"name", "Job"}, {"opt_full_backup_freq", "NEVER"}, {"opt_email_this_to_alert_email", "0"}};
    std::string job_id = "<job_id>7</job_id>";
    for (const auto &[element, value] : changes) {
        std::erase_if(settings, [&, &name = element](const auto &setting) { return setting.first == name; });
        if (element == "job_id")
            job_id = value ? "<job_id>" + *value + "</job_id>" : "";
        else if (value)
            settings.emplace_back(element, *value);
    }
    std::string xml = JobFile().job(-5, settings).xml();
    const std::string number = "<job_id>-5</job_id>";
    xml.replace(xml.find(number), number.size(), job_id);
    const std::size_t end = xml.find("  </backupJob>");
    xml.insert(end, in_job);
    xml.insert(xml.find("</backupJobs>"), behind_job);
    return xml;
}

std::string job_text(const Changes &changes) { return job_text(changes, ""); }

Changes remote(const std::string &side, const std::string &protocol, const std::string &path, const Changes &more) {
    Changes changes = {{side + "_type", "remote"},
                       {side + "_share_proto", protocol},
                       {side + "_share_vol", std::nullopt},
                       {side + "_path", path}};
    changes.insert(changes.end(), more.begin(), more.end());
    return changes;
}

const std::vector<AcceptedCase> kAcceptedJobs = {
    {"the sound job", {}},
    {"a share with blanks and letters beyond ASCII", {{"src_share_proto", "Käse und Brot"}, {"src_path", "a b/c"}}},
    {"a share on external media", {{"src_share_vol", "media"}}},
    {"a name that needs escaping", {{"name", "Tom & \"Ann\" <3"}}},
    {"a tilde without a digit", {{"src_share_proto", "abc~x"}}},
    {"a whole volume", {{"src_type", "volume"}, {"src_share_proto", "data"}, {"src_share_vol", ""}}},
    {"a volume as destination",
     {{"dst_type", "volume"}, {"dst_share_proto", "vault"}, {"dst_share_vol", ""}, {"dst_path", "x"}}},
    {"a home", {{"src_type", "home"}, {"src_share_proto", "alice"}}},
    {"all homes", {{"src_type", "home"}, {"src_share_proto", "*"}}},
    {"the Time Machine area", {{"src_type", "timemachine"}, {"src_share_proto", std::nullopt}}},
    {"another share of the same volume",
     {{"dst_type", "share"}, {"dst_share_vol", "data"}, {"dst_share_proto", "Pictures2"}}},
    {"the source in the destination, which is never emptied",
     {{"src_path", "a/b"},
      {"dst_type", "share"},
      {"dst_share_vol", "data"},
      {"dst_share_proto", "Pictures"},
      {"dst_path", "a"}}},
    {"cifs with slashes", remote("src", "cifs", "//server/share/folder", {{"src_login", "u"}, {"src_password", "p"}})},
    {"cifs with backslashes and a domain",
     remote("dst", "cifs", "\\\\server\\share\\a b", {{"dst_login", "DOM\\u"}, {"dst_password", "p;$"}})},
    {"cifs, a hidden share", remote("src", "cifs", "//server/C$/x")},
    {"the longest user of cifs", remote("src", "cifs", "//s/x", {{"src_login", std::string(54, 'u')}})},
    {"an archive of cifs", remote("src", "cifs-ab", "//server/share")},
    {"nfs", remote("dst", "nfs", "server:/export")},
    {"anonymous ftp", remote("src", "ftp", "ftp://server:2121/pub")},
    {"ftp without its scheme", remote("dst", "ftp", "server/pub", {{"dst_port", "2121"}})},
    {"http", remote("src", "http", "http://server/site")},
    {"an rsync daemon", remote("src", "rsync", "server::module/x", {{"src_login", "u"}, {"src_password", "p"}})},
    {"rsync over ssh", remote("dst", "rsync+ssh", "server:/x", {{"dst_login", "root"}, {"dst_port", "22"}})},
    {"empty numbers",
     {{"src_port", ""},
      {"dst_eject", ""},
      {"opt_rsync_options", ""},
      {"opt_max_log_lines", ""},
      {"wol_addr", ""},
      {"time_to_wait", ""}}},
    {"the largest numbers",
     {{"job_id", "2147483647"},
      {"src_port", "65535"},
      {"dst_eject", "1"},
      {"opt_rsync_options", "15"},
      {"opt_max_log_lines", "2147483647"},
      {"time_to_wait", "1440"}}},
    {"a hardware address", {{"wol_addr", "00:1A:2b:3c:4d:5e"}, {"time_to_wait", "5"}}},
    {"a hardware address with dashes", {{"wol_addr", "00-1A-2b-3c-4d-5e"}, {"time_to_wait", "5"}}},
    {"a hardware address alone", {{"wol_addr", "001A2b3c4d5e"}, {"time_to_wait", "5"}}},
    {"every week", {{"opt_full_backup_freq", "EVERY_WEEK"}}},
    {"patterns to leave out", {{"opt_rsync_exclude", "*.tmp,$RECYCLE.BIN/,~*"}}},
};

} // namespace tsbackup::test
