#include "core/types/ZnJsonDocument.h"

#include "support/OnThreads.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

// Parts of one tree lie in the same slabs: whichever thread is the last with one gives it back.
TEST(ZnJson, PartsOfATreeMayEndOnDifferentThreads) {
    constexpr int kThreads = 4;
    std::string text = "[0";
    for (int index = 0; index < 4000; ++index)
        text += R"(,{"a text of some length":["another such text"]})";
    ZnJsonDocument document = ZnJsonDocument::fromJson(text + "]", nullptr);
    std::vector<ZnJsonArray> parts(kThreads);
    std::size_t next = 0;
    for (ZnJsonValue& value : *document.root().array())
        parts[next++ % kThreads].append(std::move(value));
    document = ZnJsonDocument();
    onThreads(kThreads, [&](int index) {
        for (ZnJsonValue& value : parts[static_cast<std::size_t>(index)])
            value = ZnJsonValue(value.toJson()); // reads, and gives the part back
    });
}

} // namespace
