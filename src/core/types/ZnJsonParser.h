#pragma once

#include "core/types/ZnJsonDocument.h"

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

/// One parse of one text, filling the tree in place. Internal to this folder.
///
/// No recursion: the containers that are open are kept in a table as deep as the deepest permitted text, so
/// the use of stack is fixed. The first failure stops the parse.
class ZnJsonParser_ {
public:
    /// `key` may be a temporary of the expression that parses.
    ZnJsonParser_(std::string_view text, const ZnString& key, JsonReading reading) noexcept
        : text_(text), key_(key), isExact_(reading == JsonReading::Exact) {}

    /// As ZnJsonDocument::fromJson.
    bool parseJsonText_(ZnJsonValue& root, ZnString& error);

private:
    static constexpr std::size_t kMaxDepth_ = ZnJsonDocument::kMaxDepth;

    bool parseTree_(ZnJsonValue& root);
    ZnJsonValue* nextSlot_();
    ZnJsonValue* nextMember_(ZnJsonObject& object);
    bool stepOverSeparator_(bool isArray);
    bool parseValue_(ZnJsonValue& slot);
    bool parseLiteralOrNumber_(ZnJsonValue& slot, char first);
    bool openContainer_(ZnJsonValue& slot, char bracket);
    bool parseStringValue_(ZnJsonValue& slot);
    static bool readScalar_(std::string_view text, ZnJsonValue& slot);
    bool parseEncryptedToken_(ZnJsonValue& slot);
    bool parseBoolean_(ZnJsonValue& slot);
    bool parseNull_();
    bool parseNumber_(ZnJsonValue& slot);
    bool scanDigits_(const char* message);
    bool finishNumber_(ZnJsonValue& slot, std::size_t start, bool isFloating);
    static void keepNumber_(ZnJsonValue& slot, std::string_view literal, bool isFloating);
    bool parseString_(std::string* unescaped, std::string_view* text);
    bool parseEscape_(std::string& out);
    bool parseUnicodeEscape_(std::string& out);
    bool parseHex4_(unsigned* unit);
    std::string_view takeLetters_() noexcept;
    void skipSpace_() noexcept;
    bool atEnd_() const noexcept { return pos_ >= text_.size(); }
    bool fail_(const char* message) { return failAt_(pos_, message); }
    bool failAt_(std::size_t index, const char* message);

    const std::string_view text_;
    const ZnString& key_; // empty: nothing is enciphered
    const bool isExact_;
    std::size_t pos_ = 0;
    std::size_t depth_ = 0;     // open containers
    bool isJustOpened_ = false; // the innermost one has no child yet
    ZnString error_;
    std::array<ZnJsonValue*, kMaxDepth_>
        open_; // the first depth_ are set; parents stay put while a child is open
};
