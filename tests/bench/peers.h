#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The XML libraries that corvik's own tree is measured against, each behind the same three steps:
// parse a text in memory, print the tree to memory, destroy both with the object.

class XmlPeer {
public:
    XmlPeer() = default;
    XmlPeer(const XmlPeer&) = delete;
    XmlPeer& operator=(const XmlPeer&) = delete;
    virtual ~XmlPeer() = default;

    // Reads a text that the caller keeps until this returns, no longer: a library that needs it
    // afterwards copies it. Once an object; throws std::runtime_error when it is refused.
    virtual void Parse(std::string_view text) = 0;

    // Prints what was parsed, indented, and keeps the result. 0 from a library that builds no tree,
    // else the bytes printed.
    virtual std::size_t Print() = 0;
};

struct XmlPeerRow {
    std::string_view name;
    bool builds_tree;
    std::unique_ptr<XmlPeer> (*make)();
};

// "corvik" first.
std::span<const XmlPeerRow> xml_peers();

// What was compiled with and compared with, by name.
std::vector<std::pair<std::string, std::string>> peer_versions();
