#pragma once

#include <KXClientFramework/KXExport.h>

#include <chrono>
#include <functional>

/// The application's main queue: everything the library does for the application runs here and
/// every success and failure callback is delivered here.
///
/// The default is KXAsioMainQueue, an asio::io_context that the application runs on its initial
/// thread. An application with its own main loop (Qt, GLib, a game loop) implements this
/// interface on top of that loop and installs it with its platform.
class KX_EXPORT KXMainQueue {
public:
    virtual ~KXMainQueue() = default;

    /// Queues `work` to run on the main thread, after what is already queued. Safe from any
    /// thread, including the main thread itself (the work then runs later, never inline).
    virtual void post(std::function<void()> work) = 0;

    /// Queues `work` to run on the main thread once `delay` has passed.
    virtual void postAfter(std::chrono::milliseconds delay, std::function<void()> work) = 0;

    /// True when called on the main thread. Answers correctly from any thread.
    virtual bool isMainThread() const = 0;
};
