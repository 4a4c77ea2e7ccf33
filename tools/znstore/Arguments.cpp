#include "Arguments.h"

#include "Escape.h"

#include <algorithm>
#include <charconv>

namespace znstore {

namespace {

bool parseNumber(std::string_view text, std::uint64_t* number) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), *number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

const Parameter* findOption(std::span<const Parameter> parameters, std::string_view name) {
    const auto at = std::find_if(parameters.begin(), parameters.end(), [&](const Parameter& parameter) {
        return parameter.isOption() && parameter.name == name;
    });
    return at == parameters.end() ? nullptr : &*at;
}

/// Those that are no options, in their order.
std::vector<const Parameter*> placesOf(std::span<const Parameter> parameters) {
    std::vector<const Parameter*> places;
    for (const Parameter& parameter : parameters)
        if (!parameter.isOption())
            places.push_back(&parameter);
    return places;
}

bool failText(ZnString* errorText, ZnString text) {
    *errorText = std::move(text);
    return false;
}

} // namespace

bool Arguments::parse(std::span<char* const> words, std::span<const Parameter> parameters, ZnString* errorText) {
    const std::vector<const Parameter*> places = placesOf(parameters);
    std::size_t placeIndex = 0;
    bool takesOptions = true;
    for (std::size_t index = 0; index < words.size(); ++index) {
        const std::string_view word = words[index];
        if (takesOptions && word == "--") {
            takesOptions = false;
        } else if (takesOptions && word.starts_with("--")) {
            const std::string_view name = word.substr(0, word.find('='));
            const Parameter* option = findOption(parameters, name);
            const bool hasValue = name.size() < word.size();
            if (option == nullptr)
                return failText(errorText, "no such option: " + ZnString(name));
            if (option->kind == Parameter::Switch ? hasValue : !hasValue && index + 1 == words.size())
                return failText(errorText, ZnString(name) + (hasValue ? " takes no value" : " needs a value"));
            const bool takesNext = option->kind != Parameter::Switch && !hasValue;
            if (!add_(*option, takesNext ? words[++index] : hasValue ? word.substr(name.size() + 1) : "", errorText))
                return false;
        } else if (placeIndex == places.size()) {
            return failText(errorText, "too many arguments: " + ZnString(word));
        } else if (!add_(*places[placeIndex++], word, errorText)) {
            return false;
        }
    }
    if (placeIndex < places.size() && places[placeIndex]->isRequired)
        return failText(errorText, ZnString(places[placeIndex]->name) + " is missing");
    return true;
}

bool Arguments::add_(const Parameter& parameter, std::string_view word, ZnString* errorText) {
    std::string decoded(word);
    std::uint64_t number = 0;
    ZnString reason;
    if (parameter.kind == Parameter::Bytes && !unescape(word, &decoded, &reason))
        return failText(errorText, ZnString(parameter.name) + ": " + reason);
    if (parameter.kind == Parameter::Number && !parseNumber(word, &number))
        return failText(errorText, ZnString(parameter.name) + ": no number from 0 to 2^64 - 1: " + ZnString(word));
    values_[parameter.name].push_back(std::move(decoded));
    return true;
}

std::string_view Arguments::value(std::string_view name) const {
    const auto all = values(name);
    return all.empty() ? std::string_view() : std::string_view(all.back());
}

std::span<const std::string> Arguments::values(std::string_view name) const {
    const auto at = values_.find(name);
    return at == values_.end() ? std::span<const std::string>() : std::span<const std::string>(at->second);
}

ZnByteArray Arguments::bytes(std::string_view name) const {
    return has(name) ? ZnByteArray(value(name)) : ZnByteArray();
}

std::uint64_t Arguments::number(std::string_view name, std::uint64_t fallback) const {
    std::uint64_t result = fallback;
    if (has(name))
        parseNumber(value(name), &result);
    return result;
}

} // namespace znstore
