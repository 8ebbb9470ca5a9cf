// Results of a run for people.

#pragma once

#include <cstdint>
#include <string>

namespace tsbackup {

/// The result of a run, as its history and its event carry it, in words.
std::string result_in_words(std::int32_t code);

} // namespace tsbackup
