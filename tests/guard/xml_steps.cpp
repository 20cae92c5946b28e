// Parses a document, prints it and destroys it: each step is a function that a profiler finds by
// its name. The printed text goes to standard output, so that whoever counts sees that the work was
// done.

#include "common/filefuncs.h"
#include "common/tinyxml.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <utility>

extern "C" {

[[gnu::noinline]] void step_parse(NTiXmlDoc* document) {
    document->Parse(nullptr);
}

[[gnu::noinline]] void step_print(const NTiXmlDoc* document, NTiXmlOutBuffer* out) {
    document->Print(*out, 0);
}

[[gnu::noinline]] void step_destroy(std::unique_ptr<NTiXmlDoc>* document) {
    document->reset();
}

}  // extern "C"

namespace {

void run_steps(std::string text) {
    auto document = std::make_unique<NTiXmlDoc>(std::move(text), false);
    NTiXmlOutBuffer out;
    step_parse(document.get());
    step_print(document.get(), &out);
    step_destroy(&document);
    std::fwrite(out.Text(), 1, out.TextSize(), stdout);
}

}  // namespace

int main(int argc, char* argv[]) {
    std::string text;
    if (argc != 2 || !readfile(argv[1], text)) {
        std::fputs("usage: xml_steps FILE\n", stderr);
        return EXIT_FAILURE;
    }
    try {
        run_steps(std::move(text));
    } catch (const TException& failure) {
        std::fprintf(stderr, "xml_steps: %s\n", failure.Message());
        return EXIT_FAILURE;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "xml_steps: %s\n", failure.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
