#include "tests/fuzz/tree.h"

#include <string_view>

namespace {

void add(std::string& out, std::string_view text) {
    out += std::to_string(text.size()) + ":";
    out += text;
}

// Names need no entities and values get them, so the printed attributes tell all of them apart.
std::string printed_attributes(const NTiXmlNode& node) {
    NTiXmlElement bearer;
    node.CopyAttributesTo(&bearer);
    return ToString(bearer);
}

void describe_node(const NTiXmlNode& node, std::string& out) {
    out += std::to_string(static_cast<int>(node.Type()));
    add(out, node.TextView());
    add(out, printed_attributes(node));
    if (node.Type() == NTiXmlNodeType::kDeclaration) {
        const auto& declaration = static_cast<const NTiXmlDeclaration&>(node);
        add(out, declaration.Encoding());
        add(out, declaration.Standalone());
    } else if (node.Type() == NTiXmlNodeType::kElement) {
        const auto& element = static_cast<const NTiXmlElement&>(node);
        add(out, element.NameView());
        out += '(';
        for (const NTiXmlNode* child : element.Children()) {
            describe_node(*child, out);
        }
        out += ')';
    }
}

bool is_without(std::string_view text, std::string_view characters) {
    return text.find_first_of(characters) == std::string_view::npos;
}

bool node_prints_exactly(const NTiXmlNode& node);

bool element_prints_exactly(const NTiXmlElement& element) {
    if (!element.Children().empty() && !element.TextView().empty()) {
        return false;
    }
    for (const NTiXmlNode* child : element.Children()) {
        if (!node_prints_exactly(*child)) {
            return false;
        }
    }
    return true;
}

bool declaration_prints_exactly(const NTiXmlDeclaration& declaration) {
    return is_without(declaration.Version(), "&<>\"") &&
           is_without(declaration.Encoding(), "&<>\"") &&
           is_without(declaration.Standalone(), "&<>\"");
}

bool node_prints_exactly(const NTiXmlNode& node) {
    switch (node.Type()) {
        case NTiXmlNodeType::kElement:
            return element_prints_exactly(static_cast<const NTiXmlElement&>(node));
        case NTiXmlNodeType::kDeclaration:
            return declaration_prints_exactly(static_cast<const NTiXmlDeclaration&>(node));
        case NTiXmlNodeType::kComment:
            return is_without(node.TextView(), "&<>");
        default:
            return is_without(node.TextView(), "&>");
    }
}

}  // namespace

std::string describe(const NTiXmlDoc& document) {
    std::string out;
    for (const NTiXmlNode* node : document.Children()) {
        describe_node(*node, out);
    }
    return out;
}

bool prints_exactly(const NTiXmlDoc& document) {
    for (const NTiXmlNode* node : document.Children()) {
        if (!node_prints_exactly(*node)) {
            return false;
        }
    }
    return true;
}

bool parses(NTiXmlDoc& document, const std::string& text) {
    try {
        document.ParseBorrowed(text);
    } catch (const NTiXmlException&) {
        return false;
    }
    return true;
}
