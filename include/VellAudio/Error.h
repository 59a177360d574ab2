// The error record: a domain, a code and a dictionary of user information.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace vell {

/// A value in an error's user information: an integer or a string.
using ErrorInfoValue = std::variant<long long, std::string>;
using ErrorUserInfo = std::map<std::string, ErrorInfoValue, std::less<>>;

// Domains. The platform domains keep the strings those domains are known by.
inline constexpr std::string_view NSCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr std::string_view NSPOSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr std::string_view NSMachErrorDomain = "NSMachErrorDomain";
inline constexpr std::string_view NSOSStatusErrorDomain = "NSOSStatusErrorDomain";
inline constexpr std::string_view kNULLPointerErrorDomain = "NULLPointerErrorDomain";
inline constexpr std::string_view kBOOLErrorDomain = "BOOLErrorDomain";
inline constexpr std::string_view kErrstrErrorDomain = "errstr_t";
/// The domain of errors shown to the user.
inline constexpr std::string_view kVellErrorDomain = "BRIXVellErrorDomain";

// User-information keys.
inline constexpr std::string_view NSLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr std::string_view NSLocalizedFailureReasonErrorKey = "NSLocalizedFailureReason";
inline constexpr std::string_view kReportingFileKey = "reportingFile";
inline constexpr std::string_view kReportingLineKey = "reportingLine";
inline constexpr std::string_view kReportingMethodKey = "reportingMethod";
inline constexpr std::string_view kOriginKey = "origin";
inline constexpr std::string_view kErrstrKey = "errstr_t";

/// An error value. Copyable; an empty domain never occurs in a built error.
class Error {
public:
    Error() = default;
    Error(std::string_view domain, long code, ErrorUserInfo userInfo = {});

    const std::string& domain() const noexcept { return mDomain; }
    long code() const noexcept { return mCode; }
    const ErrorUserInfo& userInfo() const noexcept { return mUserInfo; }

    std::optional<std::string> stringForKey(std::string_view key) const;
    std::optional<long long> integerForKey(std::string_view key) const;

    /// The localized description if the error carries one, else a generic sentence naming
    /// the domain and code.
    std::string localizedDescription() const;
    /// The failure reason, when the error carries one.
    std::optional<std::string> localizedFailureReason() const;
    /// One line for logs: domain, code and user information.
    std::string description() const;

    friend bool operator==(const Error&, const Error&) = default;

private:
    std::string mDomain;
    long mCode = 0;
    ErrorUserInfo mUserInfo;
};

/// A user-visible error: domain "BRIXVellErrorDomain", code 0, localized description and
/// failure reason looked up in the string table.
Error makeUserError(std::string_view description, std::string_view reason);

/// Stores error in *outError when outError is not null.
inline void assignError(Error* outError, Error error)
{
    if (outError) {
        *outError = std::move(error);
    }
}

} // namespace vell
