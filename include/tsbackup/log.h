// The diagnostic log and the error record: the two facilities that every unit uses.

#pragma once

#include "tsbackup/run.h"

#include <cstdint>
#include <cstdio>
#include <string>

namespace tsbackup {

/// Levels of the diagnostic log, most urgent first.
namespace level {
inline constexpr int emerg = 0;
inline constexpr int alert = 1;
inline constexpr int crit = 2;
inline constexpr int error = 3;
inline constexpr int warning = 4;
inline constexpr int notice = 5;
inline constexpr int info = 6;
inline constexpr int debug = 7;
} // namespace level

/// A message is written when its level is at most this threshold; 5 ("notice") at start.
void diagnostic_threshold_set(std::int32_t threshold);

/// The stream that receives diagnostics; null: none, as at start. Not owned.
void diagnostic_stream_set(std::FILE *stream);

/// Writes "UNIT:LINE (LEVEL) MESSAGE" to the diagnostic stream. No newline is added: a message carries its own.
/// The level's name is chosen by its low three bits. A hidden message is not even formatted; one that cannot be
/// formatted is dropped. `errno` is left as it was.
[[gnu::format(printf, 4, 5)]] void diagnostic_log(const char *unit, int line, int level, const char *format, ...);

/// Records the first failure of a run and returns the code that the record now holds.
/// A record that already holds a code other than 0 is left alone, message included. The message is cut at 511
/// characters; with a null format it is "UNIT:LINE ", where UNIT starts at its last "/". The message is also
/// logged at debug level. A code of 0 stores its message and leaves the record open.
/// A null `env` is a programming error and stops the process.
[[gnu::format(printf, 5, 6)]] std::int32_t backup_error_set(std::int32_t code, BackupRun *env, const char *unit,
                                                            int line, const char *format, ...);

/// The system's description of an error number.
std::string error_text(int error_number);

/// Fills `buffer` of `size` bytes with the system's description of an error number, cut to fit and terminated.
void error_text(int error_number, char *buffer, std::size_t size);

} // namespace tsbackup

/// Each unit's build defines TSBACKUP_UNIT, the tag that its diagnostics carry.
#define TSBACKUP_LOG(level, ...) ::tsbackup::diagnostic_log(TSBACKUP_UNIT, __LINE__, level, __VA_ARGS__)
#define TSBACKUP_ERROR_SET(code, env, ...) ::tsbackup::backup_error_set(code, env, TSBACKUP_UNIT, __LINE__, __VA_ARGS__)
