#include "core/io/http/ZnHttpMultipartStream_.h"

#include "core/fs/ZnDir.h"
#include "core/io/http/ZnHttpMultipart.h"
#include "core/platform/ZnDirPlatform.h"
#include "core/platform/ZnMonotonicClock.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <utility>

namespace {

constexpr std::string_view kHeaderEnd = "\r\n\r\n";

/// As bytes.find(text), which stops at every CR of a file: the system's search goes ahead by the length of the text.
std::size_t indexOf(std::string_view bytes, std::string_view text) noexcept {
    const void* found = ::memmem(bytes.data(), bytes.size(), text.data(), text.size());
    return found == nullptr ? std::string_view::npos
                            : static_cast<std::size_t>(static_cast<const char*>(found) - bytes.data());
}

/// Unlike an address, never the same for two readers of the process: the handler of a request whose connection and
/// files are gone must not find another connection's upload under a name that it still has. The clock tells processes
/// apart.
unsigned long long nextReaderNumber() {
    static std::atomic<unsigned long long> next{static_cast<unsigned long long>(monotonicNowNs())};
    return next.fetch_add(1, std::memory_order_relaxed); // only tells one reader from another
}

// A taken name is what another process has left or someone has put there; many in a row are no accident.
constexpr int kMaxNameAttempts = 16;

} // namespace

ZnHttpMultipartStream_::ZnHttpMultipartStream_() : readerNumber_(nextReaderNumber()) {}

bool ZnHttpMultipartStream_::begin(const ZnString& boundary, const ZnHttpLimits& limits, const ZnString& tempDir,
                                   ZnString* errorText) {
    errorText->clear();
    reset();
    if (boundary.isEmpty())
        return fail_("Missing multipart boundary", errorText);
    limits_ = limits;
    crlfDelimiter_.append("\r\n--");
    crlfDelimiter_.append(boundary.view());
    if (!limits.streamMultipart)
        return true;
    const ZnString directory =
        znDirPlatform()->absolutePath(tempDir.isEmpty() ? ZnHttpLimits().multipartTempDir : tempDir);
    if (!ZnDir::mkpathAt(directory, false))
        return fail_("Unable to create multipart temp directory", errorText);
    filePrefix_ =
        directory + (directory.endsWith("/") ? "multipart_" : "/multipart_") + ZnString::number(readerNumber_) + "_";
    return true;
}

bool ZnHttpMultipartStream_::feed(std::string_view bytes, ZnString* errorText) {
    errorText->clear();
    if (state_ < State::Done)
        buffer_.append(bytes);
    const bool isValid = process_(errorText);
    if (state_ >= State::Done)
        buffer_.release();
    return isValid;
}

bool ZnHttpMultipartStream_::finish(ZnHttpRequest& request, ZnString* errorText) {
    if (state_ != State::Done)
        return fail_("Incomplete multipart body", errorText);
    request.multipartParts = std::move(parts_);
    request.formFields = std::move(fields_);
    request.tempFiles = std::move(tempFiles_);
    request.multipartParsed = true;
    reset();
    return true;
}

void ZnHttpMultipartStream_::abort() {
    reset();
    state_ = State::Failed;
}

void ZnHttpMultipartStream_::reset() {
    file_.reset();
    tempFiles_.reset();
    state_ = State::Preamble;
    crlfDelimiter_.clear();
    buffer_.release();
    scannedBytes_ = 0;
    preambleSkipped_ = false;
    parts_.clear();
    fields_.clear();
    current_ = ZnHttpMultipartPart();
}

bool ZnHttpMultipartStream_::process_(ZnString* errorText) {
    if (state_ == State::Failed)
        return fail_("Malformed multipart body", errorText);
    while (step_(errorText)) {
    }
    return state_ != State::Failed;
}

/// One step of the state machine. False: it needs more input, has come to the end, or has failed.
bool ZnHttpMultipartStream_::step_(ZnString* errorText) {
    switch (state_) {
    case State::Preamble: return onPreamble_(errorText);
    case State::PartHeaders: return onPartHeaders_(errorText);
    case State::PartData: return onPartData_(errorText);
    case State::Done:
    case State::Failed: return false;
    }
    return false;
}

bool ZnHttpMultipartStream_::onPreamble_(ZnString* errorText) {
    // Only once, or the number of CRLFs that pass would depend on where the input is cut.
    if (buffer_.size() >= 2 && !std::exchange(preambleSkipped_, true) && buffer_.view().starts_with("\r\n"))
        buffer_.consumeFront(2);
    const std::size_t delimiterBytes = delimiter_().size();
    if (buffer_.size() < delimiterBytes)
        return false;
    if (!buffer_.view().starts_with(delimiter_()))
        return fail_("Malformed multipart boundary", errorText);
    if (buffer_.size() < delimiterBytes + 2)
        return false;
    return passDelimiter_(delimiterBytes, errorText);
}

/// Consumes a delimiter, of which buffer_ begins with `delimiterBytes` bytes, and the two bytes behind it.
bool ZnHttpMultipartStream_::passDelimiter_(std::size_t delimiterBytes, ZnString* errorText) {
    const std::string_view behind = buffer_.view().substr(delimiterBytes, 2);
    if (behind != "--" && behind != "\r\n")
        return fail_("Malformed multipart boundary delimiter", errorText);
    state_ = behind == "--" ? State::Done : State::PartHeaders;
    buffer_.consumeFront(delimiterBytes + 2);
    return true;
}

bool ZnHttpMultipartStream_::onPartHeaders_(ZnString* errorText) {
    const std::string_view bytes = buffer_.view();
    const std::size_t headerBytes = bytes.find(kHeaderEnd, scannedBytes_);
    if (headerBytes == std::string_view::npos) {
        if (bytes.size() < kHeaderEnd.size())
            return false;
        if (bytes.size() - kHeaderEnd.size() > limits_.maxMultipartHeaderBytes)
            return fail_("Multipart part headers too large", errorText);
        scannedBytes_ = bytes.size() - (kHeaderEnd.size() - 1); // the last bytes may be the start of the end
        return false;
    }
    scannedBytes_ = 0;
    current_ = ZnHttpMultipartPart();
    if (!zn::http::parsePartHeaders(bytes.substr(0, headerBytes), limits_, &current_.headers, errorText) ||
        !zn::http::describePart(current_, errorText))
        return fail_(nullptr, errorText);
    buffer_.consumeFront(headerBytes + kHeaderEnd.size());
    if (current_.isFile && limits_.streamMultipart && !openFile_(errorText))
        return false;
    state_ = State::PartData;
    return true;
}

bool ZnHttpMultipartStream_::openFile_(ZnString* errorText) {
    for (int attempt = 0; attempt < kMaxNameAttempts; ++attempt) {
        const ZnString path = filePrefix_ + ZnString::number(static_cast<unsigned long long>(tempCounter_++)) + ".part";
        auto file = std::make_unique<ZnFile>(path);
        if (!file->createNew())
            continue;
        if (!tempFiles_)
            tempFiles_ = std::make_shared<ZnHttpTempFiles>();
        tempFiles_->add(path);
        file_ = std::move(file);
        current_.tempFilePath = path;
        current_.isTempFile = true;
        return true;
    }
    return fail_("Unable to open multipart temp file", errorText);
}

bool ZnHttpMultipartStream_::onPartData_(ZnString* errorText) {
    const std::string_view bytes = buffer_.view();
    const std::size_t delimiterBytes = crlfDelimiter_.size();
    const std::size_t found = indexOf(bytes, crlfDelimiter_.view());
    // Without a delimiter the last bytes may be its beginning.
    const std::size_t undecidedBytes = std::min(bytes.size(), delimiterBytes - 1);
    const std::size_t partBytes = found != std::string_view::npos ? found : bytes.size() - undecidedBytes;
    if (!writePart_(bytes.substr(0, partBytes), errorText))
        return false;
    buffer_.consumeFront(partBytes);
    if (buffer_.size() < delimiterBytes + 2)
        return false;
    return passDelimiter_(delimiterBytes, errorText) && finishPart_(errorText);
}

bool ZnHttpMultipartStream_::writePart_(std::string_view bytes, ZnString* errorText) {
    current_.size += bytes.size();
    if (!current_.isFile && current_.size > limits_.maxMultipartFieldBytes)
        return fail_("Multipart form field too large", errorText);
    if (!current_.isTempFile)
        current_.data.append(bytes);
    else if (!file_->writeBuffered(bytes))
        return fail_("Unable to write multipart file data", errorText);
    return true;
}

bool ZnHttpMultipartStream_::finishPart_(ZnString* errorText) {
    if (file_ && !file_->flush())
        return fail_("Unable to write multipart file data", errorText);
    file_.reset();
    if (parts_.size() >= limits_.maxMultipartParts)
        return fail_("Too many multipart parts", errorText);
    if (!current_.isFile && !current_.name.isEmpty())
        fields_.insert(current_.name, current_.data.toZnString());
    parts_.append(std::move(current_));
    return true;
}

/// `text` is null when the text stands in `*errorText` already.
bool ZnHttpMultipartStream_::fail_(const char* text, ZnString* errorText) {
    state_ = State::Failed;
    if (text != nullptr)
        *errorText = text;
    return false;
}
