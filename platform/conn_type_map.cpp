#include "platform/conn_type_map.h"

#include "platform/command_runner.h"
#include "platform/image_id.h"
#include "platform/system_identity.h"

#include <vector>

namespace {

// A pair of the table. Where `installed` is set, it is the registry name on devices whose registry
// knows that client, and `registry` the name on all others.
struct PairRow {
    const char* display;
    const char* registry;
    const char* installed = nullptr;
};

struct SlotRow {
    std::uint32_t lowest_type;
    std::uint32_t highest_type;
    std::vector<PairRow> pairs;
};

const std::vector<PairRow>& current_pairs() {
    static const std::vector<PairRow> pairs{
        {"Custom", "custom"}, {"ICA", "xen"},  {"Firefox", "firefox"},
        {"RDP", "freerdp"},   {"SSH", "ssh"},  {"Tavrin", "tavrin"},
        {"Telnet", "telnet"}, {"VDM", "view"}, {"Xdmcp", "xdmcp"},
    };
    return pairs;
}

const std::vector<SlotRow>& slot_rows() {
    static const std::vector<SlotRow> rows{
        {1,
         1,
         {{"Custom", "custom"},
          {"ICA", "ica"},
          {"Firefox", "firefox"},
          {"Leostream", "leostream"},
          {"PNAgent", "pnagent"},
          {"Provision", "provision"},
          {"RDP", "rdesktop"},
          {"SSH", "ssh"},
          {"Tavrin", "tavrin"},
          {"Telnet", "telnet"},
          {"VDM", "vdm"},
          {"Xdmcp", "xdmcp"}}},
        {3,
         4,
         {{"Custom", "custom"},
          {"ICA", "ica"},
          {"Firefox", "iceweasel"},
          {"Leostream", "leostream"},
          {"PNAgent", "pnagent"},
          {"Provision", "provision"},
          {"RDP", "rdesktop"},
          {"RGS", "rgs"},
          {"BNJ", "bnj-client"},
          {"SSH", "ssh"},
          {"Tavrin", "tavrin"},
          {"Telnet", "telnet"},
          {"VDM", "vdm"},
          {"Xdmcp", "xdmcp"}}},
        {5,
         5,
         {{"Custom", "custom"},
          {"ICA", "ica"},
          {"Firefox", "iceweasel"},
          {"Leostream", "leostream"},
          {"PNAgent", "pnagent"},
          {"RDP", "rdesktop"},
          {"RGS", "rgs"},
          {"BNJ", "bnj-client"},
          {"SSH", "ssh"},
          {"Tavrin", "tavrin"},
          {"Telnet", "telnet"},
          {"VDM", "view"},
          {"VWorkspace", "vworkspace"},
          {"Xdmcp", "xdmcp"}}},
        {6, 6, {{"VDM", "view"}, {"RDP", "rdesktop", "freerdp"}, {"ICA", "xen"}}},
        {7,
         7,
         {{"Custom", "custom"},
          {"ICA", "ica", "xen"},
          {"Firefox", "firefox", "iceweasel"},
          {"Leostream", "leostream"},
          {"PNAgent", "pnagent"},
          {"RDP", "rdesktop", "freerdp"},
          {"RGS", "rgs"},
          {"BNJ", "bnj-client"},
          {"SSH", "ssh"},
          {"Tavrin", "tavrin"},
          {"Telnet", "telnet"},
          {"VDM", "view"},
          {"VWorkspace", "vworkspace"},
          {"Xdmcp", "xdmcp"}}},
        {8, 8, current_pairs()},
        {9, 10, current_pairs()},
    };
    return rows;
}

bool is_installed(const char* client) {
    return command_status(std::string("regsh contains root/ConnectionType/") + client) == 0;
}

const char* registry_name(const PairRow& row) {
    return row.installed != nullptr && is_installed(row.installed) ? row.installed : row.registry;
}

// The process-wide table; a build that throws is made again by the next lookup.
const ConnTypeMap& conn_type_map() {
    static ConnTypeMap map;
    static bool built = false;
    if (!built) {
        build_conn_type_map(map);
        built = true;
    }
    return map;
}

bool serves(const ConnTypeMapSlot& slot, std::uint32_t image_type) {
    return slot.lowest_type <= image_type && image_type <= slot.highest_type;
}

}  // namespace

void build_conn_type_map(ConnTypeMap& map) {
    for (ConnTypeMapSlot& slot : map) {
        slot.pairs.clear();
    }
    std::size_t index = 0;
    for (const SlotRow& row : slot_rows()) {
        ConnTypeMapSlot& slot = map[index++];
        slot.lowest_type = row.lowest_type;
        slot.highest_type = row.highest_type;
        for (const PairRow& pair : row.pairs) {
            slot.pairs.emplace_back(registry_name(pair), pair.display);
        }
    }
    // A device that does not know what it is has no names to translate.
    static_cast<void>(ImageID::current());
}

const std::list<std::pair<std::string, std::string>>& conn_type_pairs(std::uint32_t image_type) {
    static const std::list<std::pair<std::string, std::string>> none;
    for (const ConnTypeMapSlot& slot : conn_type_map()) {
        if (slot.pairs.empty()) {
            break;
        }
        if (serves(slot, image_type)) {
            return slot.pairs;
        }
    }
    return none;
}

std::string map_conn_type(const std::string& name, bool to_registry) {
    static_cast<void>(conn_type_map());
    for (const auto& [registry, display] : conn_type_pairs(current_image_type())) {
        if ((to_registry ? display : registry) == name) {
            return to_registry ? registry : display;
        }
    }
    return name;
}

std::string to_registry_type(const std::string& display_name) {
    return map_conn_type(display_name, true);
}

std::string to_display_type(const std::string& registry_name) {
    return map_conn_type(registry_name, false);
}
