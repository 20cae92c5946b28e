#include "common/argument_check.h"

#include "common/messages.h"

#include <cstdlib>

void abort_on_argument(const char* name, const CheckedPlace& place) {
    print_message("corvik: %s:%d: %s: Assertion `%s' failed.\n", place.unit, place.line,
                  place.function, name);
    std::abort();
}
