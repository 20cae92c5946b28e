#pragma once

#include "tools/device/options.h"

#include <filesystem>

/// Writes systeminfo or imageid into the device's `etc` so that the device counts as the build that
/// the options name (image type 9 when they name none), and removes the one that is not written.
/// Given files are copied as they are. Throws Failure: usage when no such build exists, no_input,
/// cannot_create.
void write_identity(const Options& options, const std::filesystem::path& etc);
