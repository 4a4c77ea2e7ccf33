#pragma once

#include "core/types/ZnByteArray.h"
#include "core/types/ZnString.h"

#include <string>
#include <string_view>

/// Bytes that somebody else holds: the parameter of a function that only reads them, whatever they lie in.
///
/// Thread: a value. Good as long as what it was made of; so it is no member and no result.
class ZnByteView {
public:
    ZnByteView() noexcept = default;
    ZnByteView(const ZnByteArray& bytes) noexcept : bytes_(bytes.view()) {} // null counts as empty
    ZnByteView(const ZnString& text) noexcept : bytes_(text.view()) {}
    ZnByteView(const std::string& text) noexcept : bytes_(text) {}
    ZnByteView(std::string_view bytes) noexcept : bytes_(bytes) {}
    ZnByteView(const char* text) noexcept : bytes_(text == nullptr ? std::string_view() : std::string_view(text)) {}

    std::string_view view() const noexcept { return bytes_; }
    std::size_t size() const noexcept { return bytes_.size(); }

private:
    std::string_view bytes_;
};
