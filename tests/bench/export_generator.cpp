#include "tests/bench/export_generator.h"

#include "common/tinyxml.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <span>
#include <utility>

namespace {

// Values are written as they stand in an export, so entities are in place. "#" in one stands for
// the number of the connection.
struct Key {
    std::string_view name;
    std::array<std::string_view, 3> values;
};

struct Directory {
    std::string_view name;
    std::span<const Key> keys;
};

constexpr std::string_view kLabelKey = "label";

constexpr Key kConnectionKeys[] = {
    {kLabelKey, {"Office #", "Lager &amp; Versand #", "Accounts &lt;floor #&gt;"}},
    {"autostart", {"0", "0", "1"}},
    {"hasDesktopIcon", {"1", "0", "1"}},
    {"server", {"ts#.example.net", "10.20.30.40", "terminal-#.branch.example.net"}},
    {"port", {"3389", "3390", "3389"}},
    {"program", {"", "C:\\Programme\\Lager\\lager.exe", "C:\\Program Files\\Ledger\\ledger.exe"}},
    {"workingFolder", {"", "C:\\Temp", "C:\\Users\\Public\\Documents"}},
    {"compression", {"1", "0", "1"}},
    {"encryption", {"1", "1", "1"}},
    {"consoleSession", {"0", "1", "0"}},
    {"clipboard", {"1", "0", "1"}},
    {"bitmapCache", {"1", "1", "0"}},
    {"menuGroup", {"Remote desktops", "Warehouse &amp; logistics", ""}},
    {"iconFile", {"desktop.png", "desktop.png", "ledger.png"}},
    {"description", {"Set up by the help desk", "Ask for &quot;Braun&quot; on extension #", ""}},
    {"networkWaitSeconds", {"45", "30", "120"}},
    {"retryCount", {"3", "5", "0"}},
    {"closeAction", {"logout", "restart", "menu"}},
    {"startOrder", {"10", "30", "#"}},
    {"commandBefore", {"", "/usr/bin/logger &apos;session # starts&apos;", ""}},
    {"commandAfter", {"", "/usr/bin/logger &quot;session over&quot; &amp;&amp; sync", ""}},
    {"allowChange", {"1", "1", "0"}},
    {"language", {"de_DE", "en_US", "fr_FR"}},
    {"logLevel", {"warning", "error", "debug"}},
    {"owner", {"administrator", "help desk", "administrator"}},
};
constexpr Key kAuthenticationKeys[] = {
    {"method", {"ask", "smartcard", "password"}}, {"user", {"m.braun", "", "user#@example.net"}},
    {"domain", {"", "EXAMPLE", "BRANCH"}},        {"rememberUser", {"0", "0", "1"}},
    {"passwordLifeDays", {"90", "0", "30"}},
};
constexpr Key kDisplayKeys[] = {
    {"size", {"full", "1920x1080", "1280x1024"}},
    {"colorDepth", {"16", "24", "32"}},
    {"allMonitors", {"0", "0", "1"}},
    {"smoothFonts", {"0", "1", "1"}},
    {"wallpaper", {"1", "0", "0"}},
};
constexpr Key kDeviceKeys[] = {
    {"printer", {"1", "0", "1"}},         {"serialPorts", {"", "", "COM1=/dev/ttyS0"}},
    {"storage", {"1", "read only", "0"}}, {"sound", {"remote", "local", "off"}},
    {"smartcard", {"1", "1", "0"}},
};
constexpr Directory kConnectionDirectories[] = {
    {"authentication", kAuthenticationKeys},
    {"display", kDisplayKeys},
    {"devices", kDeviceKeys},
};

constexpr Key kGeneralKeys[] = {
    {"allowNew", {"1", "1", "1"}},
    {"maximumConnections", {"20000", "20000", "20000"}},
    {"logFolder", {"/var/log/session", "/var/log/session", "/var/log/session"}},
};
constexpr Key kDefaultKeys[] = {
    {"windowMode", {"full screen", "full screen", "full screen"}},
    {kLabelKey, {"New connection", "New connection", "New connection"}},
    {"hasDesktopIcon", {"1", "1", "1"}},
};

// SplitMix64: a few lines that give the same numbers everywhere.
class Random {
public:
    explicit Random(std::uint64_t seed) : state_(seed) {}
    std::uint64_t Next() {
        std::uint64_t bits = state_ += 0x9e3779b97f4a7c15U;
        bits = (bits ^ (bits >> 30U)) * 0xbf58476d1ce4e5b9U;
        bits = (bits ^ (bits >> 27U)) * 0x94d049bb133111ebU;
        return bits ^ (bits >> 31U);
    }

private:
    std::uint64_t state_;
};

std::string make_identifier(Random& random) {
    const std::uint64_t high = random.Next();
    const std::uint64_t low = random.Next();
    std::array<char, 40> text{};
    static_cast<void>(std::snprintf(
        text.data(), text.size(), "%08x-%04x-5%03x-a%03x-%012llx",
        static_cast<unsigned int>(high >> 32U), static_cast<unsigned int>(high >> 16U & 0xffffU),
        static_cast<unsigned int>(high & 0xfffU), static_cast<unsigned int>(low >> 52U),
        static_cast<unsigned long long>(low & 0xffffffffffffU)));
    return text.data();
}

// Writes elements line by line, indented as the registry client does.
class Writer {
public:
    void Open(std::string_view element, std::string_view attributes = {}) {
        Line({"<", element, attributes, ">"});
        ++depth_;
    }
    void Close(std::string_view element) {
        --depth_;
        Line({"</", element, ">"});
    }
    void OpenDirectory(std::string_view name) {
        Line({"<NodeDir name=\"", name, "\">"});
        ++depth_;
    }
    void AddKey(std::string_view name, std::string_view value) {
        Line({"<NodeKey name=\"", name, "\">"});
        ++depth_;
        if (value.empty()) {
            Line({"<NodeParam type=\"string\" />"});
        } else {
            Line({"<NodeParam type=\"string\">", value, "</NodeParam>"});
        }
        Close("NodeKey");
    }
    void Line(std::initializer_list<std::string_view> parts) {
        text_.append(2 * depth_, ' ');
        for (const std::string_view part : parts) {
            text_ += part;
        }
        text_ += '\n';
    }

    [[nodiscard]] std::size_t Size() const { return text_.size(); }
    [[nodiscard]] std::string Take() && { return std::move(text_); }

private:
    std::string text_;
    std::size_t depth_ = 0;
};

void add_keys(Writer& out, std::span<const Key> keys, std::size_t number, Random& random) {
    const std::string digits = std::to_string(number);
    for (const Key& key : keys) {
        std::string value(key.values[random.Next() % key.values.size()]);
        if (const std::size_t mark = value.find('#'); mark != std::string::npos) {
            value.replace(mark, 1, digits);
        }
        out.AddKey(key.name, value);
    }
}

void add_directory(Writer& out, const Directory& directory, std::size_t number, Random& random) {
    out.OpenDirectory(directory.name);
    add_keys(out, directory.keys, number, random);
    out.Close("NodeDir");
}

// Connection `number` is the same in every export.
void add_connection(Writer& out, std::size_t number) {
    Random random(number);
    out.OpenDirectory(make_identifier(random));
    add_keys(out, kConnectionKeys, number, random);
    for (const Directory& directory : kConnectionDirectories) {
        add_directory(out, directory, number, random);
    }
    out.Close("NodeDir");
}

void begin_export(Writer& out, std::string_view type) {
    Random random(0);
    out.Line({"<?xml version=\"1.0\" encoding=\"UTF-8\"?>"});
    out.Open("Profile");
    out.Open("ProfileRegistry");
    const std::string name(type);
    out.Open("NodeDir", " name=\"" + name + "\" path=\"root/ConnectionType/" + name + "\"");
    out.AddKey("packageName", type);
    out.AddKey("enabled", "1");
    add_directory(out, {"general", kGeneralKeys}, 0, random);
    out.OpenDirectory("connections");
}

void end_export(Writer& out) {
    Random random(0);
    out.Close("NodeDir");
    add_directory(out, {"defaults", kDefaultKeys}, 0, random);
    out.Close("NodeDir");
    out.Close("ProfileRegistry");
    out.Open("ProfileSettings");
    out.Open("Target");
    out.Line({"<Config>standard</Config>"});
    out.Close("Target");
    out.Close("ProfileSettings");
    out.Close("Profile");
}

std::string make_export(std::string_view type, const auto& wants_more) {
    Writer out;
    begin_export(out, type);
    for (std::size_t number = 1; wants_more(number, out.Size()); ++number) {
        add_connection(out, number);
    }
    end_export(out);
    return std::move(out).Take();
}

std::string escape(std::string_view text) {
    std::string escaped;
    escaped.reserve(text.size() + text.size() / 2);
    for (const char character : text) {
        switch (character) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            case '\'':
                escaped += "&apos;";
                break;
            default:
                escaped += character;
        }
    }
    return escaped;
}

// The export from its root element on, as corvik prints it.
std::string printed(std::string_view export_text) {
    NTiXmlDoc document(std::string(export_text.substr(export_text.find("<Profile>"))), false);
    document.Parse(nullptr);
    return ToString(document);
}

}  // namespace

std::string export_of_connections(std::string_view type, std::size_t connections) {
    return make_export(type,
                       [=](std::size_t number, std::size_t) { return number <= connections; });
}

std::string export_of_bytes(std::string_view type, std::size_t bytes) {
    return make_export(type, [=](std::size_t, std::size_t size) { return size < bytes; });
}

std::string connections_file(std::string_view root, std::string_view export_text) {
    // Only the labels of the connections stand that deep.
    constexpr std::string_view before_label =
        "\n          <NodeKey name=\"label\">\n            <NodeParam type=\"string\">";
    const std::string name(root);
    std::string text = "<" + name + ">\n";
    std::size_t at = 0;
    while ((at = export_text.find(before_label, at)) != std::string_view::npos) {
        at += before_label.size();
        const std::string_view label = export_text.substr(at, export_text.find('<', at) - at);
        text.append("  <Connection Name=\"").append(label).append("\" Enabled=\"yes\"/>\n");
    }
    text += "  <General>" + escape(printed(export_text)) + "</General>\n</" + name + ">\n";
    return text;
}
