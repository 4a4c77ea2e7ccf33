#include "Exit.h"

#include <iostream>

namespace znstore {

int fail(ExitCode code, const ZnString& text) {
    std::cerr << "znstore: " << text << std::endl;
    return code;
}

int fail(const ZnEmbeddedDbStatus& status) {
    switch (status.code()) {
    case ZnEmbeddedDbStatus::Ok: return kExitOk;
    case ZnEmbeddedDbStatus::NotFound: return fail(kExitNothingFound, status.message());
    case ZnEmbeddedDbStatus::InvalidArgument: return fail(kExitUsage, status.message());
    case ZnEmbeddedDbStatus::Busy:
    case ZnEmbeddedDbStatus::ReadOnly:
    case ZnEmbeddedDbStatus::NotAvailable: return fail(kExitNotOpened, status.message());
    case ZnEmbeddedDbStatus::IoError: return fail(kExitIo, status.message());
    case ZnEmbeddedDbStatus::Corruption: break;
    }
    return fail(kExitDamaged, status.message());
}

int failToOpen(const ZnEmbeddedDbStatus& status) {
    const bool isMissing =
        status.code() == ZnEmbeddedDbStatus::NotFound || status.code() == ZnEmbeddedDbStatus::InvalidArgument;
    return isMissing ? fail(kExitNotOpened, status.message()) : fail(status);
}

} // namespace znstore
