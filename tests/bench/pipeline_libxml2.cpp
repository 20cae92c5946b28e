#include "tests/bench/pipeline.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlsave.h>

#include <climits>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>

namespace {

constexpr int reading_options = XML_PARSE_HUGE | XML_PARSE_NOBLANKS;

struct FreeDocument {
    void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
};
using Document = std::unique_ptr<xmlDoc, FreeDocument>;

struct FreeText {
    void operator()(xmlChar* text) const { xmlFree(text); }
};
using Text = std::unique_ptr<xmlChar, FreeText>;

struct FreeBuffer {
    void operator()(xmlBuffer* buffer) const { xmlBufferFree(buffer); }
};
using Buffer = std::unique_ptr<xmlBuffer, FreeBuffer>;

const xmlChar* xml(const char* text) {
    return reinterpret_cast<const xmlChar*>(text);
}
const char* plain(const xmlChar* text) {
    return text == nullptr ? "" : reinterpret_cast<const char*>(text);
}

bool is_element(const xmlNode* node, const char* name) {
    return node->type == XML_ELEMENT_NODE && xmlStrEqual(node->name, xml(name)) != 0;
}

// This node or the first one behind it that is such an element, or null.
xmlNode* from(xmlNode* node, const char* name) {
    while (node != nullptr && !is_element(node, name)) {
        node = node->next;
    }
    return node;
}
xmlNode* child(const xmlNode* parent, const char* name) {
    return parent == nullptr ? nullptr : from(parent->children, name);
}

std::string attribute(const xmlNode* element, const char* name) {
    return plain(Text(xmlGetProp(element, xml(name))).get());
}

std::string label_of(const xmlNode* dir) {
    for (const xmlNode* key = child(dir, "NodeKey"); key != nullptr;
         key = from(key->next, "NodeKey")) {
        if (attribute(key, "name") == "label") {
            return plain(Text(xmlNodeGetContent(child(key, "NodeParam"))).get());
        }
    }
    return "New RDP";
}

xmlNode* connections_of(xmlDoc* document) {
    const xmlNode* type =
        child(child(xmlDocGetRootElement(document), "ProfileRegistry"), "NodeDir");
    xmlNode* dir = child(type, "NodeDir");
    while (dir != nullptr && attribute(dir, "name") != "connections") {
        dir = from(dir->next, "NodeDir");
    }
    return dir;
}

bool save(xmlDoc* document, const std::string& file) {
    xmlSaveCtxt* context =
        xmlSaveToFilename(file.c_str(), "UTF-8", XML_SAVE_FORMAT | XML_SAVE_NO_DECL);
    if (context == nullptr) {
        return false;
    }
    const bool saved = xmlSaveDoc(context, document) >= 0;
    return xmlSaveClose(context) >= 0 && saved;
}

class Libxml2Documents : public pipeline::Documents {
public:
    bool read_export(const std::string& file) override {
        exported_.reset(xmlReadFile(file.c_str(), nullptr, reading_options));
        return exported_ != nullptr;
    }

    bool write_connections(const std::string& root, const std::string& file) override {
        const Document document(xmlNewDoc(xml("1.0")));
        xmlNode* top = xmlNewDocNode(document.get(), nullptr, xml(root.c_str()), nullptr);
        xmlDocSetRootElement(document.get(), top);
        for (const xmlNode* dir = child(connections_of(exported_.get()), "NodeDir"); dir != nullptr;
             dir = from(dir->next, "NodeDir")) {
            xmlNode* connection = xmlNewChild(top, nullptr, xml("Connection"), nullptr);
            xmlNewProp(connection, xml("Name"), xml(label_of(dir).c_str()));
            xmlNewProp(connection, xml("Enabled"), xml("yes"));
        }
        const Buffer printed(xmlBufferCreate());
        if (xmlNodeDump(printed.get(), exported_.get(), xmlDocGetRootElement(exported_.get()), 0,
                        1) < 0) {
            return false;
        }
        xmlNewTextChild(top, nullptr, xml("General"), xmlBufferContent(printed.get()));
        return save(document.get(), file);
    }

    bool read_connections(const std::string& file) override {
        file_.reset(xmlReadFile(file.c_str(), nullptr, reading_options));
        return file_ != nullptr;
    }

    bool keep_enabled() override {
        const xmlNode* root = xmlDocGetRootElement(file_.get());
        pipeline::EnabledLabels enabled;
        for (const xmlNode* connection = child(root, "Connection"); connection != nullptr;
             connection = from(connection->next, "Connection")) {
            if (attribute(connection, "Enabled") == "yes") {
                enabled.add(attribute(connection, "Name"));
            }
        }
        const Text general(xmlNodeGetContent(child(root, "General")));
        const int length = xmlStrlen(general.get());
        import_.reset(
            xmlReadMemory(plain(general.get()), length, nullptr, nullptr, reading_options));
        if (import_ == nullptr) {
            return false;
        }
        xmlNode* dir = child(connections_of(import_.get()), "NodeDir");
        while (dir != nullptr) {
            xmlNode* next = from(dir->next, "NodeDir");
            if (!enabled.take(label_of(dir))) {
                xmlUnlinkNode(dir);
                xmlFreeNode(dir);
            }
            dir = next;
        }
        return true;
    }

    bool merge_export(const std::string& file) override {
        const Document current(xmlReadFile(file.c_str(), nullptr, reading_options));
        if (current == nullptr) {
            return false;
        }
        xmlNode* connections = connections_of(import_.get());
        std::unordered_set<std::string> known;
        for (const xmlNode* dir = child(connections, "NodeDir"); dir != nullptr;
             dir = from(dir->next, "NodeDir")) {
            known.insert(attribute(dir, "name"));
        }
        for (xmlNode* dir = child(connections_of(current.get()), "NodeDir"); dir != nullptr;
             dir = from(dir->next, "NodeDir")) {
            if (known.insert(attribute(dir, "name")).second) {
                xmlAddChild(connections, xmlDocCopyNode(dir, import_.get(), 1));
            }
        }
        return true;
    }

    bool write_import(const std::string& product_config, const std::string& file) override {
        xmlNode* config =
            child(child(child(xmlDocGetRootElement(import_.get()), "ProfileSettings"), "Target"),
                  "Config");
        const Text escaped(xmlEncodeSpecialChars(import_.get(), xml(product_config.c_str())));
        xmlNodeSetContent(config, escaped.get());
        return save(import_.get(), file);
    }

private:
    Document exported_;
    Document file_;
    Document import_;
};

}  // namespace

int main(int argc, char* argv[]) {
    LIBXML_TEST_VERSION
    Libxml2Documents documents;
    const int result = pipeline::main_of(argc, argv, documents);
    return result;
}
