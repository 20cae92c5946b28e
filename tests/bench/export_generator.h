#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Registry exports and connections files to measure with. The same arguments give the same bytes on
// every machine, and a larger export begins with the connections of a smaller one.

// The export of the directory of the registry type `type`, as the registry client writes it, with
// that many connections of 40 keys each.
std::string export_of_connections(std::string_view type, std::size_t connections);

// The same with connections added until it is at least that many bytes long.
std::string export_of_bytes(std::string_view type, std::size_t bytes);

// What exporting a classic-layout registry with that export leaves in the connections file. `root`
// is the connection type as typed.
std::string connections_file(std::string_view root, std::string_view export_text);
