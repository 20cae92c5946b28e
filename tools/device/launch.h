#pragma once

#include "tools/device/options.h"

/// Makes the device, runs the command on it and removes what is not kept. Returns the command's
/// exit status; ends the process by the same signal when the command was ended by one. Throws
/// Failure.
int run_device(const Options& options);
