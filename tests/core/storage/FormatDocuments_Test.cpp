#include "core/storage/StoreTestSupport.h"

#include <algorithm>
#include <cctype>
#include <sstream>

namespace {

/// The bytes of a document's example. Each of its lines has eight digits of offset, two blanks, and bytes of two digits
/// each, divided by one blank; a comment follows behind more.
std::string exampleOf(const char* document) {
    std::istringstream text(contentOf(ZnString(ZN_GOLDEN_DIRECTORY) + "../../../../docs/formats/" + document));
    const auto isDigits = [](const std::string& part) {
        return std::all_of(part.begin(), part.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
    };
    std::string bytes;
    for (std::string line; std::getline(text, line);) {
        if (line.size() < 12 || !isDigits(line.substr(0, 8)) || line.substr(8, 2) != "  ")
            continue;
        EXPECT_EQ(std::stoul(line.substr(0, 8), nullptr, 16), bytes.size()) << line;
        for (std::size_t at = 10; at + 1 < line.size() && isDigits(line.substr(at, 2)); at += 3)
            bytes += static_cast<char>(std::stoi(line.substr(at, 2), nullptr, 16));
    }
    return bytes;
}

TEST(FormatDocuments_, ExamplesAreTheGoldenFiles) {
    EXPECT_EQ(exampleOf("table.md"), golden("L0-2.sst"));
    EXPECT_EQ(exampleOf("wal.md"), golden("WAL-1.log"));
    EXPECT_EQ(exampleOf("blob.md"), golden("BLOB-3.dat"));
}

} // namespace
