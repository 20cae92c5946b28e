#include "main/last_word.h"

#include "common/tinyxml.h"
#include "platform/image_id.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

namespace {

// Names what is being thrown without asking for memory, which may be what ran out.
void tell_exception() {
    try {
        throw;
    } catch (const TException& error) {
        std::fprintf(stderr, "corvik: %s\n", error.Message());
    } catch (const ImageIDException& error) {
        std::fprintf(stderr, "corvik: %s (neither /etc/systeminfo nor /etc/imageid gives one)\n",
                     error.what());
    } catch (const std::bad_alloc&) {
        std::fputs("corvik: out of memory\n", stderr);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "corvik: %s\n", error.what());
    } catch (...) {
        std::fputs("corvik: unknown failure\n", stderr);
    }
}

[[noreturn]] void end_abnormally() {
    if (std::current_exception() != nullptr) {
        tell_exception();
    } else {
        std::fputs("corvik: ended without an exception\n", stderr);
    }
    std::abort();
}

}  // namespace

void install_last_word() {
    std::set_terminate(end_abnormally);
}
