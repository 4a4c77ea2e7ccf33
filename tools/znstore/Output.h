#pragma once

#include "core/types/ZnString.h"

#include <string>
#include <string_view>

namespace znstore {

/// Standard output, gathered into large writes, whose failure ends the program with an exit code.
///
/// Thread: one. Owner: main. Where the reader of a pipe has ended, the system's signal ends the program; if the signal
/// is ignored, the write fails, and that is no failure of the program.
class Output {
public:
    Output() = default;
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    void write(std::string_view bytes);
    void write(char byte) { write(std::string_view(&byte, 1)); }
    void writeEscaped(std::string_view bytes);
    template <typename... Parts>
    void line(const Parts&... parts) {
        (write(view_(parts)), ...);
        write('\n');
    }
    /// Writes what has been gathered, for who waits for it.
    void flush();
    /// False when nothing that is written arrives any more: long work may stop.
    bool isOpen() const noexcept { return error_ == 0; }
    /// Writes the rest. Gives `exitCode`, or that of a failed write with a line on standard error.
    int finish(int exitCode);

private:
    static std::string_view view_(const ZnString& text) { return text.view(); }
    static std::string_view view_(std::string_view text) { return text; }
    static std::string_view view_(const char* text) { return text; }

    std::string pending_;
    int error_ = 0; // the system's, of the first write that failed
};

} // namespace znstore
