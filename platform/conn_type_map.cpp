#include "platform/conn_type_map.h"

#include "platform/command_runner.h"
#include "platform/image_id.h"
#include "platform/system_identity.h"

#include <span>
#include <tuple>

namespace {

// One pair. With a name in `otherwise` it depends on what is installed: `registry` is used when the
// registry has a connection type of that name.
struct PairRow {
    const char* display;
    const char* registry;
    const char* otherwise = nullptr;
};

struct SlotRow {
    std::uint32_t lowest_type;
    std::uint32_t highest_type;
    std::span<const PairRow> pairs;
};

constexpr std::array kPairsOf1 = {
    PairRow{"Custom", "custom"},   PairRow{"ICA", "ica"},
    PairRow{"Firefox", "firefox"}, PairRow{"Leostream", "leostream"},
    PairRow{"PNAgent", "pnagent"}, PairRow{"Provision", "provision"},
    PairRow{"RDP", "rdesktop"},    PairRow{"SSH", "ssh"},
    PairRow{"Tavrin", "tavrin"},   PairRow{"Telnet", "telnet"},
    PairRow{"VDM", "vdm"},         PairRow{"Xdmcp", "xdmcp"},
};

constexpr std::array kPairsOf3To4 = {
    PairRow{"Custom", "custom"},     PairRow{"ICA", "ica"},
    PairRow{"Firefox", "iceweasel"}, PairRow{"Leostream", "leostream"},
    PairRow{"PNAgent", "pnagent"},   PairRow{"Provision", "provision"},
    PairRow{"RDP", "rdesktop"},      PairRow{"RGS", "rgs"},
    PairRow{"BNJ", "bnj-client"},    PairRow{"SSH", "ssh"},
    PairRow{"Tavrin", "tavrin"},     PairRow{"Telnet", "telnet"},
    PairRow{"VDM", "vdm"},           PairRow{"Xdmcp", "xdmcp"},
};

constexpr std::array kPairsOf5 = {
    PairRow{"Custom", "custom"},
    PairRow{"ICA", "ica"},
    PairRow{"Firefox", "iceweasel"},
    PairRow{"Leostream", "leostream"},
    PairRow{"PNAgent", "pnagent"},
    PairRow{"RDP", "rdesktop"},
    PairRow{"RGS", "rgs"},
    PairRow{"BNJ", "bnj-client"},
    PairRow{"SSH", "ssh"},
    PairRow{"Tavrin", "tavrin"},
    PairRow{"Telnet", "telnet"},
    PairRow{"VDM", "view"},
    PairRow{"VWorkspace", "vworkspace"},
    PairRow{"Xdmcp", "xdmcp"},
};

constexpr std::array kPairsOf6 = {
    PairRow{"VDM", "view"},
    PairRow{"RDP", "freerdp", "rdesktop"},
    PairRow{"ICA", "xen"},
};

constexpr std::array kPairsOf7 = {
    PairRow{"Custom", "custom"},
    PairRow{"ICA", "xen", "ica"},
    PairRow{"Firefox", "iceweasel", "firefox"},
    PairRow{"Leostream", "leostream"},
    PairRow{"PNAgent", "pnagent"},
    PairRow{"RDP", "freerdp", "rdesktop"},
    PairRow{"RGS", "rgs"},
    PairRow{"BNJ", "bnj-client"},
    PairRow{"SSH", "ssh"},
    PairRow{"Tavrin", "tavrin"},
    PairRow{"Telnet", "telnet"},
    PairRow{"VDM", "view"},
    PairRow{"VWorkspace", "vworkspace"},
    PairRow{"Xdmcp", "xdmcp"},
};

constexpr std::array kPairsOf8To10 = {
    PairRow{"Custom", "custom"}, PairRow{"ICA", "xen"},  PairRow{"Firefox", "firefox"},
    PairRow{"RDP", "freerdp"},   PairRow{"SSH", "ssh"},  PairRow{"Tavrin", "tavrin"},
    PairRow{"Telnet", "telnet"}, PairRow{"VDM", "view"}, PairRow{"Xdmcp", "xdmcp"},
};

constexpr std::array kSlots = {
    SlotRow{1, 1, kPairsOf1},      SlotRow{3, 4, kPairsOf3To4}, SlotRow{5, 5, kPairsOf5},
    SlotRow{6, 6, kPairsOf6},      SlotRow{7, 7, kPairsOf7},    SlotRow{8, 8, kPairsOf8To10},
    SlotRow{9, 10, kPairsOf8To10},
};
// The search ends at a slot without pairs.
static_assert(kSlots.size() < std::tuple_size_v<ConnTypeMap>);

bool is_registered(const char* registry_name) {
    return command_status("regsh contains root/ConnectionType/" + std::string(registry_name)) == 0;
}

const char* registry_name_of(const PairRow& row) {
    const bool wanted = row.otherwise == nullptr || is_registered(row.registry);
    return wanted ? row.registry : row.otherwise;
}

// The process-wide table. When building throws, it counts as not built.
const ConnTypeMap& built_map() {
    static struct {
        ConnTypeMap map;
        bool built = false;
    } table;
    if (!table.built) {
        build_conn_type_map(table.map);
        table.built = true;
    }
    return table.map;
}

}  // namespace

std::string to_registry_type(const std::string& display_name) {
    return map_conn_type(display_name, true);
}

std::string to_display_type(const std::string& registry_name) {
    return map_conn_type(registry_name, false);
}

std::string map_conn_type(const std::string& name, bool to_registry) {
    built_map();
    for (const auto& [registry, display] : conn_type_pairs(current_image_type())) {
        if (name == (to_registry ? display : registry)) {
            return to_registry ? registry : display;
        }
    }
    return name;
}

void build_conn_type_map(ConnTypeMap& map) {
    for (ConnTypeMapSlot& slot : map) {
        slot.pairs.clear();
    }
    for (std::size_t index = 0; index < kSlots.size(); ++index) {
        const SlotRow& row = kSlots[index];
        ConnTypeMapSlot& slot = map[index];
        slot.lowest_type = row.lowest_type;
        slot.highest_type = row.highest_type;
        for (const PairRow& pair : row.pairs) {
            slot.pairs.emplace_back(registry_name_of(pair), pair.display);
        }
    }
    // Asked only so that a device without an identity is refused.
    static_cast<void>(ImageID::current());
}

const std::list<std::pair<std::string, std::string>>& conn_type_pairs(std::uint32_t image_type) {
    static const std::list<std::pair<std::string, std::string>> none;
    for (const auto* slot = built_map().data(); !slot->pairs.empty(); ++slot) {
        if (image_type >= slot->lowest_type && image_type <= slot->highest_type) {
            return slot->pairs;
        }
    }
    return none;
}
