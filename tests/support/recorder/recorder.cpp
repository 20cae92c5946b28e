// A registry client that notes how it is called and answers by a table, both in the folder named by
// CORVIK_RECORDER.
//
//   answers   texts ended by NUL: for each rule the number of its patterns, the patterns, how often
//             it may be used (0: always), exit status, signal; later rules go before earlier ones.
//             A pattern is "=TEXT" (this argument), "^TEXT" (an argument that begins so), "?" (any
//             argument) or "*" (all further arguments, also none).
//   R.out R.err R.doc   what rule number R prints, prints on standard error, and writes into the
//             file named by the last argument; each may be missing.
//   calls     texts ended by NUL, for each call: number of arguments, rule used (-1: none), the
//             arguments.
//   import-N  what the file given to the import with call number N held.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Words = std::vector<std::string>;

constexpr int no_rule = -1;

struct Rule {
    int number = no_rule;
    Words patterns;
    int times = 0;
    int status = 0;
    int signal = 0;
};

struct Call {
    int rule = no_rule;
    Words words;
};

std::optional<std::string> read_file(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return std::nullopt;
    }
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

/// Takes texts ended by NUL one after the other.
class TextReader {
public:
    explicit TextReader(std::string text) : text_(std::move(text)) {}

    [[nodiscard]] bool at_end() const { return position_ >= text_.size(); }

    std::string text() {
        const std::size_t end = std::min(text_.find('\0', position_), text_.size());
        std::string result = text_.substr(position_, end - position_);
        position_ = end + 1;
        return result;
    }

    int number() { return std::stoi(text()); }

    Words texts(int count) {
        Words result;
        for (int i = 0; i < count; ++i) {
            result.push_back(text());
        }
        return result;
    }

private:
    std::string text_;
    std::size_t position_ = 0;
};

std::vector<Rule> read_rules(const std::filesystem::path& folder) {
    TextReader reader(read_file(folder / "answers").value_or(""));
    std::vector<Rule> rules;
    while (!reader.at_end()) {
        Rule rule;
        rule.number = static_cast<int>(rules.size());
        rule.patterns = reader.texts(reader.number());
        rule.times = reader.number();
        rule.status = reader.number();
        rule.signal = reader.number();
        rules.push_back(rule);
    }
    return rules;
}

std::vector<Call> read_calls(const std::filesystem::path& folder) {
    TextReader reader(read_file(folder / "calls").value_or(""));
    std::vector<Call> calls;
    while (!reader.at_end()) {
        Call call;
        const int count = reader.number();
        call.rule = reader.number();
        call.words = reader.texts(count);
        calls.push_back(call);
    }
    return calls;
}

bool matches_word(std::string_view pattern, std::string_view word) {
    const std::string_view text = pattern.substr(1);
    switch (pattern.front()) {
        case '=':
            return word == text;
        case '^':
            return word.starts_with(text);
        default:
            return pattern == "?";
    }
}

bool matches(const Words& patterns, const Words& arguments) {
    const bool open = !patterns.empty() && patterns.back() == "*";
    const std::size_t fixed = patterns.size() - (open ? 1 : 0);
    if (arguments.size() < fixed || (!open && arguments.size() > fixed)) {
        return false;
    }
    return std::equal(patterns.begin(), patterns.begin() + static_cast<std::ptrdiff_t>(fixed),
                      arguments.begin(), matches_word);
}

bool is_used_up(const Rule& rule, const std::vector<Call>& calls) {
    const auto uses = std::count_if(calls.begin(), calls.end(),
                                    [&](const Call& call) { return call.rule == rule.number; });
    return rule.times > 0 && uses >= rule.times;
}

Rule choose_rule(const std::vector<Rule>& rules, const std::vector<Call>& calls,
                 const Words& words) {
    const Words arguments(words.begin() + 1, words.end());
    const auto rule = std::find_if(rules.rbegin(), rules.rend(), [&](const Rule& each) {
        return matches(each.patterns, arguments) && !is_used_up(each, calls);
    });
    return rule == rules.rend() ? Rule{} : *rule;
}

/// Notes the call and returns the rule for it; no two recorders do this at the same time.
Rule note_call(const std::filesystem::path& folder, const Words& words) {
    const int file =
        open((folder / "calls").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (file < 0 || flock(file, LOCK_EX) != 0) {
        throw std::runtime_error("calls cannot be noted");
    }
    const std::vector<Call> calls = read_calls(folder);
    Rule rule = choose_rule(read_rules(folder), calls, words);
    const char end = '\0';
    std::string note = std::to_string(words.size()) + end + std::to_string(rule.number) + end;
    for (const std::string& word : words) {
        note += word + end;
    }
    if (words.size() > 2 && words[1] == "import") {
        std::error_code error;
        std::filesystem::copy_file(words.back(),
                                   folder / ("import-" + std::to_string(calls.size())), error);
    }
    const bool noted = write(file, note.data(), note.size()) == static_cast<ssize_t>(note.size());
    close(file);
    if (!noted) {
        throw std::runtime_error("calls cannot be noted");
    }
    return rule;
}

void end_by_signal(int signal) {
    const rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    std::signal(signal, SIG_DFL);
    raise(signal);
}

void answer(const std::filesystem::path& folder, const Rule& rule, const Words& words) {
    const std::string name = std::to_string(rule.number);
    std::cerr << read_file(folder / (name + ".err")).value_or("") << std::flush;
    if (const auto document = read_file(folder / (name + ".doc"))) {
        std::ofstream(words.back(), std::ios::binary) << *document;
    }
    std::cout << read_file(folder / (name + ".out")).value_or("") << std::flush;
}

}  // namespace

int main(int argc, char** argv) {
    constexpr int out_of_order = 125;
    const char* folder = std::getenv("CORVIK_RECORDER");
    if (folder == nullptr) {
        std::cerr << "regsh-recorder: CORVIK_RECORDER is not set\n";
        return out_of_order;
    }
    try {
        const Words words(argv, argv + argc);
        const Rule rule = note_call(folder, words);
        answer(folder, rule, words);
        if (rule.signal != 0) {
            end_by_signal(rule.signal);
        }
        return rule.status;
    } catch (const std::exception& failure) {
        std::cerr << "regsh-recorder: " << failure.what() << "\n";
        return out_of_order;
    }
}
