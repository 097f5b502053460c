// Connection parameter strings: "Name=value, Name='value', ...".
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zbshr::dbi {

// The value of parameter `name` in `params`, or nothing when it is absent.
// Entries are separated by commas; blanks (space, tab, CR, LF) around names
// and values are dropped; names compare without regard to ASCII case; a name
// or value may be quoted with ' or ", inside which commas and '=' are text and
// a doubled quote is one quote; an unterminated quote runs to the end; text
// after a closing quote (up to the comma) is appended. Entries without '='
// are skipped. The last occurrence of a name counts.
std::optional<std::string> find_parameter(const char* params, const char* name);

// A whole number from 0 to 2147483647 (an optional '+' before the digits),
// or nothing.
std::optional<int32_t> parse_count(const std::string& text);

}  // namespace zbshr::dbi
