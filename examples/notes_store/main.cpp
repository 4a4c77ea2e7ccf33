// Notes with tags, in a store of their own.
//     notes-store DIR add TEXT [TAG...]
//     notes-store DIR list
//     notes-store DIR find TAG
//     notes-store DIR remove NUMBER

#include "core/storage/embeddeddb/ZnEmbeddedDb.h"

#include <algorithm>
#include <iostream>
#include <string>

namespace {

constexpr int kFailed = 2;
constexpr std::size_t kDigits = 8;

int fail(const ZnString& reason) {
    std::cerr << "notes-store: " << reason << std::endl;
    return kFailed;
}

int end(const ZnEmbeddedDbStatus& status) {
    return status.isOk() ? 0 : fail(status.message());
}

/// Of fixed width, so that the order of the keys is that of the numbers.
ZnString keyOf(long long number) {
    const std::string digits = ZnString::number(number).str();
    return ZnString(std::string(kDigits - std::min(kDigits, digits.size()), '0') + digits);
}

int add(ZnEmbeddedDb& store, const ZnString& text, char** tags) {
    ZnEmbeddedDbRange last;
    last.reverse = true;
    last.limit = 1;
    const ZnEmbeddedDbIterator newest = store.scan(last);
    if (!newest.status().isOk())
        return end(newest.status());
    ZnEmbeddedDbIndexKeys indexKeys;
    for (; *tags != nullptr; ++tags)
        indexKeys["tag"].append(ZnByteArray(std::string_view(*tags)));
    const long long number = newest.valid() ? ZnString(newest.key()).toLongLong() + 1 : 1;
    return end(store.put(keyOf(number), text, indexKeys));
}

int print(ZnEmbeddedDbIterator notes) {
    for (; notes.valid(); notes.next())
        std::cout << notes.key() << " " << notes.value() << "\n";
    return end(notes.status());
}

} // namespace

int main(int argumentCount, char** arguments) {
    const ZnString command = argumentCount > 2 ? arguments[2] : "";
    ZnEmbeddedDbOptions options;
    options.readOnly = command == "list" || command == "find";
    ZnEmbeddedDb store;
    const bool isKnown = (command == "add" && argumentCount > 3) || (command == "list" && argumentCount == 3) ||
                         ((command == "find" || command == "remove") && argumentCount == 4);
    if (!isKnown)
        return fail("DIR add TEXT [TAG...] | DIR list | DIR find TAG | DIR remove NUMBER");
    if (const ZnEmbeddedDbStatus status = store.open(arguments[1], options); !status.isOk())
        return end(status);
    if (command == "add")
        return add(store, arguments[3], arguments + 4);
    if (command == "remove")
        return end(store.remove(keyOf(ZnString(arguments[3]).toLongLong())));
    return print(command == "find" ? store.indexLookup("tag", arguments[3]) : store.scan());
}
