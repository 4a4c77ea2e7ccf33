#include "core/io/http/ZnHttpTempFiles.h"

#include "core/platform/ZnFilePlatform.h"

void ZnHttpTempFiles::removeAll() {
    for (const ZnString& path : paths_)
        znFilePlatform()->remove(path);
    paths_.clear();
}
