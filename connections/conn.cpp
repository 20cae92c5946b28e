#include "connections/conn.h"

#include "common/argument_check.h"
#include "common/filefuncs.h"
#include "common/messages.h"
#include "common/result_codes.h"
#include "common/run_options.h"
#include "common/string_tokens.h"
#include "platform/command_runner.h"
#include "platform/conn_type_map.h"
#include "platform/system_identity.h"

#include <strings.h>
#include <sys/stat.h>

#include <array>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace {

constexpr const char* kUnit = "conn";

constexpr const char* kConnTypePath = "root/ConnectionType/";
constexpr const char* kImportFile = "/tmp/import.xml";
constexpr const char* kSessionFolder = "/etc/tavrin/connections/";
constexpr const char* kTerminalType = "tavrin";  // registry type of the terminal emulator
constexpr const char* kGetDefaultConnection = "regsh get root/ConnectionManager/defaultConnection";

constexpr unsigned kNewerLayoutType = 6;  // the image type with the newer registry layout

// The commands of the export keep one character less than other formatted commands.
constexpr std::size_t kExportCommandLimit = 1022;

// The file that the registry client exports a type into.
std::string export_file(const std::string& type) {
    return "/tmp/" + type + ".xml";
}

bool attribute_equals(const NTiXmlElement& element, std::string_view name,
                      std::string_view wanted) {
    return element.AttributeView(name) == wanted;
}

// The value of a registry key element: the text of its first NodeParam; empty without one.
std::string key_value(const NTiXmlElement& key) {
    const NTiXmlElement* param = key.ChildElement("NodeParam", 0);
    return param == nullptr ? std::string() : std::string(param->TextView());
}

// A document out of a text that is held in memory.
struct ParsedText {
    std::unique_ptr<NTiXmlDoc> document;  // null when the text is not well-formed
    NTiXmlElement* root = nullptr;        // null also when there is no root element
};

// `text` must stay as it is as long as the document is used.
ParsedText parse_text(const std::string& text) {
    try {
        auto document = std::make_unique<NTiXmlDoc>();
        document->ParseBorrowed(text);
        NTiXmlElement* root = document->RootElement();
        return {std::move(document), root};
    } catch (const std::exception&) {
        return {};
    }
}

struct FoundLabel {
    std::string label;
    std::size_t missing_params = 0;  // "label" keys without a value that were passed on the way
};

FoundLabel find_label(const std::string& type, const NTiXmlElement& dir) {
    FoundLabel found;
    for (NTiXmlElementCursor key(dir, "NodeKey"); key; key.Next()) {
        if (!attribute_equals(*key, "name", "label")) {
            continue;
        }
        if (const NTiXmlElement* param = key->ChildElement("NodeParam", 0)) {
            found.label = param->TextView();
            return found;
        }
        ++found.missing_params;
    }
    found.label = "New " + type;
    return found;
}

void tell_missing_params(std::size_t count) {
    for (; count > 0; --count) {
        print_message("Could not find NodeParam. \n");
    }
}

// The log is still open, and its last line would land in the midst of what is written there.
bool is_run_log(const std::string& file) {
    struct stat log {};
    struct stat other {};
    return run_options.log && ::fstat(::fileno(run_options.log.get()), &log) == 0 &&
           S_ISREG(log.st_mode) && ::stat(file.c_str(), &other) == 0 &&
           log.st_dev == other.st_dev && log.st_ino == other.st_ino;
}

bool write_text(const std::string& file, std::string_view text) {
    return text.size() <= INT_MAX && !is_run_log(file) &&
           writefile(file.c_str(), text.data(), static_cast<int>(text.size()));
}

// Prints the node and writes it without a copy of its text between. False also when the text cannot
// be held: indentation can make a small document of many levels print to gigabytes.
bool write_printed(const std::string& file, const NTiXmlNode& node) {
    NTiXmlOutBuffer out;
    try {
        node.Print(out, 0);
    } catch (const std::exception&) {
        return false;
    }
    return write_text(file, {out.Text(), out.TextSize()});
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
        print_message("read file %s fail\n", file.c_str());
        return "";
    }
    const ParsedText parsed = parse_text(content);
    if (parsed.document == nullptr) {
        print_message("Parse xml failed.\n");
    }
    return parsed.root == nullptr ? std::string() : ToString(*parsed.root);
}

NTiXmlElement* get_ele_conns(const NTiXmlElement* pEle) {
    check_argument(pEle != nullptr, "pEle",
                   {kUnit, __LINE__, "NTiXmlElement* get_ele_conns(const NTiXmlElement*)"});
    const NTiXmlElement* registry = pEle->ChildElement("ProfileRegistry", 0);
    if (registry == nullptr) {
        print_message("Could not find <ProfileRegistry>. \n");
        return nullptr;
    }
    const NTiXmlElement* type_dir = registry->ChildElement("NodeDir", 0);
    if (type_dir == nullptr) {
        print_message("Could not find <NodeDir> - type. \n");
        return nullptr;
    }
    for (NTiXmlElementCursor dir(*type_dir, "NodeDir"); dir; dir.Next()) {
        // A directory without a name ends the walk and is taken.
        const auto name = dir->AttributeView("name");
        if (!name || *name == "connections") {
            return dir.Get();
        }
    }
    print_message("Could not find <NodeDir> - connections. \n");
    return nullptr;
}

const std::string get_conn_label(const std::string& type, const NTiXmlElement* pND_UUID) {
    check_argument(pND_UUID != nullptr, "pND_UUID",
                   {kUnit, __LINE__,
                    "const std::string get_conn_label(const std::string&, const NTiXmlElement*)"});
    const FoundLabel found = find_label(type, *pND_UUID);
    tell_missing_params(found.missing_params);
    return found.label;
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
        const auto name = key->AttributeView("name");
        if (!name) {
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
        print_message("Parse XML fail %s", error.Message());
        return kDocumentUnusable;
    } catch (const std::exception&) {
        print_message("Failed to parse the tavrin configure file.\n");
        return kDocumentUnusable;
    }
    return kSuccess;
}

// True when the element is the same after it was printed and parsed: it holds nothing but elements,
// and a text only where there are none. Text before elements reads as not well-formed.
bool reads_back_the_same(const NTiXmlElement& root) {
    std::vector<const NTiXmlElement*> pending = {&root};
    while (!pending.empty()) {
        const NTiXmlElement& element = *pending.back();
        pending.pop_back();
        if (!element.Children().empty() && !element.TextView().empty()) {
            return false;
        }
        for (const NTiXmlNode* child : element.Children()) {
            if (child->Type() != NTiXmlNodeType::kElement) {
                return false;
            }
            pending.push_back(static_cast<const NTiXmlElement*>(child));
        }
    }
    return true;
}

void add_general(NTiXmlElement& file_root, const NTiXmlElement& export_root) {
    NTiXmlOutBuffer text;
    export_root.Print(text, 0);
    file_root.AddChildElement("General", std::move(text));
}

// What parse_conn does with a text that need not be kept: exports are large. With `kept` the export
// goes there as a document, and into no General, where that would read back the same.
int parse_export_text(const std::string& type, NTiXmlElement& file_root, std::string text,
                      ParsedText* kept) {
    // A banner or blank lines ahead of the document do no harm.
    const std::size_t start = text.find('<');
    if (start == std::string::npos) {
        throw std::out_of_range("the registry export " + export_file(type) + " holds no \"<\"");
    }
    text.erase(0, start);
    ParsedText parsed;
    bool keeps = false;
    try {
        parsed.document = std::make_unique<NTiXmlDoc>(std::move(text), false);
        parsed.document->Parse(nullptr);
        parsed.root = parsed.document->RootElement();
        if (parsed.root == nullptr) {
            return kSuccess;
        }
        const bool added = add_conn(type, &file_root, parsed.root);
        keeps = added && kept != nullptr && reads_back_the_same(*parsed.root);
        if (added && !keeps) {
            add_general(file_root, *parsed.root);
        }
    } catch (const std::exception&) {
        print_message("Failed to parse the exported registry information.\n");
        return kDocumentUnusable;
    }
    const int result =
        type == kTerminalType ? attach_sessions_guarded(file_root, *parsed.root) : int{kSuccess};
    if (keeps) {
        *kept = std::move(parsed);
    }
    return result;
}

// What clone_conn does, with `kept` as above.
int export_type(NTiXmlElement& file_root, const std::string& type, ParsedText* kept) {
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
    const int result = parse_export_text(type, file_root, std::move(text), kept);
    // After a failure the file stays for inspection.
    if (result == kSuccess) {
        command_status(format_command(kExportCommandLimit, "rm -f %s", file.c_str()));
    }
    return result;
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
    return write_printed(file, root) ? kSuccess : kConnectionsFileUnwritable;
}

int clone_conn(NTiXmlElement* pRoot, const std::string& type) {
    check_argument(pRoot != nullptr, "pRoot",
                   {kUnit, __LINE__, "int clone_conn(NTiXmlElement*, const std::string&)"});
    return export_type(*pRoot, type, nullptr);
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
    return parse_export_text(type, *pRoot, exportText, nullptr);
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
    print_message("Could not find <NodeDir> - UUID. \n");
    return added;
}

// Import: from a connections file into the registry.

namespace {

constexpr const char* kNoGeneral = "Could not find <General> element.\n";
constexpr const char* kNoConnection = "Could not find <NodeDir> - UUID. \n";
constexpr const char* kSetTheme = "regsh set root/background/desktop/theme ";
constexpr const char* kCommitAll = "regsh commit";

std::string connections_path(const std::string& type) {
    return kConnTypePath + type + "/connections";
}

bool is_yes(const std::string& value) {
    return strcasecmp(value.c_str(), "yes") == 0;
}
bool is_no(const std::string& value) {
    return strcasecmp(value.c_str(), "no") == 0;
}

// The attribute when it is present and not empty, else null.
const std::string* filled_attribute(const NTiXmlElement& element, const char* name) {
    const std::string* value = element.AttributeValue(name);
    return value == nullptr || value->empty() ? nullptr : value;
}

// Names that strcasecmp takes for equal have the same folded form.
std::string fold_case(std::string name) {
    for (char& c : name) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return name;
}

// The value of a command line's word with the line end that is attached to it left outside the
// quotes, where it ends the command.
std::string listed_word(const std::string& value) {
    const bool has_line_end = value.ends_with('\n');
    return has_line_end ? shell_word(value.substr(0, value.size() - 1)) + '\n' : shell_word(value);
}

std::string trimmed(std::string text) {
    trim_string(text.data(), kTrimBoth);
    text.resize(std::strlen(text.c_str()));
    return text;
}

}  // namespace

int set_conn(const std::string& type, const std::string& file, const std::string& /*user*/,
             const std::string& /*password*/, bool remove) {
    NTiXmlDoc document(file, true);
    try {
        // The text holds the whole export once more: it goes when it has been parsed.
        const std::string text = std::move(document.Text());
        document.ParseCopied(text);
    } catch (const std::exception&) {
        print_message("Failed to parse %s\n", file.c_str());
        return kConnectionsFileUnusable;
    }
    const NTiXmlElement* root = document.RootElement();
    if (root == nullptr) {
        print_message("Failed to get the root element.\n");
        return kConnectionsFileUnusable;
    }
    const std::string registry_type = to_registry_type(type);
    if (registry_type.empty()) {
        return kSuccess;
    }
    if (command_status("regsh contains " + (kConnTypePath + registry_type)) != 0) {
        return kSuccess;
    }
    return current_image_type() == kNewerLayoutType ? write_conn_python(root, registry_type, remove)
                                                    : write_conn(root, registry_type, remove);
}

namespace {

// Makes the default connection, which SetDefaultConnection has just set with its type as the theme,
// start by itself.
void start_default_connection() {
    std::string default_connection;
    query_registry_value(kGetDefaultConnection, default_connection);
    if (default_connection.empty()) {
        return;
    }
    std::string theme;
    query_registry_value("regsh get root/background/desktop/theme", theme);
    if (theme.empty()) {
        return;
    }
    command_status("regsh set " + connections_path(shell_word(theme)) + "/" +
                   shell_word(default_connection) + "/autostart 1");
    command_status(kCommitAll);
}

}  // namespace

int write_conn(const NTiXmlElement* pRoot, const std::string& type, bool remove) {
    check_argument(
        pRoot != nullptr, "pRoot",
        {kUnit, __LINE__, "int write_conn(const NTiXmlElement*, const std::string&, bool)"});
    const std::string path = connections_path(type);
    if (remove) {
        remove_conns(path);
    }
    int result = exe_write(pRoot, type);
    if (result != kSuccess) {
        return result;
    }
    refresh_desktop_icons(path);
    if (is_zero_product()) {
        result = SetDefaultConnection(pRoot, type);
        start_default_connection();
    }
    return result;
}

int write_conn_python(const NTiXmlElement* pRoot, const std::string& type, bool /*remove*/) {
    check_argument(
        pRoot != nullptr, "pRoot",
        {kUnit, __LINE__, "int write_conn_python(const NTiXmlElement*, const std::string&, bool)"});
    for (const auto& pair : conn_type_pairs(kNewerLayoutType)) {
        remove_conns(connections_path(pair.first));
    }
    const int result = exe_write(pRoot, type);
    if (result != kSuccess) {
        return result;
    }
    NTiXmlElement* general = pRoot->ChildElement("General", 0);
    if (general == nullptr) {
        print_message(kNoGeneral);
        return kSuccess;
    }
    const ParsedText parsed = parse_text(general->Text());
    if (parsed.root == nullptr) {
        return kDocumentUnusable;
    }
    const NTiXmlElement* conns = get_ele_conns(parsed.root);
    if (conns == nullptr) {
        return kNoConnections;
    }
    const NTiXmlElement* first = conns->ChildElement("NodeDir", 0);
    if (first == nullptr) {
        print_message(kNoConnection);
        return kNoConnections;
    }
    const std::string word = shell_word(std::string(first->AttributeView("name").value_or("")));
    command_status("regsh set root/ConnectionManager/defaultConnection  " + word);
    command_status("regsh commit root/ConnectionManager/defaultConnection");
    // Whatever watches the connection types sees a change when this key comes and goes.
    command_status("regsh create root/ConnectionType/.toBeRefreshed");
    command_status("regsh delete root/ConnectionType/.toBeRefreshed");
    command_status("regsh commit root/ConnectionType");
    return kSuccess;
}

void remove_conns(const std::string& path) {
    std::vector<std::string> lines;
    if (!read_all_lines(format_command(kCommandLimit, "regsh get %s", path.c_str()), lines)) {
        print_message("popen() failure.\n");
        return;
    }
    std::string default_connection;
    query_registry_value(kGetDefaultConnection, default_connection);
    const bool may_reset = !default_connection.empty() && is_zero_product();
    for (const std::string& line : lines) {
        const StringTokens words(line.c_str(), 0, " \t");
        if (words.count() != 2) {
            continue;
        }
        const std::string listed = words.getToken(1);
        command_status(
            format_command(kCommandLimit, "regsh delete %s", listed_word(listed).c_str()));
        const StringTokens levels(trimmed(listed).c_str(), 0, "/");
        const bool was_default = may_reset && levels.count() > 0 &&
                                 levels.getToken(levels.count() - 1) == default_connection;
        if (was_default) {
            command_status("regsh set root/ConnectionManager/defaultConnection \"\"");
            command_status(std::string(kSetTheme) + "default");
        }
    }
    command_status(format_command(kCommandLimit, "regsh commit %s", path.c_str()));
    command_status(kCommitAll);
}

namespace {

// True when a component of the name would lead out of the folder that it is put behind.
bool leaves_folder(const std::string& name) {
    const StringTokens components(name.c_str(), 0, "/");
    for (int i = 0; i < components.count(); ++i) {
        if (components.getToken(i) == "..") {
            return true;
        }
    }
    return false;
}

// A session that cannot be printed does not stop the import either.
void write_session_file(const std::string& path, const NTiXmlElement& session) {
    try {
        write_xml_text_file(path, ToString(session));
    } catch (const std::exception&) {
        print_message("Write file %s fail.\n", path.c_str());
    }
}

void write_session_files(const NTiXmlElement& connection) {
    const NTiXmlElement* session = connection.ChildElement("KSS", 0);
    if (session == nullptr) {
        return;
    }
    const std::string* file = connection.AttributeValue("KSSFile");
    if (file == nullptr) {
        print_message("Could not find KSSFile. \n");
        return;
    }
    if (leaves_folder(*file)) {
        print_message("Invalid session file name %s.\n", file->c_str());
        return;
    }
    write_session_file(kSessionFolder + *file + ".kss", *session);
    if (const NTiXmlElement* window_settings = connection.ChildElement("WS", 0)) {
        write_session_file(kSessionFolder + *file + ".ws", *window_settings);
    }
}

}  // namespace

int exe_write(const NTiXmlElement* pRoot, const std::string& type) {
    check_argument(pRoot != nullptr, "pRoot",
                   {kUnit, __LINE__, "int exe_write(const NTiXmlElement*, const std::string&)"});
    NTiXmlElement* general = pRoot->ChildElement("General", 0);
    if (general == nullptr) {
        print_message(kNoGeneral);
        return kSuccess;
    }
    std::list<std::string> enabled_names;
    for (NTiXmlElementCursor connection(*pRoot, "Connection"); connection; connection.Next()) {
        const std::string* name = filled_attribute(*connection, "Name");
        const std::string* enabled = filled_attribute(*connection, "Enabled");
        if (name == nullptr || enabled == nullptr) {
            continue;
        }
        if (is_yes(*enabled)) {
            enabled_names.push_back(*name);
        }
        if (type == kTerminalType) {
            write_session_files(*connection);
        }
    }
    return import_conns(type, general->Text(), enabled_names);
}

bool write_xml_text_file(const std::string& path, const std::string& text) {
    const ParsedText parsed = parse_text(text);
    if (parsed.document == nullptr) {
        print_message("Parse xml failed.\n");
    }
    if (parsed.root == nullptr) {
        return false;
    }
    if (!write_text(path, parsed.root->TextView())) {
        print_message("Write file %s fail.\n", path.c_str());
        return false;
    }
    return true;
}

namespace {

// Keeps one directory for each enabled name, the first with its label, and removes the others.
// Names that matched are taken out of `enabled`.
void keep_enabled(const std::string& type, NTiXmlElement& conns, std::list<std::string>& enabled) {
    // Equal names stand in reverse, so that the first of them is taken off the end.
    std::unordered_map<std::string, std::vector<std::list<std::string>::iterator>> waiting;
    for (auto name = enabled.end(); name != enabled.begin();) {
        --name;
        waiting[fold_case(*name)].push_back(name);
    }
    NTiXmlElementCursor dir(conns, "NodeDir");
    while (dir) {
        const auto found = waiting.find(fold_case(get_conn_label(type, dir.Get())));
        if (found == waiting.end() || found->second.empty()) {
            conns.RemoveChildElement(dir);
            continue;
        }
        enabled.erase(found->second.back());
        found->second.pop_back();
        dir.Next();
    }
    print_message(kNoConnection);
}

// Puts the device's own product configuration into the document. False, with a message, when the
// document has no place for it.
bool set_product_config(NTiXmlElement& root) {
    NTiXmlElement* config = &root;
    for (const char* level : {"ProfileSettings", "Target", "Config"}) {
        config = config->ChildElement(level, 0);
        if (config == nullptr) {
            print_message("Could not find <%s>. \n", level);
            return false;
        }
    }
    std::string configuration;
    read_product_config(configuration);
    config->Text() = configuration;
    return true;
}

std::vector<std::string> names_of(const NTiXmlElement& conns) {
    std::vector<std::string> names;
    for (NTiXmlElementCursor dir(conns, "NodeDir"); dir; dir.Next()) {
        if (const auto name = dir->AttributeView("name")) {
            names.emplace_back(*name);
        }
    }
    return names;
}

int disable_autostart_of(const std::string& type, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        command_status("regsh set " + connections_path(type) + "/" + shell_word(name) +
                       "/autostart 0");
    }
    print_message(kNoConnection);
    command_status(kCommitAll);
    return 1;
}

}  // namespace

int import_conns(const std::string& type, const std::string& exportText,
                 std::list<std::string>& enabled) {
    ParsedText parsed = parse_text(exportText);
    if (parsed.root == nullptr) {
        return kDocumentUnusable;
    }
    NTiXmlElement* conns = get_ele_conns(parsed.root);
    if (conns == nullptr) {
        return kSuccess;
    }
    keep_enabled(type, *conns, enabled);
    merge_existing_conns(type, conns);
    const unsigned image_type = current_image_type();
    if (has_product_config(image_type) && !set_product_config(*parsed.root)) {
        return kSuccess;
    }
    if (!write_printed(kImportFile, *parsed.document)) {
        print_message("Could not write %s, errno=.\n", kImportFile);
        return kImportUnwritable;
    }
    // Only the names are needed from here on.
    const std::vector<std::string> names = names_of(*conns);
    parsed = ParsedText();
    command_status(format_command(kCommandLimit, "regsh import %s", kImportFile));
    command_status(
        format_command(kCommandLimit, "regsh commit %s", connections_path(type).c_str()));
    if (is_zero_product()) {
        disable_autostart_of(type, names);
    }
    return kSuccess;
}

namespace {

// A copy of the element by way of its text, as the registry client will read it; null when that
// does not parse. Want of memory passes: nothing has been imported yet, and half a merge would not
// be told of.
std::unique_ptr<NTiXmlElement> deep_copy(const NTiXmlElement& element) {
    auto copy = std::make_unique<NTiXmlElement>();
    try {
        copy->Parse(ToString(element).c_str());
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        copy.reset();
    }
    return copy;
}

// The directory of the connections that the registry holds; null when its state could not be had.
// `text` and `current` hold it.
const NTiXmlElement* read_existing(const std::string& type, std::string& text,
                                   ParsedText& current) {
    NTiXmlElement scratch;
    if (export_type(scratch, type, &current) != kSuccess) {
        return nullptr;
    }
    if (current.root == nullptr) {
        NTiXmlElement* general = scratch.ChildElement("General", 0);
        if (general == nullptr) {
            print_message(kNoGeneral);
            return nullptr;
        }
        text = general->TextView();
        current = parse_text(text);
    }
    return current.root == nullptr ? nullptr : get_ele_conns(current.root);
}

}  // namespace

bool merge_existing_conns(const std::string& type, NTiXmlElement* pConns) {
    check_argument(
        pConns != nullptr, "pConns",
        {kUnit, __LINE__, "bool merge_existing_conns(const std::string&, NTiXmlElement*)"});
    std::string text;
    ParsedText current;
    const NTiXmlElement* existing = read_existing(type, text, current);
    if (existing == nullptr) {
        return false;
    }
    const std::vector<std::string> names = names_of(*pConns);
    std::unordered_set<std::string_view> known(names.begin(), names.end());
    for (NTiXmlElementCursor dir(*existing, "NodeDir"); dir; dir.Next()) {
        const auto name = dir->AttributeView("name");
        if (!name || !known.insert(*name).second) {
            continue;
        }
        std::unique_ptr<NTiXmlElement> copy = deep_copy(*dir);
        if (copy == nullptr) {
            return false;
        }
        pConns->AppendChild(copy.release());
    }
    return true;
}

int disable_autostart(const std::string& type, const NTiXmlElement* pConns) {
    check_argument(
        pConns != nullptr, "pConns",
        {kUnit, __LINE__, "int disable_autostart(const std::string&, const NTiXmlElement*)"});
    return disable_autostart_of(type, names_of(*pConns));
}

namespace {

// The connections of an export by label. Each candidate for the default connection walks them from
// the first; the walk is made once here and its messages are repeated as often as it would be made.
class LabelledConnections {
public:
    LabelledConnections(const std::string& type, const NTiXmlElement& conns) {
        for (NTiXmlElementCursor dir(conns, "NodeDir"); dir; dir.Next()) {
            const FoundLabel found = find_label(type, *dir);
            missing_params_ += found.missing_params;
            if (const auto uuid = dir->AttributeView("name")) {
                by_label_.try_emplace(fold_case(found.label),
                                      Connection{std::string(*uuid), missing_params_});
            }
        }
    }

    // The identifier of the first connection with that label, in any case; null, with a message,
    // when there is none.
    const std::string* Find(const std::string& label) const {
        const auto found = by_label_.find(fold_case(label));
        if (found == by_label_.end()) {
            tell_missing_params(missing_params_);
            print_message(kNoConnection);
            return nullptr;
        }
        tell_missing_params(found->second.missing_params);
        return &found->second.uuid;
    }

private:
    struct Connection {
        std::string uuid;
        std::size_t missing_params;  // "label" keys without a value up to this connection
    };
    std::unordered_map<std::string, Connection> by_label_;
    std::size_t missing_params_ = 0;
};

// The label of a connection that the file marks as default, or null. Any Enabled value but "no" is
// accepted here, while the import itself needs "yes".
const std::string* default_label(const NTiXmlElement& connection) {
    const std::string* marked = filled_attribute(connection, "Default");
    const std::string* name = filled_attribute(connection, "Name");
    const std::string* enabled = filled_attribute(connection, "Enabled");
    const bool qualifies = marked != nullptr && name != nullptr && enabled != nullptr &&
                           !is_no(*enabled) && is_yes(*marked);
    return qualifies ? name : nullptr;
}

void make_default(const std::string& uuid, const std::string& type) {
    std::string former;
    query_registry_value(kGetDefaultConnection, former);
    command_status("regsh set root/ConnectionManager/defaultConnection\t" + shell_word(uuid));
    command_status(kSetTheme + type);
    command_status(kCommitAll);
}

}  // namespace

int SetDefaultConnection(const NTiXmlElement* pRoot, const std::string& type) {
    check_argument(
        pRoot != nullptr, "pRoot",
        {kUnit, __LINE__, "int SetDefaultConnection(const NTiXmlElement*, const std::string&)"});
    NTiXmlElement* general = pRoot->ChildElement("General", 0);
    if (general == nullptr) {
        print_message(kNoGeneral);
        return kSuccess;
    }
    std::unique_ptr<LabelledConnections> connections;
    for (NTiXmlElementCursor connection(*pRoot, "Connection"); connection; connection.Next()) {
        const std::string* label = default_label(*connection);
        if (label == nullptr) {
            continue;
        }
        if (connections == nullptr) {
            const ParsedText parsed = parse_text(general->Text());
            if (parsed.root == nullptr) {
                return kDocumentUnusable;
            }
            const NTiXmlElement* conns = get_ele_conns(parsed.root);
            if (conns == nullptr) {
                return kSuccess;
            }
            connections = std::make_unique<LabelledConnections>(type, *conns);
        }
        if (const std::string* uuid = connections->Find(*label)) {
            make_default(*uuid, type);
            return kSuccess;
        }
    }
    return kSuccess;
}

void refresh_desktop_icons(const std::string& path) {
    std::vector<std::string> lines;
    if (!read_all_lines(format_command(kCommandLimit, "regsh get %s", path.c_str()), lines)) {
        print_message("popen() failure.\n");
        return;
    }
    for (const std::string& line : lines) {
        const StringTokens words(trimmed(line).c_str(), 0, " \t");
        if (words.count() != 2) {
            continue;
        }
        const std::string dir = shell_word(words.getToken(1));
        std::string value;
        query_registry_value(
            format_command(kCommandLimit, "regsh get %s/hasDesktopIcon", dir.c_str()), value);
        command_status(format_command(kCommandLimit, "regsh set %s/hasDesktopIcon %s", dir.c_str(),
                                      shell_word(value).c_str()));
        command_status(format_command(kCommandLimit, "regsh commit %s", dir.c_str()));
    }
}
