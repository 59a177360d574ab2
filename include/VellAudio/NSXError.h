// Error construction from checked calls, and the "NSXError" exception.
#pragma once

#include "VellAudio/Error.h"

#include <cstdint>
#include <exception>
#include <string>

namespace vell {

/// Builds an error when `value` means failure for the type whose type-encoding string is
/// `typeCode` (only its first one or two characters matter) and stores it through outError
/// when that is not null. Builds nothing for an unknown type code. Never fails.
///
/// | code | failure when                | domain                  | code            |
/// |------|-----------------------------|-------------------------|-----------------|
/// | *  ^ | 0                           | NULLPointerErrorDomain  | -1              |
/// | r*   | 0                           | NULLPointerErrorDomain  | -1              |
/// | @    | 0                           | Cocoa                   | -1              |
/// | c    | 0                           | BOOLErrorDomain         | -1              |
/// | I    | 0 or 0xFFFFFFFF             | Mach                    | -1              |
/// | i    | not 0                       | -1: POSIX, else Mach    | errno / value   |
/// | l s  | not 0                       | OSStatus                | low 32 bits     |
void NSXMakeErrorImp(const char* typeCode, std::int64_t value, const char* file, std::int32_t line,
                     const char* method, const char* origin, Error* outError);

/// An error in domain "errstr_t", code 0, carrying the message as "errstr_t" and as the
/// localized description.
Error NSXMakeErrorWithErrstr_tImp(const char* message, const char* file, std::int32_t line,
                                  const char* method);

/// The exception raised when construction meets a failing checked call. Its name is
/// "NSXError", its reason the error's description, and its user information holds the error
/// under "error".
class NSXException : public std::exception {
public:
    explicit NSXException(Error error);

    static constexpr const char* kName = "NSXError";
    static constexpr const char* kErrorKey = "error";

    const char* name() const noexcept { return kName; }
    const std::string& reason() const noexcept { return mReason; }
    /// The user information's "error" entry.
    const Error& error() const noexcept { return mError; }
    const char* what() const noexcept override { return mReason.c_str(); }

private:
    Error mError;
    std::string mReason;
};

/// Raises NSXException with error.
[[noreturn]] void raiseNSXError(Error error);

} // namespace vell
