#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

class ZnJsonValue;

enum class JsonType : std::int32_t {
    Null = 0,
    Boolean = 1,
    Integer = 2,
    Double = 3,
    String = 4,
    Object = 5,
    Array = 6
};

/// The sixteen bytes of a JSON value. Internal to this folder.
///
///     byte     0     1      2           4       8                 16
///     number   kind  -      -           -       bits               Integer; Double; Boolean as 0 or 1
///     text     kind  bytes  up to fourteen bytes                   String; Double that keeps its digits
///     block    kind  -      slabOffset  count   address            longer text, Object, Array
///
/// `kind` is a JsonType and the flags below. A block holds the bytes of a text, the elements of an array, or the
/// members of an object: by turns a name (a String) and its value. `count` says how many bytes, elements or members.
/// A block that does not lie in a slab (see ZnJsonArena_) has the offset 0.
struct ZnJsonCell_ {
    static constexpr std::uint8_t kTypeMask = 7;
    static constexpr std::uint8_t kHasBlock = 8;     // empty containers have none
    static constexpr std::uint8_t kKeepsDigits = 16; // of a Double: it is a text, not a number
    static constexpr std::size_t kMaxShortBytes = 14;

    struct Number_ {
        std::uint8_t kind;
        std::int64_t bits;
    };
    struct Text_ {
        std::uint8_t kind;
        std::uint8_t byteCount;
        char bytes[kMaxShortBytes];
    };
    struct Block_ {
        std::uint8_t kind;
        bool isUnsorted; // an object that the parser still fills, with names out of order
        std::uint16_t slabOffset;
        std::uint32_t count;
        void* data;
    };
    union { // each form begins with the kind
        Block_ block;
        Text_ shortText;
        Number_ number;
    };

    /// Null, or an empty container.
    explicit ZnJsonCell_(JsonType type = JsonType::Null) noexcept
        : block{static_cast<std::uint8_t>(type), false, 0, 0, nullptr} {}
    ZnJsonCell_(JsonType type, std::int64_t bits) noexcept : number{static_cast<std::uint8_t>(type), bits} {}
    explicit ZnJsonCell_(double value) noexcept : ZnJsonCell_(JsonType::Double, std::bit_cast<std::int64_t>(value)) {}

    JsonType type() const noexcept { return static_cast<JsonType>(number.kind & kTypeMask); }
    bool hasBlock() const noexcept { return (number.kind & kHasBlock) != 0; }
    bool keepsDigits() const noexcept { return (number.kind & kKeepsDigits) != 0; }
    bool isContainer() const noexcept { return type() >= JsonType::Object; }
    bool isObject() const noexcept { return type() == JsonType::Object; }
    double asDouble() const noexcept { return std::bit_cast<double>(number.bits); }
    /// Of a String, or a Double that keeps its digits.
    std::string_view text() const noexcept {
        return hasBlock() ? std::string_view(static_cast<const char*>(block.data), block.count)
                          : std::string_view(shortText.bytes, shortText.byteCount);
    }
    /// Of a container.
    ZnJsonValue* values() const noexcept { return static_cast<ZnJsonValue*>(block.data); }
    std::size_t valuesPerChild() const noexcept { return isObject() ? 2 : 1; }
    std::size_t valueCount() const noexcept { return block.count * valuesPerChild(); }
};

static_assert(sizeof(ZnJsonCell_) == 16);

/// What values, objects and arrays have in common: the cell, and that two of them never share a subtree.
///
/// All three are this and nothing more, so that the container inside a value is the value itself: ZnJsonValue::object()
/// and array() only look at it in another way. Copying and destroying use a bounded amount of stack.
class ZnJsonNode_ {
protected:
    explicit ZnJsonNode_(const ZnJsonCell_& cell) noexcept : cell_(cell) {}
    ZnJsonNode_(const ZnJsonNode_& other) { copyFrom_(other); }
    ZnJsonNode_& operator=(const ZnJsonNode_&) = delete;
    ~ZnJsonNode_() {
        if (cell_.hasBlock())
            release_();
    }

    /// Leaves Null, or an empty container.
    ZnJsonCell_ takeCell_(JsonType left) noexcept { return std::exchange(cell_, ZnJsonCell_(left)); }
    void copyFrom_(const ZnJsonNode_& other); // onto Null
    void release_() noexcept;                 // leaves Null
    bool isEqual_(const ZnJsonNode_& other) const;

    ZnJsonCell_ cell_;

private:
    friend struct ZnJsonTree_;
    friend class ZnJsonParser_;
    friend class ZnJsonWriter_;
};
