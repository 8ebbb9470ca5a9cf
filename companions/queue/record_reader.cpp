#include "record_reader.h"

#include "tsbackup_utils.h"

#include <algorithm>

namespace tsbackup {

namespace {

constexpr std::string_view kStarts[] = {"enqueue:", "dequeue:"};

/// Where the next record may begin at or behind `from`: at one of its first words, or at the end when that may be the
/// beginning of one.
std::size_t next_start(std::string_view bytes, std::size_t from) {
    std::size_t start = bytes.size();
    for (const std::string_view word : kStarts) {
        start = std::min(start, bytes.find(word, from));
        for (std::size_t length = std::min(word.size() - 1, bytes.size() - std::min(from, bytes.size())); length > 0;
             --length)
            if (bytes.ends_with(word.substr(0, length))) start = std::min(start, bytes.size() - length);
    }
    return start;
}

/// The text of a record; nothing when something stands behind the text's end, or another request inside it.
std::optional<std::string> text_of(std::string_view record) {
    const std::string_view text = record.substr(0, record.find('\0'));
    for (const std::string_view word : kStarts)
        if (text.find(word, 1) != std::string_view::npos) return std::nullopt;
    if (record.find_first_not_of('\0', text.size()) != std::string_view::npos) return std::nullopt;
    return std::string(text);
}

} // namespace

std::optional<std::string> RecordReader::next() {
    while (true) {
        drop(next_start(bytes_, 0));
        if (bytes_.size() < kQueueRecordSize) return std::nullopt;
        const std::string_view record = std::string_view(bytes_).substr(0, kQueueRecordSize);
        if (std::optional<std::string> text = text_of(record)) {
            bytes_.erase(0, kQueueRecordSize);
            return text;
        }
        // A record that was cut short, and the beginning of the next one, which is perhaps a good one.
        drop(std::min(next_start(record, 1), kQueueRecordSize));
    }
}

void RecordReader::drop(std::size_t count) {
    std::string lost = bytes_.substr(0, count);
    bytes_.erase(0, count);
    remove_char(lost, '\0');
    if (!lost.empty()) dropped_(lost);
}

} // namespace tsbackup
