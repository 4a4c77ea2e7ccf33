#pragma once

#include "core/types/ZnList.h"
#include "core/types/ZnString.h"

/// The temporary files of one request, which it removes when it is destroyed.
///
/// Owner: the multipart reader while the body comes in, then the request (ZnHttpRequest::tempFiles). So they are
/// removed with the last reference to the request, wherever that is dropped; who answers it removes them sooner.
/// Thread: one at a time; a handler on another thread only keeps the request and reads the files.
class ZnHttpTempFiles {
public:
    ZnHttpTempFiles() = default;
    ZnHttpTempFiles(const ZnHttpTempFiles&) = delete;
    ZnHttpTempFiles& operator=(const ZnHttpTempFiles&) = delete;
    ~ZnHttpTempFiles() { removeAll(); }

    /// Takes over the file at `path`, which is absolute.
    void add(const ZnString& path) { paths_.append(path); }
    /// Removes the files now and forgets them: a later file of the same name is safe. One that is missing already,
    /// because a handler has moved it away, is no failure.
    void removeAll();

private:
    ZnList<ZnString> paths_;
};
