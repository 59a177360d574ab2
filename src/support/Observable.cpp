// Observable properties: observer registry and the announcement of dependent keys.
#include "VellAudio/Observable.h"

#include "support/ReleaseToken.h"

#include <algorithm>
#include <atomic>
#include <set>

namespace vell {

KeyDependencies::KeyDependencies(std::initializer_list<Entry> table)
{
    for (const auto& [derived, sources] : table) {
        auto& dependencies = mDependencies[std::string(derived)];
        for (std::string_view source : sources) {
            dependencies.emplace_back(source);
            auto& dependents = mDependents[std::string(source)];
            if (std::find(dependents.begin(), dependents.end(), derived) == dependents.end()) {
                dependents.emplace_back(derived);
            }
        }
    }
}

std::vector<std::string> KeyDependencies::affectedKeys(std::string_view key) const
{
    std::vector<std::string> order{std::string(key)};
    std::set<std::string, std::less<>> seen{std::string(key)};
    // Breadth-first; a key already seen is not walked again, which ends mutual dependencies.
    for (std::size_t next = 0; next < order.size(); ++next) {
        const auto found = mDependents.find(order[next]);
        if (found == mDependents.end()) {
            continue;
        }
        for (const auto& dependent : found->second) {
            if (seen.insert(dependent).second) {
                order.push_back(dependent);
            }
        }
    }
    return order;
}

std::vector<std::string> KeyDependencies::keysAffecting(std::string_view derivedKey) const
{
    const auto found = mDependencies.find(derivedKey);
    return found == mDependencies.end() ? std::vector<std::string>{} : found->second;
}

const KeyDependencies& KeyDependencies::none()
{
    static const KeyDependencies empty;
    return empty;
}

namespace {

struct Observation {
    std::uint64_t id = 0;
    std::string key;
    Observable::Observer observer;
    bool includeWillChange = false;
    std::atomic<bool> active{true};
};

} // namespace

struct Observable::Registry {
    std::mutex mutex;
    std::vector<std::shared_ptr<Observation>> observations;
    std::uint64_t nextId = 1;
};

Observable::Observable(const KeyDependencies& dependencies)
    : mDependencies(dependencies), mRegistry(std::make_shared<Registry>())
{
}

Observable::~Observable() = default;

Observable::ObservationToken Observable::addObserver(std::string_view key, Observer observer,
                                                     bool includeWillChange) const
{
    auto observation = std::make_shared<Observation>();
    observation->key = std::string(key);
    observation->observer = std::move(observer);
    observation->includeWillChange = includeWillChange;
    std::uint64_t id = 0;
    {
        std::lock_guard lock(mRegistry->mutex);
        id = mRegistry->nextId++;
        observation->id = id;
        mRegistry->observations.push_back(std::move(observation));
    }
    std::weak_ptr<Registry> weak = mRegistry;
    return makeReleaseToken([weak, id] {
        auto registry = weak.lock();
        if (!registry) {
            return;
        }
        std::shared_ptr<Observation> removed;
        {
            std::lock_guard lock(registry->mutex);
            auto& list = registry->observations;
            const auto it = std::find_if(list.begin(), list.end(),
                                         [id](const auto& entry) { return entry->id == id; });
            if (it != list.end()) {
                removed = std::move(*it);
                list.erase(it);
            }
        }
        if (removed) {
            removed->active.store(false);
        }
    });
}

void Observable::willChangeValueForKey(std::string_view key) const
{
    announce(key, KeyChangePhase::willChange);
}

void Observable::didChangeValueForKey(std::string_view key) const
{
    announce(key, KeyChangePhase::didChange);
}

void Observable::announce(std::string_view key, KeyChangePhase phase) const
{
    const auto keys = mDependencies.affectedKeys(key);
    std::vector<std::pair<std::string_view, std::shared_ptr<Observation>>> calls;
    {
        std::lock_guard lock(mRegistry->mutex);
        for (const auto& affected : keys) {
            for (const auto& observation : mRegistry->observations) {
                if (observation->key == affected &&
                    (phase == KeyChangePhase::didChange || observation->includeWillChange)) {
                    calls.emplace_back(affected, observation);
                }
            }
        }
    }
    for (const auto& [affected, observation] : calls) {
        if (observation->active.load() && observation->observer) {
            observation->observer(KeyChange{affected, key, phase});
        }
    }
}

KeyChangeScope::KeyChangeScope(const Observable& object, std::string_view key)
    : mObject(object), mKey(key)
{
    mObject.willChangeValueForKey(mKey);
}

KeyChangeScope::~KeyChangeScope()
{
    mObject.didChangeValueForKey(mKey);
}

} // namespace vell
