#include "common/argument_check.h"

#include <cstdio>
#include <cstdlib>

void check_argument(bool holds, const char* name, const CheckedPlace& place) {
    if (holds) {
        return;
    }
    std::fprintf(stderr, "corvik: %s:%d: %s: Assertion `%s' failed.\n", place.unit, place.line,
                 place.function, name);
    std::abort();
}
