// Reactive values on libsigc++: disposables, lifetimes, signals, producers and mutable properties.
#pragma once

#include <sigc++/sigc++.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>
#include <vector>

namespace vell {

/// Ends a subscription (or any work) once; copies share it. An empty one is already disposed.
/// Thread: any.
class Disposable {
public:
    Disposable() = default;
    explicit Disposable(std::function<void()> action);

    /// Runs the action the first time it is called on any copy; later calls do nothing.
    void dispose() const;
    bool isDisposed() const;

private:
    struct State;
    std::shared_ptr<State> mState;
};

/// Owns a subscription: disposes it on destruction. Move-only.
class ScopedDisposable {
public:
    ScopedDisposable() = default;
    ScopedDisposable(Disposable disposable) : mDisposable(std::move(disposable)) {}
    ~ScopedDisposable() { mDisposable.dispose(); }
    ScopedDisposable(ScopedDisposable&& other) noexcept
        : mDisposable(std::exchange(other.mDisposable, Disposable()))
    {
    }
    ScopedDisposable& operator=(ScopedDisposable&& other) noexcept
    {
        if (this != &other) {
            mDisposable.dispose();
            mDisposable = std::exchange(other.mDisposable, Disposable());
        }
        return *this;
    }
    ScopedDisposable(const ScopedDisposable&) = delete;
    ScopedDisposable& operator=(const ScopedDisposable&) = delete;

    void dispose() { mDisposable.dispose(); }
    const Disposable& get() const noexcept { return mDisposable; }

private:
    Disposable mDisposable;
};

/// The lifetime of an object that owns its `Token`: it ends when the token is destroyed, and
/// every disposable added to it is disposed then (in the order added). Copies observe the same
/// lifetime and never keep it from ending. Thread: any.
class Lifetime {
public:
    class Token;

    explicit Lifetime(const Token& token);
    /// A token and its lifetime, together.
    static std::pair<Lifetime, Token> make();

    bool hasEnded() const;
    /// Disposes disposable when the lifetime ends; at once if it already has.
    void add(Disposable disposable) const;
    /// Runs action when the lifetime ends (at once if it has); disposing the result cancels it.
    Disposable observeEnded(std::function<void()> action) const;

private:
    struct State;
    explicit Lifetime(std::shared_ptr<State> state) : mState(std::move(state)) {}
    std::shared_ptr<State> mState;
};

class Lifetime::Token {
public:
    Token();
    ~Token();
    Token(Token&&) noexcept = default;
    Token& operator=(Token&& other) noexcept;
    Token(const Token&) = delete;
    Token& operator=(const Token&) = delete;

private:
    friend class Lifetime;
    std::shared_ptr<Lifetime::State> mState;
};

namespace detail {

/// The delivery core shared by signals and properties: a sigc signal behind a recursive lock.
/// Values are delivered synchronously on the sending thread, to observers in subscription
/// order. A value sent from inside a delivery (by an observer) waits until the delivery in
/// progress has reached every observer, so all observers see values in the same order.
template <class T> class SignalCore : public std::enable_shared_from_this<SignalCore<T>> {
public:
    using Observer = std::function<void(const T&)>;

    virtual ~SignalCore() = default;

    Disposable connect(Observer observer)
    {
        std::lock_guard lock(mMutex);
        return connectLocked(std::move(observer));
    }

    void send(T value)
    {
        std::lock_guard lock(mMutex);
        sendLocked(std::move(value));
    }

protected:
    Disposable connectLocked(Observer observer)
    {
        sigc::connection connection = mSignal.connect(std::move(observer));
        std::weak_ptr<SignalCore> weak = this->weak_from_this();
        return Disposable([weak, connection]() mutable {
            if (auto core = weak.lock()) {
                std::lock_guard lock(core->mMutex);
                connection.disconnect();
            }
        });
    }

    void sendLocked(T value)
    {
        mPending.push_back(std::move(value));
        flushLocked();
    }

    /// Delivers queued values unless a delivery is already running on this thread (which then
    /// delivers them when it finishes).
    void flushLocked()
    {
        if (mDelivering) {
            return;
        }
        DeliveryGuard guard(*this);
        while (!mPending.empty()) {
            T next = std::move(mPending.front());
            mPending.pop_front();
            mSignal.emit(next);
        }
    }

    struct DeliveryGuard {
        explicit DeliveryGuard(SignalCore& core) : mCore(core), mOuter(!core.mDelivering)
        {
            mCore.mDelivering = true;
        }
        ~DeliveryGuard()
        {
            if (mOuter) {
                mCore.mDelivering = false;
            }
        }
        SignalCore& mCore;
        bool mOuter;
    };

    std::recursive_mutex mMutex;
    sigc::signal<void(const T&)> mSignal;
    std::deque<T> mPending;
    bool mDelivering = false;
};

/// A value cell over a signal core: subscribing delivers the current value first.
template <class T> class PropertyCore : public SignalCore<T> {
public:
    explicit PropertyCore(T initial) : mValue(std::move(initial)) {}

    T value()
    {
        std::lock_guard lock(this->mMutex);
        return mValue;
    }

    void setValue(T value)
    {
        std::lock_guard lock(this->mMutex);
        mValue = value;
        this->sendLocked(std::move(value));
    }

    Disposable connectWithCurrentValue(typename SignalCore<T>::Observer observer)
    {
        std::lock_guard lock(this->mMutex);
        Disposable disposable;
        {
            // Values set by the observer while it receives the current one are queued, and
            // reach it (and everyone else) once it is connected.
            typename SignalCore<T>::DeliveryGuard guard(*this);
            observer(mValue);
            disposable = this->connectLocked(std::move(observer));
        }
        this->flushLocked();
        return disposable;
    }

private:
    T mValue;
};

} // namespace detail

/// A hot stream of values. Observers see the values sent after they subscribed, synchronously
/// on the sending thread. The sending end is the `Input` that `pipe` returns.
template <class T> class Signal {
public:
    using Observer = std::function<void(const T&)>;

    class Input {
    public:
        void send(T value) const { mCore->send(std::move(value)); }

    private:
        friend class Signal;
        explicit Input(std::shared_ptr<detail::SignalCore<T>> core) : mCore(std::move(core)) {}
        std::shared_ptr<detail::SignalCore<T>> mCore;
    };

    static std::pair<Signal, Input> pipe()
    {
        auto core = std::make_shared<detail::SignalCore<T>>();
        return {Signal(core), Input(core)};
    }

    /// Observes until the result is disposed.
    Disposable observe(Observer observer) const { return mCore->connect(std::move(observer)); }
    /// Observes until the result is disposed or lifetime ends.
    Disposable observe(const Lifetime& lifetime, Observer observer) const
    {
        Disposable disposable = observe(std::move(observer));
        lifetime.add(disposable);
        return disposable;
    }

private:
    template <class> friend class MutableProperty;
    explicit Signal(std::shared_ptr<detail::SignalCore<T>> core) : mCore(std::move(core)) {}
    std::shared_ptr<detail::SignalCore<T>> mCore;
};

/// A cold stream: each start runs the start handler anew, which sends values to the observer
/// it is given and returns what stops it. An empty producer starts nothing.
template <class T> class SignalProducer {
public:
    using Observer = std::function<void(const T&)>;
    using StartHandler = std::function<Disposable(Observer)>;

    SignalProducer() = default;
    explicit SignalProducer(StartHandler start) : mStart(std::move(start)) {}

    explicit operator bool() const noexcept { return static_cast<bool>(mStart); }

    /// Starts the work; observer receives its values until the result is disposed.
    Disposable startWithValues(Observer observer) const
    {
        if (!mStart) {
            return Disposable();
        }
        // Disposing stops the work and also silences values the work is sending right now.
        auto live = std::make_shared<std::atomic<bool>>(true);
        Disposable work = mStart([live, observer = std::move(observer)](const T& value) {
            if (live->load()) {
                observer(value);
            }
        });
        return Disposable([live, work] {
            live->store(false);
            work.dispose();
        });
    }

    /// The same stream, stopped when lifetime ends (or never started if it has ended).
    SignalProducer take(const Lifetime& lifetime) const
    {
        SignalProducer inner = *this;
        return SignalProducer([inner, lifetime](Observer observer) {
            if (lifetime.hasEnded()) {
                return Disposable();
            }
            Disposable disposable = inner.startWithValues(std::move(observer));
            lifetime.add(disposable);
            return disposable;
        });
    }

    /// The stream of transform(value) for each value.
    template <class F, class U = std::remove_cvref_t<std::invoke_result_t<F&, const T&>>>
    SignalProducer<U> map(F transform) const
    {
        SignalProducer inner = *this;
        return SignalProducer<U>(
            [inner, transform](typename SignalProducer<U>::Observer observer) mutable {
                return inner.startWithValues(
                    [transform, observer = std::move(observer)](const T& value) mutable {
                        observer(transform(value));
                    });
            });
    }

private:
    StartHandler mStart;
};

/// A value cell: a current value, a setter, and streams of its values. Every `setValue` is
/// delivered, also of an unchanged value.
///
/// Delivery: `producer()` (and `observe`) first delivers the current value to the new
/// subscriber, synchronously inside the call, then every later value; `signal()` delivers only
/// later values. Later values are delivered synchronously on the setting thread, in order.
/// Thread: any; concurrent setters are serialised, each delivering its value before the next.
template <class T> class MutableProperty {
public:
    using Observer = std::function<void(const T&)>;

    explicit MutableProperty(T initial = T{})
        : mCore(std::make_shared<detail::PropertyCore<T>>(std::move(initial)))
    {
    }
    MutableProperty(const MutableProperty&) = delete;
    MutableProperty& operator=(const MutableProperty&) = delete;

    T value() const { return mCore->value(); }
    void setValue(T value) { mCore->setValue(std::move(value)); }

    /// The current value, then every later value. The producer keeps the cell alive.
    SignalProducer<T> producer() const
    {
        auto core = mCore;
        return SignalProducer<T>([core](Observer observer) {
            return core->connectWithCurrentValue(std::move(observer));
        });
    }
    /// Later values only.
    Signal<T> signal() const { return Signal<T>(mCore); }

    /// Shorthands for `producer().startWithValues(...)`, the second ending with lifetime.
    Disposable observe(Observer observer) const
    {
        return producer().startWithValues(std::move(observer));
    }
    Disposable observe(const Lifetime& lifetime, Observer observer) const
    {
        return producer().take(lifetime).startWithValues(std::move(observer));
    }

private:
    std::shared_ptr<detail::PropertyCore<T>> mCore;
};

/// A read-only property holding one value for ever; its producer delivers that value once.
template <class T> class ConstantProperty {
public:
    using Observer = std::function<void(const T&)>;

    explicit ConstantProperty(T value) : mValue(std::make_shared<const T>(std::move(value))) {}

    const T& value() const noexcept { return *mValue; }
    SignalProducer<T> producer() const
    {
        auto value = mValue;
        return SignalProducer<T>([value](Observer observer) {
            observer(*value);
            return Disposable();
        });
    }

private:
    std::shared_ptr<const T> mValue;
};

} // namespace vell
