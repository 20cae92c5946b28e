#pragma once

// What the tool ends with: every number that a handler returns and that becomes the exit status
// (its low 8 bits). Scripts in the field test these numbers; they never change.
enum ResultCode : int {
    kNoConnections = -1,     // newer layout: the file's export holds no connection (255)
    kSuccess = 0,            // also where there was nothing to do
    kSyntaxError = 1,        // the command line is not valid
    kNoHandler = 2,          // the type has no handler for this mode
    kExportUnreadable = 11,  // the registry client's temporary export could not be read
    kConnectionsFileUnwritable = 12,
    kConnectionsFileUnusable = 20,  // not well-formed, or without a root element
    kImportUnwritable = 23,         // the import document could not be written
    kExportFailed = 50,             // the registry client's export command failed
    kDocumentUnusable = 52,         // an export document or a session file step failed
};
