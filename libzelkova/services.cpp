// The appliance's services and their switches.

#include "zelkova.h"

#include "settings_file.h"

namespace {
constexpr char kServicesFile[] = "/etc/default/services";
}

char *get_ts_services_setting(const char *name) {
    tsbackup::UniqueText value;
    if (name == nullptr || !tsbackup::settings_file_find(kServicesFile, name, value)) return nullptr;
    return value.release();
}
