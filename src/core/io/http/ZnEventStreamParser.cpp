#include "core/io/http/ZnEventStreamParser.h"

#include <algorithm>
#include <charconv>
#include <system_error>
#include <utility>

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

bool isLineEnd(char c) {
    return c == '\n' || c == '\r';
}

} // namespace

bool ZnEventStreamParser::feed(std::string_view bytes, const Handler& handler) {
    if (!isBehindMark_ && !skipByteOrderMark_(&bytes))
        return true;
    while (!bytes.empty()) {
        if (skipsLineFeed_ && bytes.front() == '\n')
            bytes.remove_prefix(1);
        skipsLineFeed_ = false;
        const auto lineBytes =
            static_cast<std::size_t>(std::find_if(bytes.begin(), bytes.end(), isLineEnd) - bytes.begin());
        const std::string_view piece = bytes.substr(0, lineBytes);
        if (lineBytes == bytes.size()) {
            line_.append(piece);
            return line_.size() <= maxEventBytes_;
        }
        skipsLineFeed_ = bytes[lineBytes] == '\r';
        bytes.remove_prefix(lineBytes + 1);
        std::string begun = std::move(line_);
        line_.clear();
        const Step_ step = takeLine_(begun.empty() ? piece : std::string_view(begun.append(piece)), handler);
        if (step != Step_::GoOn)
            return step == Step_::Stopped;
    }
    return true;
}

/// False as long as the mark may still be coming.
bool ZnEventStreamParser::skipByteOrderMark_(std::string_view* bytes) {
    while (markBytes_ < kByteOrderMark.size()) {
        if (bytes->empty())
            return false;
        if (bytes->front() != kByteOrderMark[markBytes_]) { // it was text
            line_.assign(kByteOrderMark.substr(0, markBytes_));
            break;
        }
        ++markBytes_;
        bytes->remove_prefix(1);
    }
    isBehindMark_ = true;
    return true;
}

ZnEventStreamParser::Step_ ZnEventStreamParser::takeLine_(std::string_view line, const Handler& handler) {
    if (line.size() > maxEventBytes_)
        return Step_::TooLarge;
    if (!line.empty()) {
        const std::size_t colonAt = std::min(line.find(':'), line.size());
        std::string_view value = line.substr(std::min(colonAt + 1, line.size()));
        if (value.starts_with(' '))
            value.remove_prefix(1);
        takeField_(line.substr(0, colonAt), value); // of a comment the name is empty
        return data_.size() <= maxEventBytes_ ? Step_::GoOn : Step_::TooLarge;
    }
    const std::string type = std::exchange(type_, {});
    const std::string data = std::exchange(data_, {});
    if (id_ != lastEventId_)
        lastEventId_ = id_;
    if (data.empty())
        return Step_::GoOn;
    return handler(type, std::string_view(data).substr(0, data.size() - 1)) ? Step_::GoOn : Step_::Stopped;
}

void ZnEventStreamParser::takeField_(std::string_view name, std::string_view value) {
    if (name == "event")
        type_ = value;
    else if (name == "data")
        data_.append(value).push_back('\n');
    else if (name == "id" && value.find('\0') == std::string_view::npos)
        id_ = value;
    else if (name == "retry")
        takeRetry_(value);
}

void ZnEventStreamParser::takeRetry_(std::string_view value) {
    int milliseconds = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), milliseconds);
    if (error == std::errc() && end == value.data() + value.size() && milliseconds >= 0)
        retryMs_ = milliseconds;
}
