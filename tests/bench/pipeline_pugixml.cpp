#include "tests/bench/pipeline.h"

#include <pugixml.hpp>

#include <string>
#include <string_view>
#include <unordered_set>

namespace {

constexpr const char* indent = "  ";

struct StringWriter : pugi::xml_writer {
    std::string text;
    void write(const void* data, std::size_t size) override {
        text.append(static_cast<const char*>(data), size);
    }
};

std::string label_of(const pugi::xml_node& dir) {
    for (const pugi::xml_node& key : dir.children("NodeKey")) {
        if (std::string_view(key.attribute("name").value()) == "label") {
            return key.child_value("NodeParam");
        }
    }
    return "New RDP";
}

pugi::xml_node connections_of(const pugi::xml_document& document) {
    const pugi::xml_node type =
        document.document_element().child("ProfileRegistry").child("NodeDir");
    return type.find_child_by_attribute("NodeDir", "name", "connections");
}

class PugixmlDocuments : public pipeline::Documents {
public:
    bool read_export(const std::string& file) override {
        return static_cast<bool>(exported_.load_file(file.c_str()));
    }

    bool write_connections(const std::string& root, const std::string& file) override {
        pugi::xml_document document;
        pugi::xml_node top = document.append_child(root.c_str());
        for (const pugi::xml_node& dir : connections_of(exported_).children("NodeDir")) {
            pugi::xml_node connection = top.append_child("Connection");
            connection.append_attribute("Name").set_value(label_of(dir).c_str());
            connection.append_attribute("Enabled").set_value("yes");
        }
        StringWriter printed;
        exported_.document_element().print(printed, indent);
        top.append_child("General").text().set(printed.text.c_str());
        return document.save_file(file.c_str(), indent,
                                  pugi::format_indent | pugi::format_no_declaration);
    }

    bool read_connections(const std::string& file) override {
        return static_cast<bool>(file_.load_file(file.c_str()));
    }

    bool keep_enabled() override {
        const pugi::xml_node root = file_.document_element();
        pipeline::EnabledLabels enabled;
        for (const pugi::xml_node& connection : root.children("Connection")) {
            if (std::string_view(connection.attribute("Enabled").value()) == "yes") {
                enabled.add(connection.attribute("Name").value());
            }
        }
        if (!import_.load_string(root.child_value("General"))) {
            return false;
        }
        pugi::xml_node connections = connections_of(import_);
        pugi::xml_node dir = connections.child("NodeDir");
        while (dir) {
            const pugi::xml_node next = dir.next_sibling("NodeDir");
            if (!enabled.take(label_of(dir))) {
                connections.remove_child(dir);
            }
            dir = next;
        }
        return true;
    }

    bool merge_export(const std::string& file) override {
        pugi::xml_document current;
        if (!current.load_file(file.c_str())) {
            return false;
        }
        pugi::xml_node connections = connections_of(import_);
        std::unordered_set<std::string_view> known;
        for (const pugi::xml_node& dir : connections.children("NodeDir")) {
            known.insert(dir.attribute("name").value());
        }
        for (const pugi::xml_node& dir : connections_of(current).children("NodeDir")) {
            if (known.insert(dir.attribute("name").value()).second) {
                connections.append_copy(dir);
            }
        }
        return true;
    }

    bool write_import(const std::string& product_config, const std::string& file) override {
        pugi::xml_node config =
            import_.document_element().child("ProfileSettings").child("Target").child("Config");
        config.text().set(product_config.c_str());
        return import_.save_file(file.c_str(), indent,
                                 pugi::format_indent | pugi::format_no_declaration);
    }

private:
    pugi::xml_document exported_;
    pugi::xml_document file_;
    pugi::xml_document import_;
};

}  // namespace

int main(int argc, char* argv[]) {
    PugixmlDocuments documents;
    return pipeline::main_of(argc, argv, documents);
}
