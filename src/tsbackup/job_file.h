#pragma once

#include "tsbackup/owners.h"

#include <libxml/tree.h>
#include <memory>

namespace tsbackup {

using UniqueXmlDoc = std::unique_ptr<xmlDoc, ReleaseWith<xmlFreeDoc>>;

/// The job file as a tree without blank text, or null. Neither the network nor any other file is touched, whatever
/// the document refers to.
UniqueXmlDoc job_file_parse();

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
