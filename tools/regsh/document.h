#pragma once

#include "tools/regsh/node.h"
#include "tools/regsh/registry_path.h"

#include <string>
#include <vector>

namespace regsh {

// A directory of a document and the place in the registry where its content belongs.
struct PlacedDirectory {
    RegistryPath place;
    Node directory;
};

// Reads an export document: every NodeDir directly under ProfileRegistry, each placed by its path
// attribute. Elements the format does not know are passed over; a NodeKey without a NodeParam has
// the empty value. Values keep their bytes. A file that cannot be read, is damaged, lacks a level
// or names an entry that no registry can hold is a RegistryError, with line and column where there
// is one ("FILE:LINE:COLUMN: why"; both count from 1, the column in bytes).
std::vector<PlacedDirectory> read_export(const std::string& file);

// Reads a whole registry: a document whose root element is the NodeDir "root". Failures as above.
PlacedDirectory read_registry(const std::string& file);

// Writes the directory as an export document. When that fails a RegistryError tells why, and no
// half document is left where a file stood or was to stand.
void write_export(const std::string& file, const PlacedDirectory& content,
                  const std::string& product_config);

}  // namespace regsh
