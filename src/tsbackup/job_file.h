#pragma once

#include "tsbackup/job.h"
#include "tsbackup/owners.h"

#include <cstddef>
#include <cstdint>
#include <libxml/tree.h>
#include <memory>
#include <string_view>
#include <vector>

namespace tsbackup {

/// No administrator writes a job file of this size; a larger one would only exhaust the appliance's memory and is not
/// read.
inline constexpr int kLargestJobFileMebibytes = 16;
inline constexpr std::size_t kLargestJobFile = std::size_t{kLargestJobFileMebibytes} << 20U;

using UniqueXmlDoc = std::unique_ptr<xmlDoc, ReleaseWith<xmlFreeDoc>>;

/// The job file as a tree without blank text, or null. Neither the network nor any other file is touched, whatever
/// the document refers to.
UniqueXmlDoc job_file_parse();

/// The same for a text in place of the file's content.
UniqueXmlDoc job_text_parse(std::string_view content);

/// The first job of the document (null: none) with that number, ready to run; null when there is none.
std::unique_ptr<BackupJob> job_find(const xmlDoc *document, std::int32_t job_id);

/// One entry of the document as it is written. Elements with unknown names are logged at level 3.
BackupJob job_read(const xmlNode *entry);

/// Whether a job has a setting (its number included) with this element's name.
bool job_setting_exists(const char *element);

/// The numbers of the document's button jobs, in order.
std::vector<std::int32_t> button_jobs_find(const xmlDoc *document);

/// A node's first child, null when there is none. A reference to an entity has none: what hangs below it is the
/// declaration, which is no part of the document.
const xmlNode *first_child(const xmlNode *node);

/// The root's first child, null when there is none.
const xmlNode *first_entry(const xmlDoc *document);

/// A node's name, an empty text for one that has none.
const char *node_name(const xmlNode *node);

/// The content of a node's first child, null when there is none.
const char *node_value(const xmlNode *node);

} // namespace tsbackup
