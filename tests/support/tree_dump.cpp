// Tells what the XML tree makes of documents, for comparison with other parsers. Documents come on
// standard input, each with a NUL behind it. The answer to each is a line with a number of bytes,
// then as many bytes: words with a NUL behind each. A kind comes first, then what belongs to it:
//
//   element NAME, then its "attribute NAME VALUE", its nodes, its "text VALUE" (if any), "end"
//   comment VALUE
//   declaration VERSION ENCODING STANDALONE
//   extra VALUE
//   printed TEXT        at the end: the document as the tree prints it
//   refused MESSAGE     alone, instead of all that

#include "common/tinyxml.h"

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

namespace {

// What a tree's own parts see of a node's attributes.
class AttributesOf : public NTiXmlNode {
public:
    static const NTiXmlAttributeList& Node(const NTiXmlNode& node) {
        return (node.*(&AttributesOf::Attributes))();
    }
};

void put(std::string& out, std::initializer_list<std::string_view> words) {
    for (const std::string_view word : words) {
        out += word;
        out += '\0';
    }
}

void put_start(std::string& out, const NTiXmlElement& element) {
    put(out, {"element", element.NameView()});
    for (const NTiXmlAttribute* attribute : AttributesOf::Node(element)) {
        put(out, {"attribute", attribute->Name(), attribute->Value()});
    }
}

void put_end(std::string& out, const NTiXmlElement& element) {
    if (!element.TextView().empty()) {
        put(out, {"text", element.TextView()});
    }
    put(out, {"end"});
}

void put_other(std::string& out, const NTiXmlNode& node) {
    if (node.Type() == NTiXmlNodeType::kDeclaration) {
        const auto& declaration = static_cast<const NTiXmlDeclaration&>(node);
        put(out, {"declaration", declaration.Version(), declaration.Encoding(),
                  declaration.Standalone()});
    } else {
        put(out, {node.Type() == NTiXmlNodeType::kComment ? "comment" : "extra", node.TextView()});
    }
}

// Without recursion, so that any depth can be told.
void put_nodes(std::string& out, const NTiXmlNodeList& nodes) {
    struct Open {
        const NTiXmlElement* element;  // null for the document
        NTiXmlNodeList::Iterator at;
        NTiXmlNodeList::Iterator end;
    };
    std::vector<Open> open = {{nullptr, nodes.begin(), nodes.end()}};
    while (!open.empty()) {
        Open& top = open.back();
        if (top.at == top.end) {
            if (top.element != nullptr) {
                put_end(out, *top.element);
            }
            open.pop_back();
            continue;
        }
        const NTiXmlNode& node = **top.at;
        ++top.at;
        if (node.Type() != NTiXmlNodeType::kElement) {
            put_other(out, node);
            continue;
        }
        const auto& element = static_cast<const NTiXmlElement&>(node);
        put_start(out, element);
        open.push_back({&element, element.Children().begin(), element.Children().end()});
    }
}

std::string told(const std::string& text) {
    std::string out;
    try {
        NTiXmlDoc document(text, false);
        document.Parse(nullptr);
        put_nodes(out, document.Children());
        put(out, {"printed", ToString(document)});
    } catch (const NTiXmlException& failure) {
        out.clear();
        put(out, {"refused", failure.Message()});
    }
    return out;
}

}  // namespace

int main() {
    std::string text;
    while (std::getline(std::cin, text, '\0')) {
        const std::string answer = told(text);
        std::printf("%zu\n", answer.size());
        std::fwrite(answer.data(), 1, answer.size(), stdout);
        if (std::fflush(stdout) != 0) {
            return EXIT_FAILURE;
        }
    }
    return EXIT_SUCCESS;
}
