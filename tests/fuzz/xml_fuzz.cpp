// Any text parses or is refused with NTiXmlException, in the same way whether its tree stands in it
// or beside it. What is printed of a tree reads back as the same tree, where it can.
#include "common/tinyxml.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/tree.h"

namespace {

bool parses_copied(NTiXmlDoc& document, const std::string& text) {
    try {
        document.ParseCopied(text);
    } catch (const NTiXmlException&) {
        return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    NTiXmlDoc borrowed;
    NTiXmlDoc copied;
    const bool accepted = parses(borrowed, text);
    const std::string tree = describe(borrowed);
    expect(parses_copied(copied, text) == accepted && describe(copied) == tree,
           "a copied text parses otherwise");
    const std::string printed = ToString(borrowed);
    NTiXmlDoc again;
    const bool reads_back = parses(again, printed);
    if (!printed.empty() && prints_exactly(borrowed)) {
        expect(reads_back, "what was printed is refused");
        expect(describe(again) == tree, "what was printed parses to another tree");
    }
    return 0;
}
