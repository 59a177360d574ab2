// Disposables and lifetimes: the ownership side of the reactive types.
#include "VellAudio/Reactive.h"

namespace vell {

struct Disposable::State {
    std::mutex mutex;
    std::function<void()> action;
    bool disposed = false;
};

Disposable::Disposable(std::function<void()> action) : mState(std::make_shared<State>())
{
    mState->action = std::move(action);
}

void Disposable::dispose() const
{
    if (!mState) {
        return;
    }
    std::function<void()> action;
    {
        std::lock_guard lock(mState->mutex);
        if (mState->disposed) {
            return;
        }
        mState->disposed = true;
        action = std::move(mState->action);
        mState->action = nullptr;
    }
    if (action) {
        action();
    }
}

bool Disposable::isDisposed() const
{
    if (!mState) {
        return true;
    }
    std::lock_guard lock(mState->mutex);
    return mState->disposed;
}

struct Lifetime::State {
    std::mutex mutex;
    bool ended = false;
    std::vector<Disposable> disposables;
    std::size_t pruneAt = 16;

    void end()
    {
        std::vector<Disposable> ending;
        {
            std::lock_guard lock(mutex);
            if (ended) {
                return;
            }
            ended = true;
            ending.swap(disposables);
        }
        for (const auto& disposable : ending) {
            disposable.dispose();
        }
    }
};

Lifetime::Lifetime(const Token& token) : mState(token.mState)
{
    if (!mState) {
        // A moved-from token has no lifetime left to observe.
        mState = std::make_shared<State>();
        mState->ended = true;
    }
}

std::pair<Lifetime, Lifetime::Token> Lifetime::make()
{
    Token token;
    Lifetime lifetime(token);
    return {std::move(lifetime), std::move(token)};
}

bool Lifetime::hasEnded() const
{
    std::lock_guard lock(mState->mutex);
    return mState->ended;
}

void Lifetime::add(Disposable disposable) const
{
    {
        std::lock_guard lock(mState->mutex);
        if (!mState->ended) {
            // Subscriptions disposed early would pile up over a long lifetime: drop them now
            // and then, at doubling sizes so adding stays cheap.
            if (mState->disposables.size() >= mState->pruneAt) {
                std::erase_if(mState->disposables,
                              [](const Disposable& d) { return d.isDisposed(); });
                mState->pruneAt = std::max<std::size_t>(16, mState->disposables.size() * 2);
            }
            mState->disposables.push_back(std::move(disposable));
            return;
        }
    }
    disposable.dispose();
}

Disposable Lifetime::observeEnded(std::function<void()> action) const
{
    auto pending = std::make_shared<std::atomic<bool>>(true);
    Disposable onEnd([pending, action = std::move(action)] {
        if (pending->exchange(false)) {
            action();
        }
    });
    add(onEnd);
    return Disposable([pending, onEnd] {
        pending->store(false);
        onEnd.dispose(); // lets the lifetime drop it
    });
}

Lifetime::Token::Token() : mState(std::make_shared<Lifetime::State>()) {}

Lifetime::Token::~Token()
{
    if (mState) {
        mState->end();
    }
}

Lifetime::Token& Lifetime::Token::operator=(Token&& other) noexcept
{
    if (this != &other) {
        if (mState) {
            mState->end();
        }
        mState = std::move(other.mState);
    }
    return *this;
}

} // namespace vell
