#include "record.h"

#include "tell.h"

#include <array>
#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

namespace tsbackup {

namespace {

iovec field(std::string &text) { return {text.data(), text.size()}; }

bool to_journal(const Event &event, const std::string &line) {
    // The library reports success where no journal is running.
    if (access("/run/systemd/journal/socket", F_OK) != 0) return false;
    std::string message = "MESSAGE=" + line;
    std::string priority = "PRIORITY=" + std::to_string(LOG_NOTICE);
    std::string kind = "ZELKOVA_KIND=" + event.kind;
    std::string source = "ZELKOVA_SOURCE=" + event.source;
    std::string numbers = "ZELKOVA_NUMBERS=" + event.numbers;
    std::string text = "ZELKOVA_MESSAGE=" + event.message;
    const std::array<iovec, 6> fields = {field(message), field(priority), field(kind),
                                         field(source),  field(numbers),  field(text)};
    return sd_journal_sendv(fields.data(), static_cast<int>(fields.size())) == 0;
}

bool to_syslog(const std::string &line) {
    if (access("/dev/log", F_OK) != 0) return false;
    openlog("zelkova-eventd", LOG_PID, LOG_DAEMON);
    syslog(LOG_NOTICE, "%s", line.c_str());
    return true;
}

} // namespace

void event_record(const Event &event) {
    const std::string line = "event " + event.kind + " from " + event.source + ": " + event.message;
    if (!to_journal(event, line) && !to_syslog(line)) tell(LOG_NOTICE, "%s", line.c_str());
}

} // namespace tsbackup
