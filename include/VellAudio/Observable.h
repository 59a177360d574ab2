// Observable properties: will-change and did-change announcements by key, with dependent keys.
#pragma once

#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vell {

/// The keys a class's derived properties depend on: each derived key with the keys that affect
/// it. A change of a key is announced for the key itself and for every key that depends on it,
/// directly or through other derived keys, each once. Keys may depend on each other (a pair
/// that are two views of one value); the walk stops at keys already announced.
///
/// A class builds its table once (a function-local static) and hands it to `Observable`, which
/// keeps a reference: the table must outlive every object using it.
/// Thread: immutable after construction; any thread.
class KeyDependencies {
public:
    using Entry = std::pair<std::string_view, std::vector<std::string_view>>;

    KeyDependencies() = default;
    KeyDependencies(std::initializer_list<Entry> table);

    /// key followed by the keys it affects, in breadth-first order of the table, each once.
    std::vector<std::string> affectedKeys(std::string_view key) const;
    /// The keys derivedKey is declared to depend on, in the order given.
    std::vector<std::string> keysAffecting(std::string_view derivedKey) const;

    static const KeyDependencies& none();

private:
    // For every key, the derived keys that name it directly, in table order.
    std::map<std::string, std::vector<std::string>, std::less<>> mDependents;
    std::map<std::string, std::vector<std::string>, std::less<>> mDependencies;
};

enum class KeyChangePhase { willChange, didChange };

struct KeyChange {
    /// The key observed (a dependent key when the change came through a dependency).
    std::string_view key;
    /// The key whose value was actually changed.
    std::string_view changedKey;
    KeyChangePhase phase;
};

/// Base of classes with observable properties. A setter announces its change with
/// `willChangeValueForKey` / `didChangeValueForKey` (or `setObservedValue`, which compares
/// first: an unchanged value announces nothing); observers registered for the key or for a key
/// that depends on it are called synchronously on the changing thread.
///
/// Thread: observers may be added and removed on any thread, also from inside an observer
/// (a removed observer is not called again, even later in the same announcement). Observers
/// run outside the registry's lock, in registration order.
class Observable {
public:
    using Observer = std::function<void(const KeyChange&)>;
    /// Keeps an observation alive; destroying the last copy ends it. May outlive the object.
    using ObservationToken = std::shared_ptr<void>;

    explicit Observable(const KeyDependencies& dependencies = KeyDependencies::none());
    virtual ~Observable();
    Observable(const Observable&) = delete;
    Observable& operator=(const Observable&) = delete;

    /// Calls observer after each change of key (and of the keys key depends on); with
    /// includeWillChange, also before each.
    [[nodiscard]] ObservationToken addObserver(std::string_view key, Observer observer,
                                               bool includeWillChange = false) const;

    /// Announce a change of key; calls must pair, a will before its did.
    void willChangeValueForKey(std::string_view key) const;
    void didChangeValueForKey(std::string_view key) const;

    const KeyDependencies& keyDependencies() const noexcept { return mDependencies; }

protected:
    /// Stores value into field and announces key when they differ; returns whether it changed.
    template <class T, class U> bool setObservedValue(T& field, U&& value, std::string_view key)
    {
        if (field == value) {
            return false;
        }
        willChangeValueForKey(key);
        field = std::forward<U>(value);
        didChangeValueForKey(key);
        return true;
    }

private:
    void announce(std::string_view key, KeyChangePhase phase) const;

    struct Registry;
    const KeyDependencies& mDependencies;
    std::shared_ptr<Registry> mRegistry;
};

/// Announces will-change now and did-change when it goes out of scope.
class KeyChangeScope {
public:
    KeyChangeScope(const Observable& object, std::string_view key);
    ~KeyChangeScope();
    KeyChangeScope(const KeyChangeScope&) = delete;
    KeyChangeScope& operator=(const KeyChangeScope&) = delete;

private:
    const Observable& mObject;
    std::string mKey;
};

} // namespace vell
