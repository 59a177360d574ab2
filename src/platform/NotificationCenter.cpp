// The notification centre: observers by name and sender, tokens that unregister on release.
#include "VellAudio/NotificationCenter.h"

#include "support/ReleaseToken.h"

#include <atomic>
#include <mutex>
#include <vector>

namespace vell {

namespace {

struct Registration {
    std::uint64_t id = 0;
    std::string name;
    const void* object = nullptr;
    NotificationCenter::Observer observer;
    // Cleared when the token goes; a delivery already under way skips it from then on.
    std::atomic<bool> active{true};
};

} // namespace

struct NotificationCenter::Impl {
    std::mutex mutex;
    std::vector<std::shared_ptr<Registration>> registrations;
    std::uint64_t nextId = 1;

    void remove(std::uint64_t id)
    {
        std::shared_ptr<Registration> removed;
        {
            std::lock_guard lock(mutex);
            for (auto it = registrations.begin(); it != registrations.end(); ++it) {
                if ((*it)->id == id) {
                    removed = std::move(*it);
                    registrations.erase(it);
                    break;
                }
            }
        }
        if (removed) {
            removed->active.store(false);
        }
        // The observer itself is released with the last reference, which may be a delivery
        // that is calling it right now; it is never destroyed under the lock.
    }
};

NotificationCenter& NotificationCenter::defaultCenter()
{
    static NotificationCenter center;
    return center;
}

NotificationCenter::NotificationCenter() : mImpl(std::make_shared<Impl>()) {}

NotificationCenter::~NotificationCenter() = default;

NotificationCenter::ObserverToken
NotificationCenter::addObserver(std::string_view name, const void* object, Observer observer)
{
    auto registration = std::make_shared<Registration>();
    registration->name = std::string(name);
    registration->object = object;
    registration->observer = std::move(observer);
    std::uint64_t id = 0;
    {
        std::lock_guard lock(mImpl->mutex);
        id = mImpl->nextId++;
        registration->id = id;
        mImpl->registrations.push_back(std::move(registration));
    }
    std::weak_ptr<Impl> weak = mImpl;
    return makeReleaseToken([weak, id] {
        if (auto impl = weak.lock()) {
            impl->remove(id);
        }
    });
}

void NotificationCenter::post(const Notification& notification)
{
    std::vector<std::shared_ptr<Registration>> matching;
    {
        std::lock_guard lock(mImpl->mutex);
        for (const auto& registration : mImpl->registrations) {
            if (registration->name == notification.name &&
                (registration->object == nullptr || registration->object == notification.object)) {
                matching.push_back(registration);
            }
        }
    }
    for (const auto& registration : matching) {
        if (registration->active.load() && registration->observer) {
            registration->observer(notification);
        }
    }
}

void NotificationCenter::post(std::string_view name, const void* object)
{
    Notification notification;
    notification.name = std::string(name);
    notification.object = object;
    post(notification);
}

} // namespace vell
