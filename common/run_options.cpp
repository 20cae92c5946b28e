#include "common/run_options.h"

RunOptions run_options;
