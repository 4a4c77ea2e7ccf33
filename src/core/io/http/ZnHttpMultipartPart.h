#pragma once

#include "core/types/ZnByteArray.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"

#include <cstdint>

/// One part of a "multipart/form-data" body.
///
/// Thread: a value. The file at tempFilePath belongs to ZnHttpRequest::tempFiles; copying a part copies the path only.
struct ZnHttpMultipartPart {
    ZnMap<ZnString, ZnString> headers; // names in lower case; a repeated name keeps its last value
    ZnString name;                     // this and the next one: from "content-disposition", as sent
    ZnString fileName;                 // the peer's word: no path of this machine
    ZnString contentType;              // empty when the part has none
    ZnByteArray data;                  // empty when the bytes lie in a temporary file
    ZnString tempFilePath;             // absolute, else empty
    std::uint64_t size = 0;            // bytes, also of a temporary file
    bool isTempFile = false;           // the bytes lie in tempFilePath
    bool isFile = false;               // fileName is not empty
};
