#include "record_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vector>

namespace tsbackup::test {
namespace {

constexpr std::size_t kSize = 128;

std::string record(std::string text) {
    text.resize(kSize, '\0');
    return text;
}

struct Read {
    std::vector<std::string> texts;
    std::vector<std::string> dropped;
};

/// What a reader makes of bytes that arrive in pieces of `piece`.
Read read_in_pieces(const std::string &bytes, std::size_t piece) {
    Read read;
    RecordReader reader([&](const std::string &lost) { read.dropped.push_back(lost); });
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        reader.add(bytes.substr(at, piece));
        while (const auto text = reader.next())
            read.texts.push_back(*text);
    }
    return read;
}

std::string joined(const std::vector<std::string> &texts) {
    std::string all;
    for (const std::string &text : texts)
        all += text;
    return all;
}

struct StreamCase {
    const char *name;
    std::string bytes;
    std::vector<std::string> texts;
    std::string dropped;
};

const std::string kFull = "enqueue:" + std::string(kSize - 8, '7'); // no zero byte behind the text

const StreamCase kStreams[] = {
    {"nothing", "", {}, ""},
    {"one record", record("enqueue:7"), {"enqueue:7"}, ""},
    {"both forms", record("enqueue:7") + record("dequeue:7\n"), {"enqueue:7", "dequeue:7\n"}, ""},
    {"a text that fills its record", kFull + record("enqueue:1"), {kFull, "enqueue:1"}, ""},
    {"zero bytes between records",
     record("enqueue:7") + std::string(200, '\0') + record("enqueue:8"),
     {"enqueue:7", "enqueue:8"},
     ""},
    {"garbage first", "hello\n" + record("enqueue:7"), {"enqueue:7"}, "hello\n"},
    {"garbage alone", std::string(5000, 'x'), {}, std::string(5000, 'x')},
    {"a short record and a good one", "enqueue:5" + record("enqueue:7"), {"enqueue:7"}, "enqueue:5"},
    {"a short line and a good one", "enqueue:5\n" + record("enqueue:7"), {"enqueue:7"}, "enqueue:5\n"},
    {"a record that was cut and sent again",
     record("enqueue:7").substr(0, 50) + record("enqueue:7"),
     {"enqueue:7"},
     "enqueue:7"},
    {"cut inside its first word", "enqu" + record("enqueue:7"), {"enqueue:7"}, "enqu"},
    {"text behind the end",
     record("enqueue:7").substr(0, 100) + std::string(28, 'x') + record("enqueue:8"),
     {"enqueue:8"},
     "enqueue:7" + std::string(28, 'x')},
    {"a record that is too long",
     "enqueue:1" + std::string(200, 'x') + record("enqueue:8"),
     {"enqueue:1" + std::string(119, 'x'), "enqueue:8"},
     std::string(81, 'x')},
    {"many good ones behind a single byte",
     "x" + record("enqueue:1") + record("enqueue:2") + record("dequeue:1\n"),
     {"enqueue:1", "enqueue:2", "dequeue:1\n"},
     "x"},
};

TEST(RecordReader, finds_the_records_whatever_stands_between_them) {
    for (const StreamCase &test : kStreams) {
        for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, kSize, std::size_t{65536}}) {
            SCOPED_TRACE(std::string(test.name) + ", in pieces of " + std::to_string(piece));
            const Read read = read_in_pieces(test.bytes, piece);
            EXPECT_EQ(read.texts, test.texts);
            EXPECT_EQ(joined(read.dropped), test.dropped);
        }
    }
}

TEST(RecordReader, waits_for_the_rest_of_a_record) {
    RecordReader reader([](const std::string &) { FAIL(); });
    reader.add(record("enqueue:7").substr(0, kSize - 1));
    EXPECT_EQ(reader.next(), std::nullopt);
    reader.add(std::string(1, '\0'));
    EXPECT_EQ(reader.next(), "enqueue:7");
    EXPECT_EQ(reader.next(), std::nullopt);
}

} // namespace
} // namespace tsbackup::test
