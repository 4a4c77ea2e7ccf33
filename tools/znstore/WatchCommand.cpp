// The command that waits for changes by other processes.

#include "Commands.h"
#include "Exit.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/storage/embeddeddb/ZnEmbeddedDb.h"

#include <algorithm>
#include <limits>

namespace znstore {

namespace {

void writeState(const ZnEmbeddedDb& store, const ZnString& head, const std::uint64_t* sequence, Output& output) {
    const ZnEmbeddedDbStats stats = store.stats();
    output.line(head, "\tsequence ", ZnString::number(sequence == nullptr ? stats.lastCommittedSequence : *sequence),
                "\ttables ", ZnString::number(stats.level0TableCount + stats.level1TableCount), "\ttable bytes ",
                ZnString::number(stats.tableBytes), "\tblob bytes ", ZnString::number(stats.blobBytes));
    output.flush();
}

} // namespace

int runWatch(const Arguments& arguments, Output& output) {
    constexpr std::uint64_t kMostMs = 1000000000000; // 31 years: in nanoseconds still a number
    std::uint64_t leftCount = arguments.number("--count", std::numeric_limits<std::uint64_t>::max());
    const std::uint64_t timeoutMs = arguments.number("--timeout", kMostMs);
    ZnCoreApplication application;
    ZnEmbeddedDb store; // ends before its loop
    ZnEmbeddedDbOptions options;
    options.readOnly = true;
    ZnEmbeddedDbStatus status = store.open(arguments.text("DIR"), options);
    if (!status.isOk())
        return failToOpen(status);
    status = store.watch([&](const ZnEmbeddedDbChange& change) {
        if (application.isQuitRequested())
            return;
        status = store.refresh();
        if (status.isOk())
            writeState(store, "manifest " + ZnString::number(change.manifestId), &change.lastCommittedSequence, output);
        if (--leftCount == 0 || !status.isOk() || !output.isOpen())
            application.quit();
    });
    if (status.isOk())
        status = store.refresh(); // what came before watching began
    if (!status.isOk())
        return fail(status);
    writeState(store, "watching", nullptr, output);
    if (leftCount > 0 && timeoutMs > 0)
        application.exec(static_cast<long long>(std::min(timeoutMs, kMostMs)) * 1000);
    return fail(status);
}

} // namespace znstore
