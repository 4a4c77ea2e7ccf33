#pragma once

#include "core/io/http/ZnHttpMultipartPart.h"
#include "core/io/http/ZnHttpTempFiles.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnList.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <memory>

class ZnHttpAbandonGuard;

/// One request, complete with its body.
///
/// Thread: a value. On its way from the parser to a handler it is shared and never copied: whoever may still
/// look at it after a wait holds a std::shared_ptr.
struct ZnHttpRequest {
    ZnString method;                       // upper case
    ZnString target;                       // as sent, trimmed
    ZnString path;                         // percent-decoded, begins with "/", without "//"
    ZnString queryString;                  // raw, behind the first "?"
    ZnString httpVersion;                  // upper case
    ZnMap<ZnString, ZnString> headers;     // names in lower case; a repeated name keeps its last value
    ZnList<ZnString> repeatedHeaders;      // the names of those of which only the last value is kept
    ZnMap<ZnString, ZnString> queryParams; // decoded; a repeated key keeps its last value
    ZnMap<ZnString, ZnString> pathParams;  // filled by the router
    mutable ZnByteArray body;              // decoded; empty when a multipart body was read as it came
    bool keepAlive = true;
    bool chunked = false;         // the body came in chunks
    bool multipartParsed = false; // multipartParts and formFields are complete
    bool isTls = false;           // this and the next three are filled by the session
    std::uint16_t localPort = 0;
    ZnString peerAddress;
    std::uint16_t peerPort = 0;
    ZnList<ZnHttpMultipartPart> multipartParts; // in the order of the body
    ZnMap<ZnString, ZnString> formFields;       // the named parts that are no files; the last one of a name
    /// Who wants to know when the answer is no longer wanted; see ZnHttpAbandonGuard.
    mutable ZnHttpAbandonGuard* abandonGuard = nullptr;
    /// The handler's: let go of when the answer has left, or will not leave any more.
    mutable std::shared_ptr<const void> keptUntilSent;
    std::shared_ptr<ZnHttpTempFiles> tempFiles; // owns the files of multipartParts; null without any

    /// For the handler, when it has read the body and will wait for long.
    void releaseBody() const { body.release(); }
};
