#include "tools/regsh/document.h"

#include <pugixml.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <memory>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

namespace regsh {

namespace {

// Attribute values and text are data: no line end is normalised, no blank removed or condensed.
constexpr unsigned int reading_flags =
    pugi::parse_cdata | pugi::parse_escapes | pugi::parse_ws_pcdata_single;

struct CloseFile {
    void operator()(std::FILE* stream) const { static_cast<void>(std::fclose(stream)); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

[[noreturn]] void refuse_file(const char* what, const std::string& file, int error_number) {
    throw RegistryError(std::string(what) + file + ": " +
                        std::generic_category().message(error_number));
}

std::string read_file(const std::string& file) {
    const File stream(std::fopen(file.c_str(), "rb"));
    if (stream == nullptr) {
        refuse_file("cannot read ", file, errno);
    }
    std::string text;
    std::array<char, 65536> block{};
    std::size_t length = 0;
    while ((length = std::fread(block.data(), 1, block.size(), stream.get())) > 0) {
        text.append(block.data(), length);
    }
    if (std::ferror(stream.get()) != 0) {
        refuse_file("cannot read ", file, errno);
    }
    return text;
}

// A parsed document together with its text, which gives the spot of each complaint.
class SourceDocument {
public:
    explicit SourceDocument(const std::string& file) : file_(file), text_(read_file(file)) {
        const pugi::xml_parse_result result =
            document_.load_buffer(text_.data(), text_.size(), reading_flags, pugi::encoding_utf8);
        if (!result) {
            refuse_at(result.offset, result.description());
        }
    }

    [[nodiscard]] pugi::xml_node root() const { return document_.document_element(); }

    [[noreturn]] void refuse(const pugi::xml_node& node, const std::string& why) const {
        refuse_at(node.offset_debug(), why);
    }

private:
    [[noreturn]] void refuse_at(std::ptrdiff_t offset, const std::string& why) const {
        const auto length = static_cast<std::ptrdiff_t>(text_.size());
        const auto spot = text_.begin() + std::clamp<std::ptrdiff_t>(offset, 0, length);
        const auto line = 1 + std::count(text_.begin(), spot, '\n');
        const auto line_start = std::find(std::make_reverse_iterator(spot), text_.rend(), '\n');
        const auto column = 1 + std::distance(line_start.base(), spot);
        throw RegistryError(file_ + ":" + std::to_string(line) + ":" + std::to_string(column) +
                            ": " + why);
    }

    std::string file_;
    std::string text_;
    pugi::xml_document document_;
};

std::string text_of(const pugi::xml_node& element) {
    std::string text;
    for (const pugi::xml_node& part : element.children()) {
        if (part.type() == pugi::node_pcdata || part.type() == pugi::node_cdata) {
            text += part.value();
        }
    }
    return text;
}

std::string name_of(const SourceDocument& source, const pugi::xml_node& element) {
    const pugi::xml_attribute name = element.attribute("name");
    if (!name) {
        source.refuse(element, std::string(element.name()) + " without a name");
    }
    const std::string_view defect = name_defect(name.value());
    if (!defect.empty()) {
        source.refuse(element,
                      std::string(element.name()) + " with a bad name: " + std::string(defect));
    }
    return name.value();
}

Node read_key(const SourceDocument& source, const pugi::xml_node& element) {
    Node key{Kind::key, name_of(source, element), text_of(element.child("NodeParam")), {}};
    if (has_forbidden_character(key.value)) {
        source.refuse(element, "the value of " + key.name +
                                   " holds a control character that an export cannot carry");
    }
    return key;
}

// Adds the entries in the element; levels is how many more of them fit above the deepest place.
void read_entries(const SourceDocument& source, const pugi::xml_node& element, std::size_t levels,
                  Node& directory) {
    for (const pugi::xml_node& child : element.children()) {
        const std::string_view kind = child.name();
        if (kind != "NodeDir" && kind != "NodeKey") {
            continue;
        }
        if (levels == 0) {
            source.refuse(child, "more than " + std::to_string(maximum_depth) + " levels");
        }
        if (kind == "NodeKey") {
            directory.children.push_back(read_key(source, child));
            continue;
        }
        Node& added = directory.children.emplace_back();
        added.name = name_of(source, child);
        read_entries(source, child, levels - 1, added);
    }
}

PlacedDirectory read_placed(const SourceDocument& source, const pugi::xml_node& element) {
    const pugi::xml_attribute path = element.attribute("path");
    if (!path) {
        source.refuse(element, "NodeDir without a path: its place in the registry is not known");
    }
    PlacedDirectory placed;
    try {
        placed.place = parse_path(path.value());
    } catch (const UsageError& error) {
        source.refuse(element, error.what());
    }
    read_entries(source, element, maximum_depth - placed.place.size(), placed.directory);
    return placed;
}

// The five characters that every XML reader knows by name. Numeric references are left out on
// purpose, for the consumer of the exports does not decode them, and for its sake ">" is never
// bare.
constexpr std::array<std::pair<char, std::string_view>, 5> entities{
    {{'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}, {'\'', "&apos;"}}};

std::string escape(std::string_view text) {
    std::string escaped;
    for (const char character : text) {
        const auto* const row =
            std::find_if(entities.begin(), entities.end(),
                         [character](const auto& entity) { return entity.first == character; });
        if (row == entities.end()) {
            escaped += character;
        } else {
            escaped += row->second;
        }
    }
    return escaped;
}

pugi::xml_node append_text(pugi::xml_node parent, const char* name, std::string_view text) {
    pugi::xml_node element = parent.append_child(name);
    if (!text.empty()) {
        element.append_child(pugi::node_pcdata).set_value(escape(text).c_str());
    }
    return element;
}

void append_name(pugi::xml_node element, std::string_view name) {
    element.append_attribute("name").set_value(escape(name).c_str());
}

// The depth of the recursion is that of the registry, which is bounded.
void append_entries(pugi::xml_node parent, const Node& directory) {
    for (const Node& child : directory.children) {
        const bool is_key = child.kind == Kind::key;
        pugi::xml_node element = parent.append_child(is_key ? "NodeKey" : "NodeDir");
        append_name(element, child.name);
        if (is_key) {
            append_text(element, "NodeParam", child.value)
                .append_attribute("type")
                .set_value("string");
        } else {
            append_entries(element, child);
        }
    }
}

std::string print(const pugi::xml_document& document) {
    std::ostringstream text;
    document.save(text, "  ", pugi::format_indent | pugi::format_no_escapes, pugi::encoding_utf8);
    return text.str();
}

// False with errno set when anything did not reach the file.
bool write_file(const std::string& file, const std::string& text) {
    File stream(std::fopen(file.c_str(), "wb"));
    if (stream == nullptr) {
        return false;
    }
    const bool written = std::fwrite(text.data(), 1, text.size(), stream.get()) == text.size();
    return std::fclose(stream.release()) == 0 && written;
}

}  // namespace

std::vector<PlacedDirectory> read_export(const std::string& file) {
    const SourceDocument source(file);
    const pugi::xml_node registry = source.root().child("ProfileRegistry");
    if (!registry) {
        source.refuse(source.root(), "no ProfileRegistry in the root element");
    }
    std::vector<PlacedDirectory> content;
    for (const pugi::xml_node& element : registry.children("NodeDir")) {
        content.push_back(read_placed(source, element));
    }
    if (content.empty()) {
        source.refuse(registry, "no NodeDir in ProfileRegistry");
    }
    return content;
}

PlacedDirectory read_registry(const std::string& file) {
    const SourceDocument source(file);
    const pugi::xml_node root = source.root();
    if (std::string_view(root.name()) != "NodeDir" ||
        std::string_view(root.attribute("name").value()) != "root") {
        source.refuse(root, "the root element is not the NodeDir \"root\"");
    }
    PlacedDirectory content;
    read_entries(source, root, maximum_depth, content.directory);
    return content;
}

void write_export(const std::string& file, const PlacedDirectory& content,
                  const std::string& product_config) {
    pugi::xml_document document;
    pugi::xml_node declaration = document.append_child(pugi::node_declaration);
    declaration.append_attribute("version").set_value("1.0");
    declaration.append_attribute("encoding").set_value("UTF-8");
    pugi::xml_node profile = document.append_child("Profile");
    pugi::xml_node directory = profile.append_child("ProfileRegistry").append_child("NodeDir");
    append_name(directory, content.directory.name);
    directory.append_attribute("path").set_value(escape(to_text(content.place)).c_str());
    append_entries(directory, content.directory);
    pugi::xml_node target = profile.append_child("ProfileSettings").append_child("Target");
    append_text(target, "Config", product_config);

    if (!write_file(file, print(document))) {
        const int error_number = errno;
        std::error_code error;
        if (std::filesystem::is_regular_file(file, error)) {
            std::filesystem::remove(file, error);
        }
        refuse_file("cannot write ", file, error_number);
    }
}

}  // namespace regsh
