#pragma once

#include "core/types/ZnByteArray.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace znstore {

/// What a command takes: in its place, or, where the name begins with "--", as an option anywhere.
struct Parameter {
    enum Kind { Text, Bytes, Number, Switch }; // Bytes: in the escape form

    const char* name;
    Kind kind;
    const char* meaning;
    bool isRequired = false;

    bool isOption() const noexcept { return std::string_view(name).starts_with("--"); }
};

/// The arguments of one command, checked against what it takes and decoded. Thread: a value.
class Arguments {
public:
    /// False, with the reason, for anything that the command does not take. "--" ends the options; an option may be
    /// given as "--name value" and "--name=value".
    bool parse(std::span<char* const> words, std::span<const Parameter> parameters, ZnString* errorText);

    /// Names as in the parameters.
    bool has(std::string_view name) const { return values_.contains(name); }
    /// The last one given; empty when there is none.
    std::string_view value(std::string_view name) const;
    /// All that were given.
    std::span<const std::string> values(std::string_view name) const;
    ZnString text(std::string_view name) const { return ZnString(value(name)); }
    /// Null when there is none.
    ZnByteArray bytes(std::string_view name) const;
    std::uint64_t number(std::string_view name, std::uint64_t fallback) const;

private:
    bool add_(const Parameter& parameter, std::string_view word, ZnString* errorText);

    std::map<std::string, std::vector<std::string>, std::less<>> values_;
};

} // namespace znstore
