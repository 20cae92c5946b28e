#pragma once

#include "common/tinyxml.h"

#include <list>
#include <string>

// Export and import of remote-session connections. The two roads:
//
//   get_conn -> clone_conn / clone_conn_python -> parse_conn -> add_conn
//   set_conn -> write_conn / write_conn_python -> exe_write -> import_conns -> merge_existing_conns
//
// Result codes are those of common/result_codes.h. Elements that are passed in must not be null:
// that is a programming error which an assertion ends. Failures are told on standard error.

// The get handler: exports all connections of `type` (as typed) into `file`, which is replaced only
// when the export succeeded. User and password are accepted and not used. Throws ImageIDException
// on a device without an identity, and std::out_of_range when the export holds no "<".
int get_conn(const std::string& type, const std::string& file, const std::string& user,
             const std::string& password);

// Exports the registry directory of one registry type into `pRoot`, the root of a connections file,
// by way of the temporary file /tmp/TYPE.xml, which stays there when that fails. kSuccess,
// kExportUnreadable, kExportFailed or kDocumentUnusable. Throws std::out_of_range when the export
// holds no "<".
int clone_conn(NTiXmlElement* pRoot, const std::string& type);

// The same on the newer registry layout (image type 6), by the registry's default connection, which
// it keeps in run_options: nothing is exported when that holds the word "Default" but not the
// type's name, every connection when it holds both, and otherwise only the connection whose
// identifier it is.
int clone_conn_python(NTiXmlElement* pRoot, const std::string& type);

// Turns the text of a registry export into the children of `pRoot`: a Connection for each
// connection and General with the whole export; for the terminal emulator also its session files.
// kSuccess or kDocumentUnusable, which leaves in place what was added before; throws
// std::out_of_range for a text without "<".
int parse_conn(const std::string& type, NTiXmlElement* pRoot, const std::string& exportText);

// Appends a Connection to `pRoot` for each connection of the export whose root is `pEle`. On a zero
// client it reads the registry's default connection into run_options and marks that one. On image
// type 6 it removes from the export document all but the default connection, unless that holds the
// word "Default". True when it added any.
bool add_conn(const std::string& type, NTiXmlElement* pRoot, const NTiXmlElement* pEle);

// The directory of all connections in a registry export, borrowed from it; null, with a message,
// when a level of it is missing.
NTiXmlElement* get_ele_conns(const NTiXmlElement* pEle);

// The connection's display name: the value of its first "label" key that has one, else "New TYPE".
const std::string get_conn_label(const std::string& type, const NTiXmlElement* pND_UUID);

// The second blank-separated word of the command's first output line, possibly empty. False, and
// `result` untouched, when the command could not be started.
bool query_registry_value(const std::string& command, std::string& result);

// The root element of an XML file printed back to text; "" on any failure.
std::string read_xml_file_string(const std::string& file);

// The set handler: brings the connections of a connections file into the registry. `type` is the
// connection type as typed; `remove` empties the type first. User and password are accepted and not
// used. kSuccess also for a type that the registry does not know, where nothing is done. Throws
// NTiXmlException when the file cannot be read, ImageIDException on a device without an identity,
// and std::out_of_range when the registry's own export holds no "<". No step is undone when a later
// one fails.
int set_conn(const std::string& type, const std::string& file, const std::string& user,
             const std::string& password, bool remove);

// The import in the classic registry layout (every image type but 6), with what follows it: desktop
// icons, and on a zero client default connection, theme and autostart. kSuccess, kImportUnwritable
// or kDocumentUnusable.
int write_conn(const NTiXmlElement* pRoot, const std::string& type, bool remove);

// The import in the newer layout (image type 6). It always empties every type of the layout first,
// makes the first connection of the file's export the default one, and signals a refresh. As above,
// or kNoConnections.
int write_conn_python(const NTiXmlElement* pRoot, const std::string& type, bool remove);

// Deletes every connection below one directory of a type. On a zero client the device's default
// connection takes the default and the desktop theme with it.
void remove_conns(const std::string& path);

// Writes the terminal emulator's session files, collects the names of the enabled connections and
// runs import_conns. Its result, or kSuccess when the file has no General.
int exe_write(const NTiXmlElement* pRoot, const std::string& type);

// Writes the text content of the root element of `text` into a file. False, with a message where
// the text does not parse or the file cannot be written.
bool write_xml_text_file(const std::string& path, const std::string& text);

// Imports the export document `exportText`, cut down to the connections that `enabled` names (which
// loses the names that matched) and filled up with those that only the registry has. kSuccess also
// where the document lacks a level that the import needs.
int import_conns(const std::string& type, const std::string& exportText,
                 std::list<std::string>& enabled);

// Appends to `pConns`, which must not be null, each connection that the registry holds and `pConns`
// does not. False when the registry's state could not be had or copied.
bool merge_existing_conns(const std::string& type, NTiXmlElement* pConns);

// Switches off the autostart of each connection of the directory, which must not be null, as
// import_conns does on a zero client. Always 1.
int disable_autostart(const std::string& type, const NTiXmlElement* pConns);

// Makes the first connection that the file marks as default, and that its export holds, the
// registry's default connection, and the type the desktop theme. kSuccess or kDocumentUnusable.
int SetDefaultConnection(const NTiXmlElement* pRoot, const std::string& type);

// Writes the desktop-icon setting of each connection below the directory back, so that the desktop
// picks the connections up.
void refresh_desktop_icons(const std::string& path);
