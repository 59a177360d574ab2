// Watches a PulseAudio (or PipeWire-Pulse) server's default sink through libpulse's threaded
// main loop, and reports when it changes.
#pragma once

#include "VellAudio/AudioTypes.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

struct pa_threaded_mainloop;
struct pa_context;

namespace vell::detail {

class PulseServerMonitor {
public:
    /// Called on libpulse's thread after the default sink has changed. Must not block.
    using ChangeHandler = std::function<void()>;

    /// Connects to the server the environment names (never starting one) and waits up to
    /// firstInfoWait for its current default sink. Nothing when no server answers.
    /// Thread: any but the render thread.
    static std::unique_ptr<PulseServerMonitor> connect(ChangeHandler onDefaultSinkChange,
                                                       std::chrono::milliseconds firstInfoWait);
    ~PulseServerMonitor();
    PulseServerMonitor(const PulseServerMonitor&) = delete;
    PulseServerMonitor& operator=(const PulseServerMonitor&) = delete;

    /// The server's default sink as last reported (empty until known). Thread: any.
    std::string defaultSinkName() const;
    std::string defaultSinkDescription() const;
    /// The default sink's transport, from its bus and form properties. Thread: any.
    OSType defaultSinkTransportType() const;
    /// Whether the connection to the server is still up. Thread: any.
    bool isConnected() const;

private:
    explicit PulseServerMonitor(ChangeHandler handler);
    bool start(std::chrono::milliseconds firstInfoWait);
    void requestServerInfo();

    friend struct PulseCallbacks;

    ChangeHandler mHandler;
    pa_threaded_mainloop* mMainLoop = nullptr;
    pa_context* mContext = nullptr;

    mutable std::mutex mMutex;
    std::condition_variable mFirstInfo;
    bool mKnowsDefaultSink = false; // the server said which sink is the default
    bool mHaveInfo = false;         // ... and that sink's details arrived (or never will)
    bool mConnected = false;
    std::string mDefaultSink;
    std::string mDefaultSinkDescription;
    OSType mDefaultSinkTransport = 0;
};

} // namespace vell::detail
