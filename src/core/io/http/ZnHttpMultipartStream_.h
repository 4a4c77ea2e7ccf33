#pragma once

#include "core/io/ZnFile.h"
#include "core/io/http/ZnHttpLimits.h"
#include "core/io/http/ZnHttpMultipartPart.h"
#include "core/io/http/ZnHttpRequest.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

/// Takes one "multipart/form-data" body after another apart as they come off the wire; where the input is cut does
/// not change the parts. Files go straight to the disk, and what stays in memory is what cannot be decided yet.
///
/// Thread: that of its parser, which owns it. Nothing here parks; writing a file may wait for the disk.
/// Owner of the files: this reader until finish() gives them to the request. Before that they are removed with the
/// body, at abort() and reset(), and with the reader itself.
/// Invariant: current_ is being filled exactly in PartData, and file_ is open there if it is a temporary file.
class ZnHttpMultipartStream_ {
public:
    enum class State : std::int32_t { Preamble = 0, PartHeaders = 1, PartData = 2, Done = 3, Failed = 4 };

    ZnHttpMultipartStream_();
    /// Prepares for a body; drops what is left of the one before. With limits.streamMultipart file parts go to files in
    /// `tempDir` (empty: the default one), which is made if necessary; else they stay in memory.
    bool begin(const ZnString& boundary, const ZnHttpLimits& limits, const ZnString& tempDir, ZnString* errorText);
    /// Takes the next bytes of the body. False for a malformed body, with a text for the peer; every further call
    /// fails too. Bytes after the closing delimiter are ignored.
    bool feed(std::string_view bytes, ZnString* errorText);
    /// After the last byte: gives parts, fields and files to the request and is ready for the next body.
    bool finish(ZnHttpRequest& request, ZnString* errorText);
    /// Gives the body up: as reset(), and Failed until the next begin().
    void abort();
    /// Forgets the body and removes its temporary files, those excepted that a request has got.
    void reset();

private:
    bool process_(ZnString* errorText);
    bool step_(ZnString* errorText);
    bool onPreamble_(ZnString* errorText);
    bool onPartHeaders_(ZnString* errorText);
    bool onPartData_(ZnString* errorText);
    bool passDelimiter_(std::size_t delimiterBytes, ZnString* errorText);
    bool openFile_(ZnString* errorText);
    bool writePart_(std::string_view bytes, ZnString* errorText);
    bool finishPart_(ZnString* errorText);
    bool fail_(const char* text, ZnString* errorText);
    std::string_view delimiter_() const noexcept { return crlfDelimiter_.view().substr(2); }

    const unsigned long long readerNumber_; // in the names of its files; no other reader has it
    State state_ = State::Preamble;
    ZnHttpLimits limits_;
    ZnString filePrefix_;          // of every temporary file: absolute directory, first half of the name
    ZnByteArray crlfDelimiter_;    // "\r\n--" and the boundary
    ZnByteArray buffer_;           // received and not yet consumed
    std::size_t scannedBytes_ = 0; // of buffer_, known to hold no end of headers: one-byte input stays linear
    bool preambleSkipped_ = false; // the CRLF in front of the first delimiter; there may be one
    ZnList<ZnHttpMultipartPart> parts_;
    ZnMap<ZnString, ZnString> fields_; // becomes ZnHttpRequest::formFields
    ZnHttpMultipartPart current_;      // its size is what has been written so far
    std::unique_ptr<ZnFile> file_;
    std::shared_ptr<ZnHttpTempFiles> tempFiles_; // null until the body has one
    std::uint32_t tempCounter_ = 0; // number of the next temporary file, over all bodies: a name that a request may
                                    // still have, or whose file was moved away, does not come again
};
