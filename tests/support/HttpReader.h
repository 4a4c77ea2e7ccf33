#pragma once

#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

/// A second, plain reader of HTTP/1 messages, after RFC 9112 and independent of the code under test. It knows no limits
/// and reads complete texts only.
namespace http_reader {

struct Message {
    bool isComplete = false;
    std::string error;                         // why the text is no message; empty: it is one, or its beginning
    std::string start;                         // first line
    std::map<std::string, std::string> fields; // names in lower case, repeated ones joined with ","
    std::string body;
    std::size_t byteCount = 0; // of the whole message
};

inline std::string lower(std::string text) {
    for (char& c : text)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    return text;
}

inline std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(" \t");
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(" \t") + 1 - first);
}

class Reader {
public:
    explicit Reader(std::string_view text) : text_(text) {}

    /// `bodyless`: no body follows, whatever the head says.
    Message read(bool isResponse, bool bodyless) {
        while (!isResponse && text_.substr(at_, 2) == "\r\n")
            at_ += 2;
        if (line_(&message_.start) && fields_(&message_.fields)) {
            const int status = isResponse ? std::atoi(message_.start.substr(9, 3).c_str()) : 0;
            const bool never = bodyless || (isResponse && (status < 200 || status == 204 || status == 304));
            message_.isComplete = never || body_(isResponse);
        }
        message_.byteCount = at_;
        return message_;
    }

private:
    bool fail_(const char* error) {
        message_.error = error;
        return false;
    }

    bool line_(std::string* line) {
        const auto end = text_.find("\r\n", at_);
        if (end == std::string_view::npos)
            return false;
        *line = text_.substr(at_, end - at_);
        at_ = end + 2;
        return line->find_first_of("\r\n") == std::string::npos || fail_("line end inside a line");
    }

    bool fields_(std::map<std::string, std::string>* fields) {
        std::string line;
        while (line_(&line)) {
            if (line.empty())
                return true;
            const auto colon = line.find(':');
            if (colon == std::string::npos || colon == 0 ||
                line.substr(0, colon).find_first_of(" \t") != std::string::npos)
                return fail_("no field");
            std::string& value = (*fields)[lower(line.substr(0, colon))];
            value += (value.empty() ? "" : ",") + trimmed(line.substr(colon + 1));
        }
        return false;
    }

    bool take_(std::size_t byteCount) {
        if (text_.size() - at_ < byteCount)
            return false;
        message_.body += text_.substr(at_, byteCount);
        at_ += byteCount;
        return true;
    }

    bool number_(const std::string& digits, int base, std::size_t* value) {
        const char* const allowed = base == 10 ? "0123456789" : "0123456789abcdefABCDEF";
        if (digits.empty() || digits.find_first_not_of(allowed) != std::string::npos)
            return fail_("no number");
        *value = std::strtoull(digits.c_str(), nullptr, base);
        return true;
    }

    bool body_(bool isResponse) {
        const auto coding = message_.fields.find("transfer-encoding");
        const auto length = message_.fields.find("content-length");
        std::size_t byteCount = 0;
        if (coding != message_.fields.end() && length != message_.fields.end())
            return fail_("two framings");
        if (coding != message_.fields.end())
            return lower(coding->second) == "chunked" ? chunks_() : fail_("unknown coding");
        if (length != message_.fields.end())
            return number_(length->second, 10, &byteCount) && take_(byteCount);
        return isResponse ? take_(text_.size() - at_) : true;
    }

    bool chunks_() {
        std::string line;
        while (line_(&line)) {
            std::size_t byteCount = 0;
            if (!number_(line.substr(0, line.find(';')), 16, &byteCount))
                return false;
            std::map<std::string, std::string> trailers;
            if (byteCount == 0)
                return fields_(&trailers);
            if (!take_(byteCount))
                return false;
            if (text_.substr(at_, 2) != "\r\n")
                return text_.size() - at_ >= 2 ? fail_("no line end behind a chunk") : false;
            at_ += 2;
        }
        return false;
    }

    const std::string_view text_;
    std::size_t at_ = 0;
    Message message_;
};

inline Message readRequest(std::string_view text) {
    return Reader(text).read(false, false);
}

inline Message readResponse(std::string_view text, std::string_view method) {
    return Reader(text).read(true, method == "HEAD");
}

} // namespace http_reader
