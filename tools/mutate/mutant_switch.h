#pragma once

// What the sources of a mutated build are rewritten with. All mutants of the tree are compiled into
// one build; CORVIK_MUTANT in the environment says which of them is on. With CORVIK_MUTANT_REACHED,
// the name of a file of one byte a mutant, each process marks there the mutants that it comes by.
//
// Included ahead of every source by the compiler's command line.

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mutate {

// The system is called directly: tests count, and fail, the calls of the C library.
inline unsigned char* map_marks() {
    const char* name = ::getenv("CORVIK_MUTANT_REACHED");
    if (name == nullptr) {
        return nullptr;
    }
    const long file = ::syscall(SYS_open, name, O_RDWR | O_CLOEXEC);
    if (file < 0) {
        return nullptr;
    }
    const long size = ::syscall(SYS_lseek, file, 0, SEEK_END);
    const long at = ::syscall(SYS_mmap, nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ::syscall(SYS_close, file);
    return at > 0 ? reinterpret_cast<unsigned char*>(at) : nullptr;
}

inline int chosen_mutant() {
    const char* number = ::getenv("CORVIK_MUTANT");
    return number == nullptr ? 0 : ::atoi(number);
}

inline const int chosen = chosen_mutant();
inline unsigned char* const marks = map_marks();

// Not for the compiler to work out ahead: a constant would not change with the mutant.
inline bool on(int id) {
    if (marks != nullptr) {
        marks[id] = 1;
    }
    return chosen == id;
}

template <class Value>
constexpr bool flip(int id, const Value& value) {
    const bool negated = on(id);
    return static_cast<bool>(value) != negated;
}

// An integer constant, one more (id) and one less (id + 1).
template <class Value>
constexpr Value number(int id, Value value) {
    if (on(id)) {
        return static_cast<Value>(value + 1);
    }
    return on(id + 1) ? static_cast<Value>(value - 1) : value;
}

template <class Value>
constexpr Value one_more(int id, Value value) {
    return on(id) ? static_cast<Value>(value + 1) : value;
}

// Relations: the other boundary (id) and the negation (id + 1).
template <class Left, class Right>
constexpr bool less(int id, const Left& left, const Right& right) {
    return on(id) ? left <= right : flip(id + 1, left < right);
}
template <class Left, class Right>
constexpr bool less_equal(int id, const Left& left, const Right& right) {
    return on(id) ? left < right : flip(id + 1, left <= right);
}
template <class Left, class Right>
constexpr bool greater(int id, const Left& left, const Right& right) {
    return on(id) ? left >= right : flip(id + 1, left > right);
}
template <class Left, class Right>
constexpr bool greater_equal(int id, const Left& left, const Right& right) {
    return on(id) ? left > right : flip(id + 1, left >= right);
}

// Arithmetic, and what it is swapped for.
template <class Left, class Right>
constexpr auto add(int id, const Left& left, const Right& right) {
    return on(id) ? left - right : left + right;
}
template <class Left, class Right>
constexpr auto subtract(int id, const Left& left, const Right& right) {
    return on(id) ? left + right : left - right;
}
template <class Left, class Right>
constexpr auto multiply(int id, const Left& left, const Right& right) {
    return on(id) ? left / right : left * right;
}
template <class Left, class Right>
constexpr auto divide(int id, const Left& left, const Right& right) {
    return on(id) ? left * right : left / right;
}
template <class Left, class Right>
constexpr auto remainder(int id, const Left& left, const Right& right) {
    return on(id) ? left * right : left % right;
}
template <class Left, class Right>
constexpr auto bit_and(int id, const Left& left, const Right& right) {
    return on(id) ? left | right : left & right;
}
template <class Left, class Right>
constexpr auto bit_or(int id, const Left& left, const Right& right) {
    return on(id) ? left & right : left | right;
}
template <class Left, class Right>
constexpr auto shift_left(int id, const Left& left, const Right& right) {
    return on(id) ? left >> right : left << right;
}
template <class Left, class Right>
constexpr auto shift_right(int id, const Left& left, const Right& right) {
    return on(id) ? left << right : left >> right;
}

template <class Left, class Right>
constexpr Left& add_to(int id, Left& left, const Right& right) {
    return on(id) ? left -= right : left += right;
}
template <class Left, class Right>
constexpr Left& subtract_from(int id, Left& left, const Right& right) {
    return on(id) ? left += right : left -= right;
}
template <class Left, class Right>
constexpr Left& multiply_by(int id, Left& left, const Right& right) {
    return on(id) ? left /= right : left *= right;
}
template <class Left, class Right>
constexpr Left& or_into(int id, Left& left, const Right& right) {
    return on(id) ? left &= right : left |= right;
}
template <class Left, class Right>
constexpr Left& and_into(int id, Left& left, const Right& right) {
    return on(id) ? left |= right : left &= right;
}

template <class Value>
constexpr Value& up(int id, Value& value) {
    return on(id) ? --value : ++value;
}
template <class Value>
constexpr Value& down(int id, Value& value) {
    return on(id) ? ++value : --value;
}
template <class Value>
constexpr Value up_later(int id, Value& value) {
    return on(id) ? value-- : value++;
}
template <class Value>
constexpr Value down_later(int id, Value& value) {
    return on(id) ? value++ : value--;
}

}  // namespace mutate
