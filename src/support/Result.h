// Result<T>: a value or the error that prevented it (expected-like; std::expected is C++23).
#pragma once

#include "VellAudio/Error.h"

#include <utility>
#include <variant>

namespace vell {

template <class T> class [[nodiscard]] Result {
public:
    Result(T value) : mStorage(std::in_place_index<0>, std::move(value)) {}
    Result(Error error) : mStorage(std::in_place_index<1>, std::move(error)) {}

    bool ok() const noexcept { return mStorage.index() == 0; }
    explicit operator bool() const noexcept { return ok(); }

    T& value() & { return std::get<0>(mStorage); }
    const T& value() const& { return std::get<0>(mStorage); }
    T&& value() && { return std::get<0>(std::move(mStorage)); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }

    const Error& error() const& { return std::get<1>(mStorage); }
    Error&& error() && { return std::get<1>(std::move(mStorage)); }

private:
    std::variant<T, Error> mStorage;
};

template <> class [[nodiscard]] Result<void> {
public:
    Result() = default;
    Result(Error error) : mError(std::move(error)), mFailed(true) {}

    bool ok() const noexcept { return !mFailed; }
    explicit operator bool() const noexcept { return ok(); }
    const Error& error() const& { return mError; }
    Error&& error() && { return std::move(mError); }

private:
    Error mError;
    bool mFailed = false;
};

} // namespace vell
