#include "tests/fuzz/road.h"

#include "common/result_codes.h"
#include "common/string_tokens.h"
#include "connections/conn.h"
#include "platform/image_id.h"
#include "tests/fuzz/fuzz_input.h"

#include <cctype>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <string_view>

RoadInput::RoadInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> texts = cut_input(data, size, 9);
    for (const char c : texts[0].substr(0, 20)) {
        if (std::isalpha(static_cast<unsigned char>(c)) != 0) {
            type += c;
        }
    }
    remove = type.size() != texts[0].size();
    type = type.empty() ? "RDP" : type;
    std::string* const rest[] = {&system_info, &image_id, &default_connection, &listing, &session,
                                 &registry,    &file};
    for (std::size_t i = 0; i < std::size(rest); ++i) {
        *rest[i] = std::move(texts[i + 1]);
    }
    if (!texts[8].empty()) {
        const std::string general = escape_xml_text(texts[8].c_str(), false);
        file = "<T>" + file + "<General>" + general + "</General></T>";
    }
}

void RoadInput::Fill(FakeDevice& filled) const {
    filled.files["/etc/systeminfo"] = system_info;
    filled.files["/etc/imageid"] = image_id;
    filled.default_connection = default_connection;
    filled.listing = listing;
    filled.session = session;
    filled.registry = registry;
}

int run_handler(const RoadInput& input, int (*handler)(const RoadInput& input)) {
    try {
        return handler(input);
    } catch (const ImageIDException&) {
        expect(!ImageID::from_systeminfo().valid() && strnlen(input.image_id.c_str(), 8) < 8,
               "an identity that is there is not found");
    } catch (const std::out_of_range& error) {
        // A NUL hides what is behind it.
        const bool may_lack_markup = input.registry.find('<') == std::string::npos ||
                                     input.registry.find('\0') != std::string::npos;
        expect(may_lack_markup && std::string_view(error.what()).find("the registry export ") == 0,
               "out of range with a usable export");
    }
    return kEndedByException;
}

bool is_export_result(int result) {
    return result == kSuccess || result == kDocumentUnusable || result == kEndedByException;
}

bool is_import_result(int result) {
    return is_export_result(result) || result == kConnectionsFileUnusable ||
           result == kNoConnections;
}

bool has_room(const NTiXmlDoc& document) {
    const NTiXmlElement* root = document.RootElement();
    const NTiXmlElement* conns = root == nullptr ? nullptr : get_ele_conns(root);
    if (conns == nullptr || !conns->TextView().empty()) {
        return false;
    }
    const NTiXmlElement* config = root;
    for (const char* level : {"ProfileSettings", "Target", "Config"}) {
        config = config == nullptr ? nullptr : config->ChildElement(level, 0);
    }
    return config == nullptr || config->Children().empty();
}
