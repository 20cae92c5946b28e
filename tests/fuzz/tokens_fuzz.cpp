// The tokens and what was cut between them are the whole text, no token holds a delimiter but the
// unsplit rest, and trimming takes white space off the ends and nothing else.
#include "common/string_tokens.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

void check_tokens(const std::string& text, const std::string& delimiters, int most_splits) {
    const StringTokens tokens(text.c_str(), most_splits, delimiters.c_str());
    expect(most_splits <= 0 || tokens.count() <= most_splits + 1, "too many tokens");
    std::size_t at = 0;
    for (int i = 0; i < tokens.count(); ++i) {
        const std::string token = tokens.getToken(i);
        at = text.find_first_not_of(delimiters, at);
        expect(!token.empty() && text.compare(at, token.size(), token) == 0, "another token");
        at += token.size();
        const bool is_rest = most_splits > 0 && i == most_splits;
        expect(is_rest ? at == text.size() : token.find_first_of(delimiters) == std::string::npos,
               "a token that is cut at another place");
    }
    expect(text.find_first_not_of(delimiters, at) == std::string::npos, "a token is missing");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto texts = cut_input(data, size, 3);
    const std::string text = texts[2].c_str();
    check_tokens(text, texts[1].c_str(), texts[0].empty() ? 0 : texts[0][0] - '0');
    std::string copy = text;
    const std::string trimmed = trim_string(copy.data(), kTrimBoth);
    expect(trimmed == without_white_ends(text), "trimmed otherwise");
    return 0;
}
