#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <utility>

// Translates connection types between their display name ("RDP") and the registry's ("rdesktop").
// Names that the running image type does not translate pass through unchanged; names are
// case-sensitive.
//
// The first lookup builds the table and asks the registry client up to four times which clients are
// installed. On a device without an identity the lookup that builds the table throws
// ImageIDException; the next one builds it again.

// One row of the table: the image types it serves, and its pairs of (registry name, display name).
struct ConnTypeMapSlot {
    std::uint32_t lowest_type = 0;
    std::uint32_t highest_type = 0;
    std::list<std::pair<std::string, std::string>> pairs;
};

// Slots are searched in order up to the first one without pairs.
using ConnTypeMap = std::array<ConnTypeMapSlot, 11>;

std::string to_registry_type(const std::string& display_name);
std::string to_display_type(const std::string& registry_name);

// Display to registry name when `to_registry`, otherwise the other way.
std::string map_conn_type(const std::string& name, bool to_registry);

// Fills `map`; called by the lookup on first use only.
void build_conn_type_map(ConnTypeMap& map);

// The pairs that serve `image_type`, of the process-wide table (built when needed); empty for a
// type that no slot serves. Valid until exit.
const std::list<std::pair<std::string, std::string>>& conn_type_pairs(std::uint32_t image_type);
