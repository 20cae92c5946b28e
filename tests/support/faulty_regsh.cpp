// A registry client that goes wrong at one of its calls. The folder named by FAULTY_REGSH holds
//
//   plan       "K FAULT": what goes wrong at the call with this number, counted from 1
//   count      a byte for each call so far
//   calls      texts ended by NUL, for each call: number of arguments, the arguments
//   import-K   what the file given to the import with call number K held
//   WORDS      what a call with these words, "!" in them for each "/", prints; of an export without
//              its last word, what it writes into the file that the last word names
//
// Where FAULTY_REGSH_BEFORE names another client, that one does the work of the calls that do not
// go wrong.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Words = std::vector<std::string>;
using Text = std::optional<std::string>;

// Files

std::string take_all(int file) {
    std::string content;
    std::array<char, 4096> block{};
    for (;;) {
        const ssize_t got = read(file, block.data(), block.size());
        if (got <= 0) {
            break;
        }
        content.append(block.data(), static_cast<std::size_t>(got));
    }
    close(file);
    return content;
}

Text read_file(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    return file < 0 ? std::nullopt : Text(take_all(file));
}

// The reader of standard output may be gone before the end.
void put(int file, std::string_view text) {
    while (!text.empty()) {
        const ssize_t took = write(file, text.data(), text.size());
        if (took <= 0) {
            return;
        }
        text.remove_prefix(static_cast<std::size_t>(took));
    }
}

void write_file(const std::string& path, std::string_view text, int mode) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | mode, 0644);
    put(file, text);
    close(file);
}

// Calls

std::string folder() {
    const char* const name = std::getenv("FAULTY_REGSH");
    return std::string(name == nullptr ? "." : name) + "/";
}

const char* client_before() {
    return std::getenv("FAULTY_REGSH_BEFORE");
}

bool is_export(const Words& words) {
    return words.size() == 3 && words.front() == "export";
}

// Returns the call's number.
std::size_t note_call(const Words& words) {
    const char end = '\0';
    std::string note = std::to_string(words.size()) + end;
    for (const std::string& word : words) {
        note += word + end;
    }
    write_file(folder() + "calls", note, O_APPEND);
    write_file(folder() + "count", ".", O_APPEND);
    struct stat facts {};
    const bool counted = stat((folder() + "count").c_str(), &facts) == 0;
    const std::size_t number = counted ? static_cast<std::size_t>(facts.st_size) : 0;
    if (words.size() == 2 && words.front() == "import") {
        const Text document = read_file(words.back());
        if (document) {
            write_file(folder() + "import-" + std::to_string(number), *document, O_TRUNC);
        }
    }
    return number;
}

Text prepared(const Words& words) {
    std::string name;
    for (std::size_t at = 0; at < words.size() - (is_export(words) ? 1 : 0); ++at) {
        name += (at == 0 ? "" : " ") + words[at];
    }
    std::replace(name.begin(), name.end(), '/', '!');
    return read_file(folder() + name);
}

// The prints of the client that does the work.
std::string asked(char* const arguments[]) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return "";
    }
    const pid_t process = fork();
    if (process == 0) {
        dup2(ends[1], STDOUT_FILENO);
        execv(client_before(), arguments);
        _exit(126);
    }
    close(ends[1]);
    std::string output = take_all(ends[0]);
    waitpid(process, nullptr, 0);
    return output;
}

Text right_answer(const Words& words, char* const arguments[]) {
    if (client_before() == nullptr) {
        return prepared(words);
    }
    const std::string output = asked(arguments);
    return is_export(words) ? read_file(words.back()) : output;
}

void give(const Words& words, const Text& answer) {
    if (answer && is_export(words)) {
        write_file(words.back(), *answer, O_TRUNC);
    } else if (answer) {
        put(STDOUT_FILENO, *answer);
    }
}

// Faults

Text nothing(const Text& /*right*/) {
    return std::nullopt;
}
Text whole(const Text& right) {
    return right;
}
Text empty(const Text& /*right*/) {
    return "";
}
Text one_word(const Text& /*right*/) {
    return "rubbish\n";
}
Text three_words(const Text& /*right*/) {
    return "some rubbish more\n";
}
Text long_line(const Text& /*right*/) {
    return std::string(100'000, 'x') + '\n';
}
// NUL bytes between all others, and ahead of them.
Text with_nuls(const Text& right) {
    std::string text(1, '\0');
    for (const char c : right.value_or("rubbish\n")) {
        text += {c, '\0'};
    }
    return text;
}
Text a_nul_inside(const Text& right) {
    std::string text = right.value_or("rubbish\n");
    text.insert(text.size() / 2, 1, '\0');
    return text;
}
Text with_crlf(const Text& right) {
    std::string text;
    for (const char c : right.value_or("rubbish\n")) {
        text += c == '\n' ? "\r\n" : std::string(1, c);
    }
    return text;
}
Text half(const Text& right) {
    return right.value_or("").substr(0, right.value_or("").size() / 2);
}
// Without the last character and the line ends behind it.
Text all_but_the_end(const Text& right) {
    const std::string text = right.value_or("");
    const std::size_t last = text.find_last_not_of('\n');
    return text.substr(0, last == std::string::npos ? 0 : last);
}

struct Fault {
    std::string_view name;
    Text (*answer)(const Text& right);
    int status = 0;
    int signal = 0;
};
constexpr std::array faults = {
    Fault{"returns-1", nothing, 1},
    Fault{"returns-127", nothing, 127},
    Fault{"done-returns-1", whole, 1},
    Fault{"killed", nothing, 0, SIGKILL},
    Fault{"crashes", nothing, 0, SIGSEGV},
    Fault{"nothing", nothing},
    Fault{"empty", empty},
    Fault{"one-word", one_word},
    Fault{"three-words", three_words},
    Fault{"long-line", long_line},
    Fault{"nuls", with_nuls},
    Fault{"a-nul", a_nul_inside},
    Fault{"crlf", with_crlf},
    Fault{"half", half},
    Fault{"all-but-the-end", all_but_the_end},
    Fault{"half-killed", half, 0, SIGKILL},
};

int go_wrong(const Fault& fault, const Words& words, char* const arguments[]) {
    const bool asks = fault.answer != nothing;
    give(words, fault.answer(asks ? right_answer(words, arguments) : std::nullopt));
    if (fault.signal != 0) {
        const rlimit no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        raise(fault.signal);
    }
    return fault.status;
}

// What goes wrong at this call; null for nothing.
const Fault* planned(std::size_t number) {
    const std::string plan = read_file(folder() + "plan").value_or("");
    for (const Fault& fault : faults) {
        if (plan == std::to_string(number) + " " + std::string(fault.name)) {
            return &fault;
        }
    }
    return nullptr;
}

}  // namespace

int main(int argc, char* argv[]) {
    constexpr int out_of_order = 126;
    const Words words(argv + 1, argv + argc);
    const std::size_t number = note_call(words);
    if (const Fault* fault = planned(number)) {
        return go_wrong(*fault, words, argv);
    }
    if (client_before() != nullptr) {
        execv(client_before(), argv);
        return out_of_order;
    }
    const Text answer = prepared(words);
    give(words, answer);
    return is_export(words) && !answer ? 1 : 0;
}
