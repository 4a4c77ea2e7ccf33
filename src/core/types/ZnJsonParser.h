#pragma once

#include "core/types/ZnJsonArena.h"
#include "core/types/ZnJsonCounts.h"
#include "core/types/ZnJsonDocument.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// One parse of one text, filling the tree in place. Internal to this folder.
///
/// No recursion: the containers that are open are kept in a table as deep as the deepest permitted text, so
/// the use of stack is fixed. The first failure stops the parse.
/// The children of all containers are counted first, so that each container has its place from the start.
/// Its many private functions are the rules of two grammars over one position in one text.
class ZnJsonParser_ {
public:
    /// `key` may be a temporary of the expression that parses.
    ZnJsonParser_(std::string_view text, const ZnString& key, JsonReading reading,
                  std::size_t maxValues = ZnJsonDocument::kNoLimit) noexcept
        : text_(text),
          key_(key),
          isExact_(reading == JsonReading::Exact),
          isQuiet_(reading == JsonReading::QuietDialect),
          maxValues_(maxValues) {}

    /// As ZnJsonDocument::fromJson.
    bool parseJsonText_(ZnJsonValue& root, ZnString& error);

private:
    static constexpr std::size_t kMaxDepth_ = ZnJsonDocument::kMaxDepth;

    bool parseTree_(ZnJsonValue& root);
    ZnJsonCell_* nextSlot_();
    ZnJsonCell_* addElement_(ZnJsonCell_& array);
    ZnJsonCell_* nextMember_(ZnJsonCell_& object);
    ZnJsonCell_* addMember_(ZnJsonCell_& object, std::string_view name);
    void grow_(ZnJsonCell_& container);
    bool stepOverSeparator_(bool isArray);
    bool parseValue_(ZnJsonCell_& slot);
    bool parseLiteralOrNumber_(ZnJsonCell_& slot, char first);
    bool openContainer_(ZnJsonCell_& slot, char bracket);
    static void closeContainer_(ZnJsonCell_& container);
    bool parseStringValue_(ZnJsonCell_& slot);
    bool readScalar_(std::string_view text, ZnJsonCell_& slot);
    std::int64_t readInteger_(std::string_view text);
    double readDecimal_(std::string_view text);
    bool mayLogNumber_() noexcept { return ++badNumberCount_ <= kLoggedNumbers_ && !isQuiet_; }
    void logBadNumbers_() const;
    bool parseEncryptedToken_(ZnJsonCell_& slot);
    bool parseBoolean_(ZnJsonCell_& slot);
    bool parseNull_();
    bool parseNumber_(ZnJsonCell_& slot);
    bool scanDigits_(const char* message);
    bool finishNumber_(ZnJsonCell_& slot, std::size_t start, bool isFloating);
    void keepNumber_(ZnJsonCell_& slot, std::string_view literal, bool isFloating);
    bool parseString_(std::string_view* text);
    bool parseEscape_(std::string& out);
    bool parseUnicodeEscape_(std::string& out);
    bool parseHex4_(unsigned* unit);
    void setText_(ZnJsonCell_& slot, JsonType type, std::string_view text);
    std::string_view takeLetters_() noexcept;
    void skipSpace_() noexcept;
    bool atEnd_() const noexcept { return pos_ >= text_.size(); }
    bool fail_(const char* message) { return failAt_(pos_, message); }
    bool failAt_(std::size_t index, const char* message);

    static constexpr std::size_t kLoggedNumbers_ = 3; // texts that fit no number may be many

    const std::string_view text_;
    const ZnString& key_; // empty: nothing is enciphered
    const bool isExact_;
    const bool isQuiet_;
    const std::size_t maxValues_;
    std::size_t pos_ = 0;
    std::size_t valueCount_ = 0;
    std::size_t badNumberCount_ = 0;
    std::size_t depth_ = 0;     // open containers
    bool isJustOpened_ = false; // the innermost one has no child yet
    ZnString error_;
    std::string unescaped_; // the text of the latest string that had escapes
    ZnJsonCounts_ counts_;
    ZnJsonArena_ arena_;
    // The first depth_ of both are set. Parents stay put while a child is open.
    std::array<ZnJsonCell_*, kMaxDepth_> open_;
    std::array<std::uint32_t, kMaxDepth_> capacity_; // of their blocks, in values
};
