#pragma once

#include "common/tinyxml.h"
#include "tests/fuzz/fake_device.h"

#include <cstddef>
#include <cstdint>
#include <string>

// What both roads of the connections are tried with: the texts of an input, in this order. Behind
// them may stand an export: the file then is made of it and of the connections that its own text
// gives.
struct RoadInput {
    std::string type;  // letters only: it is the operator's own word and not guarded
    bool remove;       // the line of the type has more than letters
    std::string system_info;
    std::string image_id;
    std::string default_connection;
    std::string listing;
    std::string session;
    std::string registry;
    std::string file;

    RoadInput(const std::uint8_t* data, std::size_t size);
    // Gives the device all but type and file.
    void Fill(FakeDevice& device) const;
};

// Runs a handler. The exceptions that are described end the run as well, and are looked at: without
// an identity, and where the registry's export holds no "<". Anything else is a finding. Returns
// the result, or kEndedByException.
inline constexpr int kEndedByException = -1000;
int run_handler(const RoadInput& input, int (*handler)(const RoadInput& input));

// The results that a road ends with on a device that takes every file.
bool is_export_result(int result);
bool is_import_result(int result);

// Whether what an import puts into an export document leaves it readable: the connections of the
// registry and the product configuration are to stand where no text and no elements are.
bool has_room(const NTiXmlDoc& document);
