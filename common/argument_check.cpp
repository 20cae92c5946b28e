#include "common/argument_check.h"

#include <cstdio>
#include <cstdlib>

void abort_on_argument(const char* name, const CheckedPlace& place) {
    std::fprintf(stderr, "corvik: %s:%d: %s: Assertion `%s' failed.\n", place.unit, place.line,
                 place.function, name);
    std::abort();
}
