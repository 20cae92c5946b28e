#include "tests/fuzz/shell_line.h"

#include "tests/fuzz/fuzz_input.h"

#include <cctype>

namespace {

bool is_ordinary(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
           std::string_view("_./:@%+=,-").find(c) != std::string_view::npos;
}

class Reader {
public:
    explicit Reader(std::string_view line) : line_(line) {}

    // False at the end of a line that ends inside a quoted part.
    bool Read() {
        while (!line_.empty()) {
            if (!Take()) {
                return false;
            }
        }
        EndCommand();
        return true;
    }

    std::vector<Words> commands;

private:
    bool Take() {
        const char c = line_.front();
        line_.remove_prefix(1);
        switch (c) {
            case '\'':
                return Append(line_.find('\''), 1);
            case '\\':
                return Append(line_.empty() ? std::string_view::npos : 1, 0);
            case '"':
                expect(line_.substr(0, 1) == "\"", "a double quote with something behind it");
                return Append(0, 1);
            case ' ':
            case '\t':
                EndWord();
                return true;
            case ';':
            case '\n':
                EndCommand();
                return true;
            default:
                expect(is_ordinary(c), "a character that the shell acts on");
                word_ += c;
                in_word_ = true;
                return true;
        }
    }

    // Takes `size` characters as they are, and `skipped` behind them.
    bool Append(std::size_t size, std::size_t skipped) {
        if (size == std::string_view::npos) {
            return false;
        }
        word_ += line_.substr(0, size);
        line_.remove_prefix(size + skipped);
        in_word_ = true;
        return true;
    }

    void EndWord() {
        if (in_word_) {
            words_.push_back(word_);
        }
        word_.clear();
        in_word_ = false;
    }

    void EndCommand() {
        EndWord();
        if (!words_.empty()) {
            commands.push_back(words_);
        }
        words_.clear();
    }

    std::string_view line_;
    Words words_;
    std::string word_;
    bool in_word_ = false;
};

}  // namespace

std::optional<std::vector<Words>> shell_commands(std::string_view line) {
    Reader reader(line);
    return reader.Read() ? std::optional(reader.commands) : std::nullopt;
}
