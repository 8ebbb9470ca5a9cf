#include "user_lookup.h"

#include <dlfcn.h>
#include <pwd.h>
#include <unistd.h>

namespace tsbackup::test {

namespace {

std::optional<UserLookup::Plan> plan;
std::vector<std::size_t> seen_sizes;

using Lookup = int(const char *, passwd *, char *, std::size_t, passwd **);

} // namespace

UserLookup::UserLookup(const Plan &new_plan) {
    plan = new_plan;
    seen_sizes.clear();
}

UserLookup::~UserLookup() { plan.reset(); }

std::vector<std::size_t> UserLookup::sizes() { return seen_sizes; }

} // namespace tsbackup::test

// Definitions of the program itself come before the C library's.
extern "C" {

long __sysconf(int name); // NOLINT(bugprone-reserved-identifier): the C library's own name

long sysconf(int name) noexcept {
    using tsbackup::test::plan;
    if (name == _SC_GETPW_R_SIZE_MAX && plan && plan->reported_size) return *plan->reported_size;
    return __sysconf(name);
}

int getpwnam_r(const char *name, passwd *entry, char *buffer, std::size_t size, passwd **result) {
    using namespace tsbackup::test;
    if (plan) {
        seen_sizes.push_back(size);
        *result = nullptr;
        if (plan->failure != 0) return plan->failure;
    }
    static Lookup *const real = reinterpret_cast<Lookup *>(dlsym(RTLD_NEXT, "getpwnam_r"));
    return real(name, entry, buffer, size, result);
}
}
