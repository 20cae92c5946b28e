#include "connections/conn.h"

#include "common/argument_check.h"
#include "common/filefuncs.h"
#include "common/result_codes.h"
#include "common/run_options.h"
#include "platform/command_runner.h"
#include "platform/conn_type_map.h"
#include "platform/system_identity.h"

#include <array>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

namespace {

constexpr const char* kUnit = "conn";

constexpr const char* kConnTypePath = "root/ConnectionType/";
constexpr const char* kSessionFolder = "/etc/tavrin/connections/";
constexpr const char* kTerminalType = "tavrin";  // registry type of the terminal emulator
constexpr const char* kGetDefaultConnection = "regsh get root/ConnectionManager/defaultConnection";

constexpr unsigned kNewerLayoutType = 6;  // the image type with the newer registry layout

// The commands of the export keep one character less than other formatted commands.
constexpr std::size_t kExportCommandLimit = 1022;

void tell(const char* message) {
    std::fputs(message, stderr);
}

// The file that the registry client exports a type into.
std::string export_file(const std::string& type) {
    return "/tmp/" + type + ".xml";
}

bool attribute_equals(const NTiXmlElement& element, const char* name, const std::string& wanted) {
    const std::string* value = element.AttributeValue(name);
    return value != nullptr && *value == wanted;
}

// The value of a registry key element: the text of its first NodeParam; empty without one.
std::string key_value(const NTiXmlElement& key) {
    const NTiXmlElement* param = key.ChildElement("NodeParam", 0);
    return param == nullptr ? std::string() : param->Text();
}

}  // namespace

// What export and import share.

bool query_registry_value(const std::string& command, std::string& result) {
    std::string line;
    if (!read_first_line(command, line)) {
        return false;
    }
    constexpr std::size_t size = 1024;
    std::array<char, size> key{};
    std::array<char, size> value{};
    // The line is shorter than either word's room.
    static_cast<void>(std::sscanf(line.c_str(), "%1023s %1023s", key.data(), value.data()));
    result = value.data();
    return true;
}

std::string read_xml_file_string(const std::string& file) {
    std::string content;
    if (!readfile(file.c_str(), content)) {
        std::fprintf(stderr, "read file %s fail\n", file.c_str());
        return "";
    }
    NTiXmlDoc document(std::move(content), false);
    try {
        document.Parse(nullptr);
    } catch (const std::exception&) {
        tell("Parse xml failed.\n");
        return "";
    }
    const NTiXmlElement* root = document.RootElement();
    return root == nullptr ? std::string() : ToString(*root);
}

NTiXmlElement* get_ele_conns(const NTiXmlElement* pEle) {
    check_argument(pEle != nullptr, "pEle",
                   {kUnit, __LINE__, "NTiXmlElement* get_ele_conns(const NTiXmlElement*)"});
    const NTiXmlElement* registry = pEle->ChildElement("ProfileRegistry", 0);
    if (registry == nullptr) {
        tell("Could not find <ProfileRegistry>. \n");
        return nullptr;
    }
    const NTiXmlElement* type_dir = registry->ChildElement("NodeDir", 0);
    if (type_dir == nullptr) {
        tell("Could not find <NodeDir> - type. \n");
        return nullptr;
    }
    for (NTiXmlElementCursor dir(*type_dir, "NodeDir"); dir; dir.Next()) {
        // A directory without a name ends the walk and is taken.
        const std::string* name = dir->AttributeValue("name");
        if (name == nullptr || *name == "connections") {
            return dir.Get();
        }
    }
    tell("Could not find <NodeDir> - connections. \n");
    return nullptr;
}

const std::string get_conn_label(const std::string& type, const NTiXmlElement* pND_UUID) {
    check_argument(pND_UUID != nullptr, "pND_UUID",
                   {kUnit, __LINE__,
                    "const std::string get_conn_label(const std::string&, const NTiXmlElement*)"});
    for (NTiXmlElementCursor key(*pND_UUID, "NodeKey"); key; key.Next()) {
        if (!attribute_equals(*key, "name", "label")) {
            continue;
        }
        if (const NTiXmlElement* param = key->ChildElement("NodeParam", 0)) {
            return param->Text();
        }
        tell("Could not find NodeParam. \n");
    }
    return "New " + type;
}

// Export: from the registry into a connections file.

namespace {

// The names by which the terminal emulator's session is known to a connection directory.
struct Session {
    std::string label;
    std::string name;  // file name of the session file
    std::string text;  // its root element
};

// Adds the session's elements to `connection`, which is null where the export has more directories
// than the connections file has connections; its files are read all the same.
void attach_session(NTiXmlElement* connection, const Session& session) {
    const std::string base = session.name.substr(0, session.name.find('.'));
    if (connection != nullptr) {
        connection->AddChildElement("KSS", session.text);
        connection->AddAttribute("TavrinName", session.label);
        connection->AddAttribute("KSSFile", base);
    }
    const std::string window_settings = read_xml_file_string(kSessionFolder + base + ".ws");
    if (connection != nullptr && !window_settings.empty()) {
        connection->AddChildElement("WS", window_settings);
    }
}

// Reads the keys of one connection directory in order. Label and session file name may come in
// either order: what is known of both is attached when the second of them is reached.
void attach_sessions_of(const NTiXmlElement& dir, NTiXmlElement* connection) {
    Session session;
    for (NTiXmlElementCursor key(dir, "NodeKey"); key; key.Next()) {
        const std::string* name = key->AttributeValue("name");
        if (name == nullptr) {
            return;
        }
        if (*name == "label") {
            session.label = key_value(*key);
        } else if (*name == "kssName") {
            session.name = key_value(*key);
            if (session.name.empty()) {
                return;
            }
            session.text = read_xml_file_string(kSessionFolder + session.name);
            if (session.text.empty()) {
                continue;
            }
        } else {
            continue;
        }
        if (!session.label.empty() && !session.name.empty()) {
            attach_session(connection, session);
        }
    }
}

// Pairs connections and directories by position. The directory of connections is the type
// directory's first here, whatever its name.
void attach_sessions(NTiXmlElement& file_root, const NTiXmlElement& export_root) {
    const NTiXmlElement* conns = &export_root;
    for (const char* level : {"ProfileRegistry", "NodeDir", "NodeDir"}) {
        conns = conns->ChildElement(level, 0);
        if (conns == nullptr) {
            return;
        }
    }
    NTiXmlElementCursor connection(file_root, "Connection");
    for (NTiXmlElementCursor dir(*conns, "NodeDir"); dir; dir.Next()) {
        attach_sessions_of(*dir, connection.Get());
        if (connection) {
            connection.Next();
        }
    }
}

int attach_sessions_guarded(NTiXmlElement& file_root, const NTiXmlElement& export_root) {
    try {
        attach_sessions(file_root, export_root);
    } catch (const NTiXmlException& error) {
        // A guard: the readers of session files catch their own.
        std::fprintf(stderr, "Parse XML fail %s", error.Message());
        return kDocumentUnusable;
    } catch (const std::exception&) {
        tell("Failed to parse the tavrin configure file.\n");
        return kDocumentUnusable;
    }
    return kSuccess;
}

// What parse_conn does with a text that need not be kept: exports are large.
int parse_export_text(const std::string& type, NTiXmlElement& file_root, std::string text) {
    // A banner or blank lines ahead of the document do no harm.
    const std::size_t start = text.find('<');
    if (start == std::string::npos) {
        throw std::out_of_range("the registry export " + export_file(type) + " holds no \"<\"");
    }
    text.erase(0, start);
    NTiXmlDoc document(std::move(text), false);
    const NTiXmlElement* root = nullptr;
    try {
        document.Parse(nullptr);
        root = document.RootElement();
        if (root == nullptr) {
            return kSuccess;
        }
        if (add_conn(type, &file_root, root)) {
            file_root.AddChildElement("General", "")->Text() = ToString(*root);
        }
    } catch (const std::exception&) {
        tell("Failed to parse the exported registry information.\n");
        return kDocumentUnusable;
    }
    return type == kTerminalType ? attach_sessions_guarded(file_root, *root) : int{kSuccess};
}

}  // namespace

int get_conn(const std::string& type, const std::string& file, const std::string& /*user*/,
             const std::string& /*password*/) {
    NTiXmlElement root;
    root.Name() = type;
    const std::string registry_type = to_registry_type(type);
    const int result = current_image_type() == kNewerLayoutType
                           ? clone_conn_python(&root, registry_type)
                           : clone_conn(&root, registry_type);
    if (result != kSuccess) {
        return result;
    }
    NTiXmlOutBuffer text;
    root.Print(text, 0);
    const bool written = text.TextSize() <= INT_MAX &&
                         writefile(file.c_str(), text.Text(), static_cast<int>(text.TextSize()));
    return written ? kSuccess : kConnectionsFileUnwritable;
}

int clone_conn(NTiXmlElement* pRoot, const std::string& type) {
    check_argument(pRoot != nullptr, "pRoot",
                   {kUnit, __LINE__, "int clone_conn(NTiXmlElement*, const std::string&)"});
    const std::string registry_path = kConnTypePath + type;
    const std::string file = export_file(type);
    const std::string export_command =
        format_command(kExportCommandLimit, "rm -f %s;regsh export %s %s", file.c_str(),
                       registry_path.c_str(), file.c_str());
    if (command_status(export_command) != 0) {
        return kExportFailed;
    }
    std::string text;
    if (!readfile(file.c_str(), text)) {
        return kExportUnreadable;
    }
    const int result = parse_export_text(type, *pRoot, std::move(text));
    // After a failure the file stays for inspection.
    if (result == kSuccess) {
        command_status(format_command(kExportCommandLimit, "rm -f %s", file.c_str()));
    }
    return result;
}

int clone_conn_python(NTiXmlElement* pRoot, const std::string& type) {
    check_argument(pRoot != nullptr, "pRoot",
                   {kUnit, __LINE__, "int clone_conn_python(NTiXmlElement*, const std::string&)"});
    std::string value;
    query_registry_value(kGetDefaultConnection, value);
    run_options.default_connection = value;
    const bool names_default = value.find("Default") != std::string::npos;
    const bool names_type = value.find(type) != std::string::npos;
    if (names_default && !names_type) {
        return kSuccess;
    }
    return clone_conn(pRoot, type);
}

int parse_conn(const std::string& type, NTiXmlElement* pRoot, const std::string& exportText) {
    check_argument(pRoot != nullptr, "pRoot",
                   {kUnit, __LINE__,
                    "int parse_conn(const std::string&, NTiXmlElement*, const std::string&)"});
    return parse_export_text(type, *pRoot, exportText);
}

bool add_conn(const std::string& type, NTiXmlElement* pRoot, const NTiXmlElement* pEle) {
    constexpr const char* function =
        "bool add_conn(const std::string&, NTiXmlElement*, const NTiXmlElement*)";
    check_argument(pRoot != nullptr, "pRoot", {kUnit, __LINE__, function});
    check_argument(pEle != nullptr, "pEle", {kUnit, __LINE__, function});
    NTiXmlElement* conns = get_ele_conns(pEle);
    if (conns == nullptr) {
        return false;
    }
    const bool zero_product = is_zero_product();
    std::string& default_connection = run_options.default_connection;
    if (zero_product) {
        query_registry_value(kGetDefaultConnection, default_connection);
    }
    const bool default_only = current_image_type() == kNewerLayoutType &&
                              default_connection.find("Default") == std::string::npos;
    bool added = false;
    NTiXmlElementCursor dir(*conns, "NodeDir");
    while (dir) {
        const bool is_default = attribute_equals(*dir, "name", default_connection);
        if (default_only && !is_default) {
            conns->RemoveChildElement(dir);
            continue;
        }
        NTiXmlElement* connection = pRoot->AddChildElement("Connection", "");
        connection->AddAttribute("Name", get_conn_label(type, dir.Get()));
        connection->AddAttribute("Enabled", "yes");
        if (zero_product && is_default) {
            connection->AddAttribute("Default", "yes");
        }
        added = true;
        dir.Next();
    }
    tell("Could not find <NodeDir> - UUID. \n");
    return added;
}
