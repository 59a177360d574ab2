// The default-sink watcher: subscribes to server and sink events, re-reads the server info on
// each, and compares the default sink's name with the last one seen.
#include "platform/device/PulseServerMonitor.h"

#include "platform/device/BRIXAudioHardware.h"

#include <pulse/pulseaudio.h>

#include <cstring>

namespace vell::detail {

namespace {

bool contains(const char* text, const char* part)
{
    return text && std::strstr(text, part) != nullptr;
}

/// The transport of a sink, from the properties its module gave it.
OSType transportOfSink(const pa_sink_info& info)
{
    const char* bus = pa_proplist_gets(info.proplist, PA_PROP_DEVICE_BUS);
    const char* api = pa_proplist_gets(info.proplist, PA_PROP_DEVICE_API);
    const char* deviceClass = pa_proplist_gets(info.proplist, PA_PROP_DEVICE_CLASS);
    const char* profile = pa_proplist_gets(info.proplist, PA_PROP_DEVICE_PROFILE_NAME);
    const char* port = info.active_port ? info.active_port->name : nullptr;
    if (contains(bus, "usb")) {
        return kAudioDeviceTransportTypeUSB;
    }
    if (contains(bus, "bluetooth") || contains(api, "bluez")) {
        return kAudioDeviceTransportTypeBluetooth;
    }
    if (contains(profile, "hdmi") || contains(port, "hdmi") || contains(info.name, "hdmi")) {
        return kAudioDeviceTransportTypeHDMI;
    }
    if (contains(bus, "pci") || contains(bus, "isa") || contains(api, "alsa")) {
        return kAudioDeviceTransportTypeBuiltIn;
    }
    if (contains(deviceClass, "abstract") || contains(deviceClass, "filter") || !bus) {
        return kAudioDeviceTransportTypeVirtual;
    }
    return kAudioDeviceTransportTypeUnknown;
}

} // namespace

/// libpulse's callbacks, on its main-loop thread.
struct PulseCallbacks {
    static void contextState(pa_context* context, void* userData)
    {
        auto* self = static_cast<PulseServerMonitor*>(userData);
        const pa_context_state_t state = pa_context_get_state(context);
        if (state == PA_CONTEXT_FAILED || state == PA_CONTEXT_TERMINATED) {
            std::lock_guard lock(self->mMutex);
            self->mConnected = false;
            self->mFirstInfo.notify_all();
        }
        pa_threaded_mainloop_signal(self->mMainLoop, 0);
    }

    static void subscription(pa_context*, pa_subscription_event_type_t type, uint32_t,
                             void* userData)
    {
        const unsigned facility = type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
        if (facility == PA_SUBSCRIPTION_EVENT_SERVER || facility == PA_SUBSCRIPTION_EVENT_SINK) {
            static_cast<PulseServerMonitor*>(userData)->requestServerInfo();
        }
    }

    static void serverInfo(pa_context* context, const pa_server_info* info, void* userData)
    {
        auto* self = static_cast<PulseServerMonitor*>(userData);
        if (!info) {
            return;
        }
        const std::string name = info->default_sink_name ? info->default_sink_name : "";
        bool changed = false;
        {
            std::lock_guard lock(self->mMutex);
            if (!self->mKnowsDefaultSink) {
                self->mKnowsDefaultSink = true;
                self->mDefaultSink = name;
                if (name.empty()) {
                    self->mHaveInfo = true;
                    self->mFirstInfo.notify_all();
                }
            } else if (name != self->mDefaultSink) {
                self->mDefaultSink = name;
                self->mDefaultSinkDescription.clear();
                self->mDefaultSinkTransport = kAudioDeviceTransportTypeUnknown;
                changed = true;
            }
        }
        if (!name.empty()) {
            pa_operation* operation =
                pa_context_get_sink_info_by_name(context, name.c_str(), &sinkInfo, self);
            if (operation) {
                pa_operation_unref(operation);
            }
        }
        if (changed && self->mHandler) {
            self->mHandler();
        }
    }

    static void sinkInfo(pa_context*, const pa_sink_info* info, int eol, void* userData)
    {
        auto* self = static_cast<PulseServerMonitor*>(userData);
        std::lock_guard lock(self->mMutex);
        if (eol != 0 || !info || !info->name) {
            // The list ended (or the sink vanished): the first report is complete either way.
            if (!self->mHaveInfo) {
                self->mHaveInfo = true;
                self->mFirstInfo.notify_all();
            }
            return;
        }
        if (self->mDefaultSink == info->name) {
            self->mDefaultSinkDescription = info->description ? info->description : "";
            self->mDefaultSinkTransport = transportOfSink(*info);
        }
    }
};

PulseServerMonitor::PulseServerMonitor(ChangeHandler handler) : mHandler(std::move(handler)) {}

std::unique_ptr<PulseServerMonitor>
PulseServerMonitor::connect(ChangeHandler onDefaultSinkChange,
                            std::chrono::milliseconds firstInfoWait)
{
    std::unique_ptr<PulseServerMonitor> monitor(
        new PulseServerMonitor(std::move(onDefaultSinkChange)));
    if (!monitor->start(firstInfoWait)) {
        return nullptr;
    }
    return monitor;
}

bool PulseServerMonitor::start(std::chrono::milliseconds firstInfoWait)
{
    mMainLoop = pa_threaded_mainloop_new();
    if (!mMainLoop || pa_threaded_mainloop_start(mMainLoop) < 0) {
        return false;
    }
    pa_threaded_mainloop_lock(mMainLoop);
    pa_proplist* properties = pa_proplist_new();
    pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, "VellAudio");
    pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, "vellaudio");
    mContext = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(mMainLoop), "VellAudio",
                                            properties);
    pa_proplist_free(properties);
    bool ready = false;
    if (mContext) {
        pa_context_set_state_callback(mContext, &PulseCallbacks::contextState, this);
        if (pa_context_connect(mContext, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0) {
            // A local socket either answers or refuses at once; the wait is short either way.
            for (;;) {
                const pa_context_state_t state = pa_context_get_state(mContext);
                if (state == PA_CONTEXT_READY) {
                    ready = true;
                    break;
                }
                if (!PA_CONTEXT_IS_GOOD(state)) {
                    break;
                }
                pa_threaded_mainloop_wait(mMainLoop);
            }
        }
    }
    if (ready) {
        {
            std::lock_guard lock(mMutex);
            mConnected = true;
        }
        pa_context_set_subscribe_callback(mContext, &PulseCallbacks::subscription, this);
        pa_operation* operation =
            pa_context_subscribe(mContext,
                                 static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SERVER |
                                                                     PA_SUBSCRIPTION_MASK_SINK),
                                 nullptr, nullptr);
        if (operation) {
            pa_operation_unref(operation);
        }
        requestServerInfo();
    }
    pa_threaded_mainloop_unlock(mMainLoop);
    if (!ready) {
        return false;
    }
    std::unique_lock lock(mMutex);
    mFirstInfo.wait_for(lock, firstInfoWait, [this] { return mHaveInfo || !mConnected; });
    return true;
}

void PulseServerMonitor::requestServerInfo()
{
    // Runs on the main-loop thread or with its lock held.
    pa_operation* operation =
        pa_context_get_server_info(mContext, &PulseCallbacks::serverInfo, this);
    if (operation) {
        pa_operation_unref(operation);
    }
}

PulseServerMonitor::~PulseServerMonitor()
{
    if (!mMainLoop) {
        return;
    }
    pa_threaded_mainloop_lock(mMainLoop);
    if (mContext) {
        pa_context_set_subscribe_callback(mContext, nullptr, nullptr);
        pa_context_set_state_callback(mContext, nullptr, nullptr);
        pa_context_disconnect(mContext);
        pa_context_unref(mContext);
        mContext = nullptr;
    }
    pa_threaded_mainloop_unlock(mMainLoop);
    pa_threaded_mainloop_stop(mMainLoop);
    pa_threaded_mainloop_free(mMainLoop);
}

std::string PulseServerMonitor::defaultSinkName() const
{
    std::lock_guard lock(mMutex);
    return mDefaultSink;
}

std::string PulseServerMonitor::defaultSinkDescription() const
{
    std::lock_guard lock(mMutex);
    return mDefaultSinkDescription;
}

OSType PulseServerMonitor::defaultSinkTransportType() const
{
    std::lock_guard lock(mMutex);
    return mDefaultSinkTransport;
}

bool PulseServerMonitor::isConnected() const
{
    std::lock_guard lock(mMutex);
    return mConnected;
}

} // namespace vell::detail
