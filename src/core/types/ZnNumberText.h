#pragma once

#include <string>
#include <string_view>

// Numbers to text and back, independent of the locale. Internal to this folder.
namespace zn::detail {

/// Reads the whole of `text`, a decimal number with optional fraction and exponent. False for anything else,
/// for overflow and for underflow to 0. Subnormal values pass.
bool parseDecimal(std::string_view text, double* out);

/// The double nearest to a number of the JSON grammar; beyond the range of doubles infinity, or 0.
double nearestDouble(std::string_view text);

/// The C forms "%g" and "%f", each with precision 6.
void appendGeneral(std::string& out, double value);
void appendFixed(std::string& out, double value);
/// The shortest text with an exponent that reads back as the same value.
void appendScientific(std::string& out, double value);
void appendInteger(std::string& out, long long value);

} // namespace zn::detail
