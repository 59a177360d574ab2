// Tokens that run an action when their last copy is released.
#pragma once

#include <functional>
#include <memory>
#include <utility>

namespace vell {

namespace detail {

struct ReleaseAction {
    explicit ReleaseAction(std::function<void()> action) : mAction(std::move(action)) {}
    ~ReleaseAction()
    {
        if (mAction) {
            mAction();
        }
    }
    ReleaseAction(const ReleaseAction&) = delete;
    ReleaseAction& operator=(const ReleaseAction&) = delete;

    std::function<void()> mAction;
};

} // namespace detail

/// A non-null token that runs onRelease when the last copy of it is destroyed.
inline std::shared_ptr<void> makeReleaseToken(std::function<void()> onRelease)
{
    return std::make_shared<detail::ReleaseAction>(std::move(onRelease));
}

} // namespace vell
