// The notification centre: named notifications with a sender object, delivered synchronously
// on the posting thread to the observers registered for that name (and sender, if given).
#pragma once

#include <any>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace vell {

struct Notification {
    std::string name;
    /// The sender; observers may filter on it. Identity only, never dereferenced here.
    const void* object = nullptr;
    std::map<std::string, std::any, std::less<>> userInfo;
};

/// Thread: post and observe from any thread except the render thread. Observers are called
/// on the posting thread, outside the centre's lock, in registration order.
class NotificationCenter {
public:
    using Observer = std::function<void(const Notification&)>;
    /// Keeps an observer registered; destroying it unregisters.
    using ObserverToken = std::shared_ptr<void>;

    static NotificationCenter& defaultCenter();

    NotificationCenter();
    ~NotificationCenter();

    /// Observes notifications called name from object (nullptr: from any sender).
    [[nodiscard]] ObserverToken addObserver(std::string_view name, const void* object,
                                            Observer observer);

    void post(const Notification& notification);
    void post(std::string_view name, const void* object = nullptr);

private:
    struct Impl;
    std::shared_ptr<Impl> mImpl;
};

} // namespace vell
