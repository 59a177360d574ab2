// Checked calls: a platform call's result, its own source text and its place become an error.
#pragma once

#include "VellAudio/NSXError.h"
#include "support/Log.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <type_traits>

namespace vell::detail {

template <class T> struct IsObjectLike : std::false_type {};
template <class T> struct IsObjectLike<std::shared_ptr<T>> : std::true_type {};
template <class T, class D> struct IsObjectLike<std::unique_ptr<T, D>> : std::true_type {};
template <class T> struct IsObjectLike<std::weak_ptr<T>> : std::true_type {};
template <class T> struct IsObjectLike<std::optional<T>> : std::true_type {};

/// The type-encoding string of T, as a checked call reports it.
template <class T> constexpr const char* typeCodeOf() noexcept
{
    using U = std::remove_cvref_t<T>;
    if constexpr (std::is_same_v<U, bool> || std::is_same_v<U, char> ||
                  std::is_same_v<U, signed char>) {
        return "c";
    } else if constexpr (std::is_same_v<U, unsigned char>) {
        return "C";
    } else if constexpr (std::is_same_v<U, const char*>) {
        return "r*";
    } else if constexpr (std::is_same_v<U, char*>) {
        return "*";
    } else if constexpr (std::is_same_v<U, std::nullptr_t>) {
        return "^v";
    } else if constexpr (std::is_pointer_v<U>) {
        // Deliberate: a pointer to const encodes as "r^", which no rule treats as failing.
        return std::is_const_v<std::remove_pointer_t<U>> ? "r^" : "^";
    } else if constexpr (IsObjectLike<U>::value) {
        return "@";
    } else if constexpr (std::is_same_v<U, short>) {
        return "s";
    } else if constexpr (std::is_same_v<U, unsigned short>) {
        return "S";
    } else if constexpr (std::is_same_v<U, int>) {
        return "i";
    } else if constexpr (std::is_same_v<U, unsigned int>) {
        return "I";
    } else if constexpr (std::is_same_v<U, long>) {
        return "l";
    } else if constexpr (std::is_same_v<U, unsigned long>) {
        return "L";
    } else if constexpr (std::is_same_v<U, long long>) {
        return "q";
    } else if constexpr (std::is_same_v<U, unsigned long long>) {
        return "Q";
    } else if constexpr (std::is_same_v<U, float>) {
        return "f";
    } else if constexpr (std::is_same_v<U, double>) {
        return "d";
    } else if constexpr (std::is_enum_v<U>) {
        return typeCodeOf<std::underlying_type_t<U>>();
    } else {
        return "?";
    }
}

/// The value of a checked result widened to 64 bits.
template <class T> std::int64_t widenedValue(const T& value) noexcept
{
    using U = std::remove_cvref_t<T>;
    if constexpr (std::is_same_v<U, std::nullptr_t>) {
        return 0;
    } else if constexpr (std::is_pointer_v<U>) {
        return static_cast<std::int64_t>(reinterpret_cast<std::intptr_t>(value));
    } else if constexpr (IsObjectLike<U>::value) {
        if constexpr (std::is_same_v<U, std::weak_ptr<typename U::element_type>>) {
            return value.expired() ? 0 : 1;
        } else {
            return static_cast<bool>(value) ? 1 : 0;
        }
    } else if constexpr (std::is_enum_v<U>) {
        return static_cast<std::int64_t>(static_cast<std::underlying_type_t<U>>(value));
    } else if constexpr (std::is_arithmetic_v<U>) {
        return static_cast<std::int64_t>(value);
    } else {
        return 0;
    }
}

/// Checks a result; on failure fills outError (when given) and answers false.
template <class T>
bool checkResult(const T& value, const char* origin, const char* file, int line, const char* method,
                 Error* outError)
{
    Error error;
    NSXMakeErrorImp(typeCodeOf<T>(), widenedValue(value), file, line, method, origin, &error);
    if (error.domain().empty()) {
        return true;
    }
    assignError(outError, std::move(error));
    return false;
}

template <class T>
void checkResultOrThrow(const T& value, const char* origin, const char* file, int line,
                        const char* method)
{
    Error error;
    if (!checkResult(value, origin, file, line, method, &error)) {
        raiseNSXError(std::move(error));
    }
}

template <class T>
bool checkResultOrLog(const T& value, const char* origin, const char* file, int line,
                      const char* method)
{
    Error error;
    if (checkResult(value, origin, file, line, method, &error)) {
        return true;
    }
    logErrorLine(file, error.description());
    return false;
}

} // namespace vell::detail

/// Evaluates expr once; answers true when it succeeded, else fills *outError (may be null).
#define VELL_CHECK(expr, outError)                                                                 \
    ::vell::detail::checkResult((expr), #expr, __FILE__, __LINE__, __func__, (outError))

/// Evaluates expr once and raises "NSXError" when it failed. For construction only.
#define VELL_CHECK_THROW(expr)                                                                     \
    ::vell::detail::checkResultOrThrow((expr), #expr, __FILE__, __LINE__, __func__)

/// Evaluates expr once and logs the error when it failed. For teardown and measurement.
#define VELL_CHECK_LOG(expr)                                                                       \
    ::vell::detail::checkResultOrLog((expr), #expr, __FILE__, __LINE__, __func__)
