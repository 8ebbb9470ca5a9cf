#include "event.h"

#include <gtest/gtest.h>

namespace tsbackup::test {
namespace {

struct EventCase {
    const char *name;
    std::string datagram;
    std::optional<Event> event;
};

const EventCase kEvents[] = {
    {"as the program sends it", "backup\nzelkovad\n0 0\n<xs:add-s/>",
     Event{"backup", "zelkovad", "0 0", "<xs:add-s/>"}},
    {"negative numbers", "ui\ns\n-1 27\nm", Event{"ui", "s", "-1 27", "m"}},
    {"no message", "ui\ns\n0 0\n", Event{"ui", "s", "0 0", ""}},
    {"no source", "ui\n\n0 0\nm", Event{"ui", "", "0 0", "m"}},
    {"a message of lines", "ui\ns\n0 0\na\nb\n", Event{"ui", "s", "0 0", "a\nb\n"}},
    {"a message with a zero byte", std::string("ui\ns\n0 0\na\0b", 12),
     Event{"ui", "s", "0 0", std::string("a\0b", 3)}},
    {"nothing", "", std::nullopt},
    {"one line", "backup", std::nullopt},
    {"two lines", "backup\nzelkovad\n", std::nullopt},
    {"numbers without a line's end", "backup\nzelkovad\n0 0", std::nullopt},
    {"no kind", "\nzelkovad\n0 0\nm", std::nullopt},
    {"one number", "backup\nzelkovad\n0\nm", std::nullopt},
    {"three numbers", "backup\nzelkovad\n0 0 0\nm", std::nullopt},
    {"words for numbers", "backup\nzelkovad\na b\nm", std::nullopt},
    {"two blanks", "backup\nzelkovad\n0  0\nm", std::nullopt},
    {"a zero byte in the kind", std::string("ba\0up\nzelkovad\n0 0\nm", 20), std::nullopt},
};

TEST(Event, is_taken_apart_by_its_lines) {
    for (const EventCase &test : kEvents) {
        SCOPED_TRACE(test.name);
        const std::optional<Event> event = event_parse(test.datagram);
        ASSERT_EQ(event.has_value(), test.event.has_value());
        if (!event) continue;
        EXPECT_EQ(event->kind, test.event->kind);
        EXPECT_EQ(event->source, test.event->source);
        EXPECT_EQ(event->numbers, test.event->numbers);
        EXPECT_EQ(event->message, test.event->message);
    }
}

std::string eject_message(const std::string &device, const std::string &action = "eject") {
    return "<xs:delete-s resource-type=\"HotPlug\" resource-id=\"UsbStorage\" action=\"" + action + "\" device=\"" +
           device + "\"></xs:delete-s>";
}

TEST(Event, asks_for_a_disk_in_one_form_alone) {
    const struct {
        Event event;
        std::optional<std::string> device;
    } cases[] = {
        {{"ui", "zelkovad", "0 0", eject_message("sdq1")}, "sdq1"},
        {{"ui", "zelkovad", "0 0", eject_message("mmcblk0p1")}, "mmcblk0p1"},
        {{"backup", "zelkovad", "0 0", eject_message("sdq1")}, std::nullopt},
        {{"ui", "zelkovad", "0 0", eject_message("sdq1", "insert")}, std::nullopt},
        {{"ui", "zelkovad", "0 0", eject_message("")}, std::nullopt},
        {{"ui", "zelkovad", "0 0", eject_message("../sda")}, std::nullopt},
        {{"ui", "zelkovad", "0 0", eject_message("sd\"x")}, std::nullopt},
        {{"ui", "zelkovad", "0 0", eject_message("sdq1") + "\n"}, std::nullopt},
        {{"ui", "zelkovad", "0 0", ""}, std::nullopt},
        {{"ui", "zelkovad", "0 0", "<xs:delete-s resource-type=\"HotPlug\" device=\"sdq1\"></xs:delete-s>"},
         std::nullopt},
    };
    for (const auto &[event, device] : cases)
        EXPECT_EQ(event_eject_device(event), device) << event.message;
}

} // namespace
} // namespace tsbackup::test
