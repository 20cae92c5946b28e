#pragma once

// Assertions on arguments. They are active in every build type, because the callers of these
// functions rely on the process ending at the spot of a programming error.

// Where a checked argument belongs: the source unit as the message names it, the line, and the
// function with its full signature.
struct CheckedPlace {
    const char* unit;
    int line;
    const char* function;
};

// Writes "corvik: UNIT:LINE: FUNCTION: Assertion `NAME' failed.\n" to standard error and aborts.
[[noreturn]] void abort_on_argument(const char* name, const CheckedPlace& place);

// Returns when `holds` is true, and ends the process as above when it is not.
inline void check_argument(bool holds, const char* name, const CheckedPlace& place) {
    if (!holds) {
        abort_on_argument(name, place);
    }
}
