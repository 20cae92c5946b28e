#pragma once

#include "common/tinyxml.h"

#include <string>

// Export and import of remote-session connections. The functions of the export road:
//
//   get_conn -> clone_conn / clone_conn_python -> parse_conn -> add_conn
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
// kExportUnreadable, kExportFailed or kDocumentUnusable; throws as get_conn does for an export
// without
// "<".
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
