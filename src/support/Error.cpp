// The error record, error construction from checked calls and the "NSXError" exception.
#include "VellAudio/NSXError.h"

#include "support/Format.h"
#include "support/Localized.h"

#include <cerrno>

namespace vell {

Error::Error(std::string_view domain, long code, ErrorUserInfo userInfo)
    : mDomain(domain), mCode(code), mUserInfo(std::move(userInfo))
{
}

std::optional<std::string> Error::stringForKey(std::string_view key) const
{
    const auto it = mUserInfo.find(key);
    if (it == mUserInfo.end() || !std::holds_alternative<std::string>(it->second)) {
        return std::nullopt;
    }
    return std::get<std::string>(it->second);
}

std::optional<long long> Error::integerForKey(std::string_view key) const
{
    const auto it = mUserInfo.find(key);
    if (it == mUserInfo.end() || !std::holds_alternative<long long>(it->second)) {
        return std::nullopt;
    }
    return std::get<long long>(it->second);
}

std::string Error::localizedDescription() const
{
    if (auto text = stringForKey(NSLocalizedDescriptionKey)) {
        return *text;
    }
    return format("The operation couldn\u2019t be completed. (%s error %ld.)", mDomain.c_str(),
                  mCode);
}

std::optional<std::string> Error::localizedFailureReason() const
{
    return stringForKey(NSLocalizedFailureReasonErrorKey);
}

std::string Error::description() const
{
    std::string text = format("Error Domain=%s Code=%ld \"%s\"", mDomain.c_str(), mCode,
                              localizedDescription().c_str());
    if (!mUserInfo.empty()) {
        text += " UserInfo={";
        bool first = true;
        for (const auto& [key, value] : mUserInfo) {
            text += first ? "" : ", ";
            first = false;
            text += key + "=";
            text += std::holds_alternative<long long>(value)
                        ? std::to_string(std::get<long long>(value))
                        : std::get<std::string>(value);
        }
        text += "}";
    }
    return text;
}

Error makeUserError(std::string_view description, std::string_view reason)
{
    ErrorUserInfo info;
    info.emplace(NSLocalizedDescriptionKey, localizedString(description));
    if (!reason.empty()) {
        info.emplace(NSLocalizedFailureReasonErrorKey, localizedString(reason));
    }
    return Error(kVellErrorDomain, 0, std::move(info));
}

namespace {

ErrorUserInfo reportingInfo(const char* file, std::int32_t line, const char* method)
{
    ErrorUserInfo info;
    info.emplace(kReportingFileKey, std::string(file ? file : ""));
    info.emplace(kReportingLineKey, static_cast<long long>(line));
    info.emplace(kReportingMethodKey, std::string(method ? method : ""));
    return info;
}

} // namespace

void NSXMakeErrorImp(const char* typeCode, std::int64_t value, const char* file, std::int32_t line,
                     const char* method, const char* origin, Error* outError)
{
    // Read errno before anything here can change it.
    const int savedErrno = errno;
    if (!typeCode || typeCode[0] == '\0') {
        return;
    }

    std::string_view domain;
    long code = -1;
    switch (typeCode[0]) {
    case '*':
    case '^':
        if (value == 0) {
            domain = kNULLPointerErrorDomain;
        }
        break;
    case 'r':
        // Deliberate: only a const C string is checked; "r^" and other const types never fail.
        if (typeCode[1] == '*' && value == 0) {
            domain = kNULLPointerErrorDomain;
        }
        break;
    case '@':
        if (value == 0) {
            domain = NSCocoaErrorDomain;
        }
        break;
    case 'c':
        if (value == 0) {
            domain = kBOOLErrorDomain;
        }
        break;
    case 'I': {
        const auto u = static_cast<std::uint32_t>(value);
        if (u == 0 || u == 0xFFFFFFFFu) {
            domain = NSMachErrorDomain;
        }
        break;
    }
    case 'i':
        if (value == -1) {
            domain = NSPOSIXErrorDomain;
            code = savedErrno;
        } else if (value != 0) {
            // Deliberate: a failing 32-bit status lands in the Mach domain, not OSStatus.
            domain = NSMachErrorDomain;
            code = static_cast<long>(value);
        }
        break;
    case 'l':
    case 's':
        if (value != 0) {
            domain = NSOSStatusErrorDomain;
            code = static_cast<long>(static_cast<std::int32_t>(static_cast<std::uint32_t>(value)));
        }
        break;
    default:
        break;
    }
    if (domain.empty()) {
        return;
    }

    ErrorUserInfo info = reportingInfo(file, line, method);
    info.emplace(kOriginKey, std::string(origin ? origin : ""));
    assignError(outError, Error(domain, code, std::move(info)));
}

Error NSXMakeErrorWithErrstr_tImp(const char* message, const char* file, std::int32_t line,
                                  const char* method)
{
    const std::string text = message ? message : "";
    ErrorUserInfo info = reportingInfo(file, line, method);
    info.emplace(kErrstrKey, text);
    info.emplace(NSLocalizedDescriptionKey, text);
    return Error(kErrstrErrorDomain, 0, std::move(info));
}

NSXException::NSXException(Error error) : mError(std::move(error)), mReason(mError.description())
{
}

void raiseNSXError(Error error)
{
    throw NSXException(std::move(error));
}

} // namespace vell
