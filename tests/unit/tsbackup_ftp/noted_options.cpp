#include "noted_options.h"

#include <cstdarg>
#include <dlfcn.h>

namespace tsbackup::test {

namespace {

NotedOptions *current = nullptr;

bool is_text(CURLoption option) {
    return option == CURLOPT_USERNAME || option == CURLOPT_PASSWORD || option == CURLOPT_URL ||
           option == CURLOPT_CUSTOMREQUEST || option == CURLOPT_PROTOCOLS_STR;
}

} // namespace

NotedOptions::NotedOptions() { current = this; }
NotedOptions::~NotedOptions() { current = nullptr; }

bool NotedOptions::has(CURLoption option) const { return numbers_.contains(option) || texts_.contains(option); }

long NotedOptions::number(CURLoption option) const {
    const auto found = numbers_.find(option);
    return found == numbers_.end() ? -1 : found->second;
}

std::string NotedOptions::text(CURLoption option) const {
    const auto found = texts_.find(option);
    return found == texts_.end() ? "(not set)" : found->second;
}

void NotedOptions::note(CURLoption option, long number) { numbers_[option] = number; }
void NotedOptions::note(CURLoption option, const char *text) { texts_[option] = text; }

} // namespace tsbackup::test

extern "C" {

// A definition of the program itself comes before the library's. Its own name lets the option be a type that may stand
// in front of others in any number.
CURLcode noted_setopt(CURL *handle, unsigned number, ...) __asm__("curl_easy_setopt");

CURLcode noted_setopt(CURL *handle, unsigned number, ...) {
    using namespace tsbackup::test;
    static const auto library =
        reinterpret_cast<CURLcode (*)(CURL *, CURLoption, ...)>(dlsym(RTLD_NEXT, "curl_easy_setopt"));
    const auto option = static_cast<CURLoption>(number);
    va_list arguments;
    va_start(arguments, number);
    CURLcode result = CURLE_OK;
    if (number < CURLOPTTYPE_OBJECTPOINT) {
        const long value = va_arg(arguments, long);
        if (current != nullptr) current->note(option, value);
        result = library(handle, option, value);
    } else if (number >= CURLOPTTYPE_OFF_T && number < CURLOPTTYPE_BLOB) {
        const curl_off_t value = va_arg(arguments, curl_off_t);
        if (current != nullptr) current->note(option, static_cast<long>(value));
        result = library(handle, option, value);
    } else {
        void *value = va_arg(arguments, void *);
        if (current != nullptr && is_text(option)) current->note(option, static_cast<const char *>(value));
        result = library(handle, option, value);
    }
    va_end(arguments);
    return result;
}
}
