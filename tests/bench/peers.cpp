#include "tests/bench/peers.h"

#include "common/tinyxml.h"

#include <pugixml.hpp>

#include <expat.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace {

int checked_int(std::size_t size) {
    if (!std::in_range<int>(size)) {
        throw std::runtime_error("the text is too long for the library");
    }
    return static_cast<int>(size);
}

class CorvikPeer : public XmlPeer {
public:
    void Parse(std::string_view text) override {
        document_.emplace(std::string(text), false);
        try {
            document_->Parse(nullptr);
        } catch (const std::exception&) {
            throw std::runtime_error("corvik refuses the text");
        }
    }
    std::size_t Print() override {
        document_->Print(printed_, 0);
        return printed_.TextSize();
    }

private:
    std::optional<NTiXmlDoc> document_;
    NTiXmlOutBuffer printed_;
};

class PugixmlPeer : public XmlPeer {
public:
    void Parse(std::string_view text) override {
        if (!document_.load_buffer(text.data(), text.size())) {
            throw std::runtime_error("pugixml refuses the text");
        }
    }
    std::size_t Print() override {
        StringWriter writer(printed_);
        document_.save(writer, "  ");
        return printed_.size();
    }

private:
    class StringWriter : public pugi::xml_writer {
    public:
        explicit StringWriter(std::string& text) : text_(text) {}
        void write(const void* data, std::size_t size) override {
            text_.append(static_cast<const char*>(data), size);
        }

    private:
        std::string& text_;
    };

    pugi::xml_document document_;
    std::string printed_;
};

// Without flags libxml2 keeps the white space between elements as nodes, which corvik and pugixml
// do not; with XML_PARSE_NOBLANKS all three keep the same.
template <int flags>
class Libxml2Peer : public XmlPeer {
public:
    void Parse(std::string_view text) override {
        document_.reset(
            xmlReadMemory(text.data(), checked_int(text.size()), "export.xml", nullptr, flags));
        if (document_ == nullptr) {
            throw std::runtime_error("libxml2 refuses the text");
        }
    }
    std::size_t Print() override {
        xmlChar* text = nullptr;
        int size = 0;
        xmlDocDumpFormatMemory(document_.get(), &text, &size, 1);
        printed_.reset(text);
        return static_cast<std::size_t>(size);
    }

private:
    struct FreeDocument {
        void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
    };
    struct FreeText {
        void operator()(xmlChar* text) const { xmlFree(text); }
    };
    std::unique_ptr<xmlDoc, FreeDocument> document_;
    std::unique_ptr<xmlChar, FreeText> printed_;
};

// Only reads: what the fastest way through the text without a tree would cost.
class ExpatPeer : public XmlPeer {
public:
    void Parse(std::string_view text) override {
        parser_.reset(XML_ParserCreate(nullptr));
        XML_SetElementHandler(
            parser_.get(), [](void*, const XML_Char*, const XML_Char**) {},
            [](void*, const XML_Char*) {});
        XML_SetCharacterDataHandler(parser_.get(), [](void*, const XML_Char*, int) {});
        if (XML_Parse(parser_.get(), text.data(), checked_int(text.size()), XML_TRUE) !=
            XML_STATUS_OK) {
            throw std::runtime_error("expat refuses the text");
        }
    }
    std::size_t Print() override { return 0; }

private:
    struct FreeParser {
        void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
    };
    std::unique_ptr<std::remove_pointer_t<XML_Parser>, FreeParser> parser_;
};

template <class Peer>
std::unique_ptr<XmlPeer> make() {
    return std::make_unique<Peer>();
}

constexpr XmlPeerRow kPeers[] = {
    {"corvik", true, make<CorvikPeer>},
    {"pugixml", true, make<PugixmlPeer>},
    {"libxml2", true, make<Libxml2Peer<XML_PARSE_HUGE>>},
    {"libxml2-noblanks", true, make<Libxml2Peer<XML_PARSE_HUGE | XML_PARSE_NOBLANKS>>},
    {"expat", false, make<ExpatPeer>},
};

}  // namespace

std::span<const XmlPeerRow> xml_peers() {
    return kPeers;
}

std::vector<std::pair<std::string, std::string>> peer_versions() {
    constexpr int pugixml = PUGIXML_VERSION;  // 1130 is 1.13
#if defined(__clang__)
    const std::string compiler = "clang++ ";
#else
    const std::string compiler = "g++ ";
#endif
    return {{"compiler", compiler + __VERSION__},
            {"pugixml", std::to_string(pugixml / 1000) + "." + std::to_string(pugixml % 1000 / 10)},
            {"libxml2", LIBXML_DOTTED_VERSION},
            {"expat", std::to_string(XML_MAJOR_VERSION) + "." + std::to_string(XML_MINOR_VERSION) +
                          "." + std::to_string(XML_MICRO_VERSION)}};
}
