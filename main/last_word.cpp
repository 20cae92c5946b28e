#include "main/last_word.h"

#include "common/tinyxml.h"
#include "platform/image_id.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

namespace {

// One line, whatever the message holds: names out of the command line may stand in it.
void tell(const char* message, const char* addition = "") {
    std::fputs("corvik: ", stderr);
    for (; *message != '\0'; ++message) {
        const bool control = *message > '\0' && *message < ' ';
        std::fputc(control ? '?' : *message, stderr);
    }
    std::fprintf(stderr, "%s\n", addition);
}

// Names what is being thrown without asking for memory, which may be what ran out.
void tell_exception() {
    try {
        throw;
    } catch (const TException& error) {
        tell(error.Message());
    } catch (const ImageIDException& error) {
        tell(error.what(), " (neither /etc/systeminfo nor /etc/imageid gives one)");
    } catch (const std::bad_alloc&) {
        tell("out of memory");
    } catch (const std::exception& error) {
        tell(error.what());
    } catch (...) {
        tell("unknown failure");
    }
}

[[noreturn]] void end_abnormally() {
    if (std::current_exception() != nullptr) {
        tell_exception();
    } else {
        tell("ended without an exception");
    }
    std::abort();
}

}  // namespace

void install_last_word() {
    std::set_terminate(end_abnormally);
}
