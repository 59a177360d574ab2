// Values that can present themselves as a dictionary of string keys to plain values.
#pragma once

#include <concepts>
#include <map>
#include <string>
#include <variant>

namespace vell {

/// One value of a dictionary representation.
using DictionaryValue = std::variant<bool, long long, double, std::string>;
using Dictionary = std::map<std::string, DictionaryValue, std::less<>>;

/// A value whose `dictionaryRepresentation()` presents it as a Dictionary.
template <class T>
concept DictionaryRepresentable = requires(const T& value) {
    { value.dictionaryRepresentation() } -> std::convertible_to<Dictionary>;
};

} // namespace vell
