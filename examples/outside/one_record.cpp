// Puts one record into a store, and gets it back once the store was closed: one-record DIRECTORY KEY VALUE

#include "core/storage/embeddeddb/ZnEmbeddedDb.h"
#include "core/types/ZnVersion.h"

#include <iostream>

namespace {

ZnEmbeddedDbStatus putAndGet(char** arguments, ZnByteArray* value) {
    ZnEmbeddedDb store;
    if (ZnEmbeddedDbStatus status = store.open(arguments[1]); !status.isOk())
        return status;
    if (ZnEmbeddedDbStatus status = store.put(arguments[2], arguments[3]); !status.isOk())
        return status;
    store.close();
    if (ZnEmbeddedDbStatus status = store.open(arguments[1]); !status.isOk())
        return status;
    return store.get(arguments[2], value);
}

} // namespace

int main(int argumentCount, char** arguments) {
    if (argumentCount != 4) {
        std::cerr << "one-record DIRECTORY KEY VALUE (version " << zn::kVersion << ")" << std::endl;
        return 2;
    }
    ZnByteArray value;
    if (const ZnEmbeddedDbStatus status = putAndGet(arguments, &value); !status.isOk()) {
        std::cerr << "one-record: " << status.message() << std::endl;
        return 1;
    }
    std::cout << value.view() << std::endl;
}
