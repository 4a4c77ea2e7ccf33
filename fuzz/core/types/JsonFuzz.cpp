#include "core/types/ZnAssert.h"
#include "core/types/ZnJsonDocument.h"
#include "core/types/ZnLogger.h"

#include <cstdint>
#include <string_view>

namespace {

ZnJsonDocument parseOwnOutput(const ZnString& text, JsonReading reading = JsonReading::Dialect) {
    ZnString error;
    ZnJsonDocument document = ZnJsonDocument::fromJson(text.view(), &error, reading);
    ZN_ASSERT(error.isEmpty()); // what the writer writes, the parser reads
    return document;
}

/// Exact reading loses nothing: what is written is read as the same, at the first time. It takes all that the dialect
/// takes, and the dialect reads its output as it reads the text itself.
void checkExactReading(std::string_view text, const ZnJsonDocument* dialect) {
    ZnString error;
    const ZnJsonDocument document = ZnJsonDocument::fromJson(text, &error, JsonReading::Exact);
    ZN_ASSERT(dialect == nullptr || error.isEmpty());
    if (!error.isEmpty())
        return;
    const ZnString written = document.toJson();
    ZN_ASSERT(parseOwnOutput(written, JsonReading::Exact).root() == document.root());
    ZN_ASSERT(dialect == nullptr || parseOwnOutput(written).root() == dialect->root());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t byteCount) {
    // Numbers that do not fit are logged, as they should be; a fuzzer finds thousands of them.
    ZnLogger::instance().setConsoleEnabled(false);
    const std::string_view text(reinterpret_cast<const char*>(data), byteCount);
    ZnString error;
    const ZnJsonDocument document = ZnJsonDocument::fromJson(text, &error);
    const ZnJsonValue copy = document.root();
    ZN_ASSERT(copy == document.root());
    checkExactReading(text, error.isEmpty() ? &document : nullptr);
    if (!error.isEmpty())
        return 0;
    // The first writing rounds numbers and sorts members; from then on reading and writing change nothing.
    const ZnString first = parseOwnOutput(document.toJson()).toJson();
    const ZnJsonDocument again = parseOwnOutput(first);
    ZN_ASSERT(again.toJson() == first);
    ZN_ASSERT(parseOwnOutput(again.toJson(JsonFormat::Indented)).root() == again.root());
    return 0;
}
