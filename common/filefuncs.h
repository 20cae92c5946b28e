#pragma once

#include "common/tinyxml.h"

#include <string>

// Whole-file helpers. A null path or content ends the process by an assertion that names it.

// Appends the file's bytes to `content`; a NUL cuts the rest of its block of 1023 bytes, since
// these are text files. False, and `content` untouched, when the file cannot be opened. A file that
// can be opened but not read (a folder) reads as empty.
bool readfile(const char* szfile, std::string& content);

// Writes `length` bytes (at most 2 GiB - 1) over the file, which is truncated first. True when all
// of them reached the file: what the device did not take counts as not written. Never true for a
// negative length.
bool writefile(const char* szfile, const char* content, int length);

// A new element "File", owned by the caller: its text is the file's bytes in upper-case
// hexadecimal, its attribute "Name" the escaped base name (behind the last slash or backslash).
// Null, with "Failed to read %s\n" on standard error, when the file cannot be read or holds 2 GiB
// or more.
NTiXmlElement* readfile2Ele(const char* szfile);

// Sets `version` to the "Version" attribute of the file's root element; empty when there is none or
// the file cannot be read or parsed.
void read_version_attribute(std::string& version, const std::string& file);
