// Requests out of a pipe's bytes.

#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace tsbackup {

/// Cuts what arrives in a queue's pipe into its records: 128 bytes each, a text that begins with "enqueue:" or
/// "dequeue:", and zero bytes behind it. Whatever else arrives is dropped, and the next record is found again however
/// many bytes that was.
class RecordReader {
  public:
    /// `dropped` is told what was no record, without its zero bytes.
    explicit RecordReader(std::function<void(const std::string &)> dropped) : dropped_(std::move(dropped)) {}

    void add(std::string_view bytes) { bytes_ += bytes; }

    /// The text of the next record, or nothing before more bytes arrive.
    std::optional<std::string> next();

  private:
    void drop(std::size_t count);

    std::function<void(const std::string &)> dropped_;
    std::string bytes_;
};

} // namespace tsbackup
