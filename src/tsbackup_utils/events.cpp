// Every message that the program sends to the management daemon.

#include "tsbackup_utils.h"

#include "zelkova.h"

#include <array>

namespace tsbackup {

namespace {

constexpr char kSource[] = "zelkovad";
using Message = std::array<char, 1024>;

std::string escaped(const char *text) { return escape_for_xml(text).value_or(std::string()); }

void push(const char *kind, const char *message) { event_push(kind, kSource, message, 0, 0); }

} // namespace

void event_job_result(std::int32_t job_id, const char *name, std::int32_t status, std::int32_t email,
                      std::int32_t by_button) {
    Message message;
    push("backup", str_snprintf(message.data(), message.size(),
                                "<xs:add-s resource-type=\"Backup\"><backup job-id=\"%d\" job-name=\"%s\" "
                                "status=\"%d\" email=\"%d\" by-button=\"%d\"/></xs:add-s>",
                                job_id, escaped(name).c_str(), status, email, by_button));
}

void event_button_summary(std::int32_t status) {
    Message message;
    push("backup", str_snprintf(message.data(), message.size(),
                                "<xs:add-s resource-type=\"Backup\"><backup job-id=\"0\" job-name=\"button\" "
                                "status=\"%d\" email=\"0\" by-button=\"1\"/></xs:add-s>",
                                status));
}

void event_sd_card_failed(std::int32_t job_id, std::int32_t status, std::int32_t by_button) {
    Message message;
    push("backup", str_snprintf(message.data(), message.size(),
                                "<xs:add-s resource-type=\"Backup\"><backup job-id=\"%d\" job-name=\"SD_to_\" "
                                "status=\"%d\" email=\"0\" by-button=\"%d\"/></xs:add-s>",
                                job_id, status, by_button));
}

void event_usb_eject(const char *device) {
    Message message;
    push("ui", str_snprintf(message.data(), message.size(),
                            "<xs:delete-s resource-type=\"HotPlug\" resource-id=\"UsbStorage\" action=\"eject\" "
                            "device=\"%s\"></xs:delete-s>",
                            device));
}

void event_usb_eject_notice(const char *share_name, const char *job_name) {
    Message message;
    push("backup",
         str_snprintf_whole(message.data(), message.size(),
                            "<xs:add-s resource-type=\"Log\" resource-id=\"Log\"><Log severity=\"notice\" "
                            "category=\"system\" message-tag=\"LOGMSG_USB_EJECT_BY_BACKUP\"><args ShareName=\"%s\" "
                            "JobName=\"%s\"/></Log></xs:add-s>",
                            share_name, escaped(job_name).c_str()));
}

void event_camera_queued(const char *device, std::int32_t status) {
    Message message;
    push("mtpbackup",
         str_snprintf(message.data(), message.size(),
                      "<xs:add-s resource-type=\"Backup\"><mtpbackup devname=\"%s\" status=\"%d\"/></xs:add-s>",
                      escaped(device).c_str(), status));
}

void event_camera_import(const char *device, const char *destination, std::int32_t status) {
    Message message;
    push("mtpbackup", str_snprintf(message.data(), message.size(),
                                   "<xs:add-s resource-type=\"Backup\"><mtpbackup devname=\"%s\" dest=\"%s\" "
                                   "status=\"%d\"/></xs:add-s>",
                                   escaped(device).c_str(), escaped(destination).c_str(), status));
}

void event_camera_import_failed(const char *device, const char *destination, std::int32_t status, std::int32_t reason) {
    Message message;
    push("mtpbackup", str_snprintf(message.data(), message.size(),
                                   "<xs:add-s resource-type=\"Backup\"><mtpbackup devname=\"%s\" dest=\"%s\" "
                                   "status=\"%d\" reason=\"%d\"/></xs:add-s>",
                                   escaped(device).c_str(), escaped(destination).c_str(), status, reason));
}

} // namespace tsbackup
