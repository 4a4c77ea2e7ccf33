#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

/// Finds the lines of a message in its bytes. It looks at no byte twice, however the input is cut.
///
/// Thread: a value.
class ZnHttpLineReader_ {
public:
    /// A bare LF ends no line. With `strictGrammar` it does so without being taken away, and whoever reads the line
    /// refuses it, at once and not when the time is up.
    explicit ZnHttpLineReader_(bool strictGrammar) noexcept : strictGrammar_(strictGrammar) {}

    /// Takes one line off the front of `*input`, and gives it without its CRLF. False: there is none yet, and the next
    /// input begins with the bytes of this one.
    bool take(std::string_view* input, std::string_view* line) {
        std::size_t from = std::exchange(scannedBytes_, 0);
        for (;;) {
            const std::size_t lineFeed = input->find('\n', from);
            if (lineFeed == std::string_view::npos) {
                scannedBytes_ = input->size();
                return false;
            }
            const bool hasReturn = lineFeed > 0 && (*input)[lineFeed - 1] == '\r';
            if (hasReturn || strictGrammar_) {
                *line = input->substr(0, hasReturn ? lineFeed - 1 : lineFeed + 1);
                input->remove_prefix(lineFeed + 1);
                return true;
            }
            from = lineFeed + 1;
        }
    }

    /// Length of an unfinished line. A CR at the end may be the first half of its CRLF and does not count: a line that
    /// just fits must pass wherever the input is cut.
    static std::uint64_t unfinishedBytes(std::string_view input) noexcept {
        return input.size() - (input.ends_with('\r') ? 1 : 0);
    }

private:
    const bool strictGrammar_;
    std::size_t scannedBytes_ = 0; // of the input, known to hold no line end
};
