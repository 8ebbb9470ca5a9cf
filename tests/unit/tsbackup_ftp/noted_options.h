// What the unit asks of the transfer library: the library itself does not tell.

#pragma once

#include <curl/curl.h>
#include <map>
#include <string>

namespace tsbackup::test {

/// Notes the options that this process sets while the object lives, of all handles together; one at a time. They are
/// set all the same.
class NotedOptions {
  public:
    NotedOptions();
    ~NotedOptions();
    NotedOptions(const NotedOptions &) = delete;
    NotedOptions &operator=(const NotedOptions &) = delete;

    bool has(CURLoption option) const;
    /// The last value of an option that is a number, -1 when it was not set.
    long number(CURLoption option) const;
    /// The last value of an option that is a text; "(not set)" when it was not set.
    std::string text(CURLoption option) const;
    void note(CURLoption option, long number);
    void note(CURLoption option, const char *text);

  private:
    std::map<CURLoption, long> numbers_;
    std::map<CURLoption, std::string> texts_;
};

} // namespace tsbackup::test
