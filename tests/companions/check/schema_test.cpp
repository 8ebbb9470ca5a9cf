// The schema and the checker are of one mind.

#include "job_check.h"
#include "job_file.h"
#include "job_texts.h"
#include "support.h"
#include "tsbackup.h"

#include <cstring>
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/xmlschemas.h>
#include <memory>
#include <set>

namespace tsbackup::test {
namespace {

constexpr char kSchemaFile[] = SOURCE_FOLDER "/companions/check/jobs.xsd";

using Schema = std::unique_ptr<xmlSchema, ReleaseWith<xmlSchemaFree>>;

Schema read_schema() {
    const std::string text = read_file(kSchemaFile);
    const std::unique_ptr<xmlSchemaParserCtxt, ReleaseWith<xmlSchemaFreeParserCtxt>> parser(
        xmlSchemaNewMemParserCtxt(text.data(), static_cast<int>(text.size())));
    return Schema(xmlSchemaParse(parser.get()));
}

void be_silent(void *, const char *, ...) {}

bool is_valid(xmlSchema *schema, const std::string &text) {
    const UniqueXmlDoc document = job_text_parse(text);
    const std::unique_ptr<xmlSchemaValidCtxt, ReleaseWith<xmlSchemaFreeValidCtxt>> validator(
        xmlSchemaNewValidCtxt(schema));
    xmlSchemaSetValidErrors(validator.get(), be_silent, be_silent, nullptr);
    return xmlSchemaValidateDoc(validator.get(), document.get()) == 0;
}

TEST(Schema, AcceptsWhatTheCheckerAccepts) {
    const Schema schema = read_schema();
    ASSERT_TRUE(schema);
    for (const AcceptedCase &c : kAcceptedJobs)
        EXPECT_TRUE(is_valid(schema.get(), job_text(c.changes))) << c.name;
    EXPECT_TRUE(is_valid(schema.get(), "<backupJobs/>"));
    EXPECT_TRUE(is_valid(schema.get(), job_text({}, "",
                                                "<backupButtonJobs><backupButtonJob>7</backupButtonJob>"
                                                "</backupButtonJobs>")));
}

TEST(Schema, RejectsWhatItCanSay) {
    struct Case {
        const char *name;
        std::string text;
    };
    const Case cases[] = {
        {"no number", job_text({{"job_id", std::nullopt}})},
        {"the button's number", job_text({{"job_id", "0"}})},
        {"a number beyond 32 bits", job_text({{"job_id", "2147483648"}})},
        {"the same number twice",
         job_text({}, "",
                  job_text({}).substr(job_text({}).find("<backupJob>"),
                                      job_text({}).find("</backupJobs>") - job_text({}).find("<backupJob>")))},
        {"no name", job_text({{"name", std::nullopt}})},
        {"an empty name", job_text({{"name", ""}})},
        {"a line end in the name", job_text({{"name", "a\nb"}})},
        {"an unknown kind", job_text({{"src_type", "tape"}})},
        {"no frequency", job_text({{"opt_full_backup_freq", std::nullopt}})},
        {"an unknown frequency", job_text({{"opt_full_backup_freq", "never"}})},
        {"a port too high", job_text({{"src_port", "65536"}})},
        {"an unknown option of rsync", job_text({{"opt_rsync_options", "16"}})},
        {"no log lines", job_text({{"opt_max_log_lines", "0"}})},
        {"yes in place of 1", job_text({{"dst_eject", "yes"}})},
        {"a long wait", job_text({{"time_to_wait", "1441"}})},
        {"no hardware address", job_text({{"wol_addr", "00:11:22:33:44"}})},
        {"mixed separators", job_text({{"wol_addr", "00:11:22-33:44:55"}})},
        {"an unknown element", job_text({}, "<foo/>")},
        {"a setting twice", job_text({}, "<name>B</name>")},
        {"an element as a value", job_text({}, "<opt_misc_option><b/></opt_misc_option>")},
        {"a button job that does not exist",
         job_text({}, "", "<backupButtonJobs><backupButtonJob>8</backupButtonJob></backupButtonJobs>")},
    };
    const Schema schema = read_schema();
    ASSERT_TRUE(schema);
    for (const Case &c : cases) {
        EXPECT_FALSE(is_valid(schema.get(), c.text)) << c.name;
        EXPECT_FALSE(job_text_check(c.text).findings.empty()) << c.name;
    }
}

/// Values of an attribute of all elements with a name, below a node.
void collect(const xmlNode *node, const char *element, const char *attribute, std::set<std::string> &values) {
    for (; node != nullptr; node = node->next) {
        if (node->type != XML_ELEMENT_NODE) continue;
        if (std::strcmp(node_name(node), element) == 0) {
            xmlChar *value = xmlGetProp(const_cast<xmlNode *>(node), reinterpret_cast<const xmlChar *>(attribute));
            if (value != nullptr) values.insert(reinterpret_cast<const char *>(value));
            xmlFree(value);
        }
        collect(node->children, element, attribute, values);
    }
}

TEST(Schema, KnowsTheSettingsAndTheKeywords) {
    const UniqueXmlDoc schema = job_text_parse(read_file(kSchemaFile));
    ASSERT_TRUE(schema);
    std::set<std::string> elements;
    collect(xmlDocGetRootElement(schema.get()), "element", "name", elements);
    std::size_t settings = 0;
    for (const std::string &element : elements)
        settings += job_setting_exists(element.c_str()) ? 1 : 0;
    EXPECT_EQ(settings, 33U);
    EXPECT_EQ(elements.size(), settings + 4); // and the root, the job, the list of button jobs and its entry

    std::set<std::string> words;
    collect(xmlDocGetRootElement(schema.get()), "enumeration", "value", words);
    std::size_t keywords = 0;
    for (const std::string &word : words)
        keywords += full_policy_knows(word.c_str()) ? 1 : 0;
    EXPECT_EQ(keywords, 7U);
    EXPECT_EQ(words.size(), keywords + 6 + 1); // and the kinds of ends, and the empty text
}

} // namespace
} // namespace tsbackup::test
