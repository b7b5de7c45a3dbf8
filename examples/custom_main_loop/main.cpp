// Two ways for an application that owns its main loop to run the library's main queue:
//
//  1. A game loop that keeps the default asio main queue and polls it once per frame.
//  2. A hand-written event loop that implements KXMainQueue itself and installs it with the
//     platform (the same route a Qt or GLib adapter takes).
//
// Both post the application's life-cycle events, as the operating system does for a phone
// application. Run it: each part prints the callbacks and notifications it sees.

#include <KXClientFramework/KXLinuxPlatform.h>
#include <KXClientFramework/KXNotificationCenter.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

using namespace std::chrono_literals;

// The application's delegate: says which callbacks it implements, then implements them.
class ExampleDelegate final : public KXApplicationDelegate {
public:
    bool respondsTo(KXApplicationDelegateCallback callback) const override {
        using C = KXApplicationDelegateCallback;
        switch (callback) {
            case C::DidFinishLaunching:
            case C::DidBecomeActive:
            case C::DidEnterBackground:
            case C::WillTerminate:
            case C::Description:
                return true;
            default:
                return false;
        }
    }
    bool didFinishLaunching(KXApplication&, const KXJSON& options) override {
        std::printf("  delegate: launched with %s\n", options.dump().c_str());
        return true;
    }
    void didBecomeActive(KXApplication&) override { std::printf("  delegate: active\n"); }
    void didEnterBackground(KXApplication& application) override {
        // Finish some work in the background: a task keeps it going until it is ended or the
        // time allowed in the background is up.
        auto task = std::make_shared<KXBackgroundTaskIdentifier>();
        *task = application.beginBackgroundTask([&application, task] {
            std::printf("  delegate: background time is up\n");
            application.endBackgroundTask(*task);
        });
        std::printf("  delegate: in the background, task %llu running\n",
                    static_cast<unsigned long long>(*task));
    }
    void willTerminate(KXApplication&) override { std::printf("  delegate: terminating\n"); }
};

void observeLifeCycle() {
    for (auto event : {KXApplicationEvent::DidBecomeActive, KXApplicationEvent::WillResignActive}) {
        KXNotificationCenter::defaultCenter().addObserver(event, [](const KXNotification& n) {
            std::printf("  notification: %s\n", n.name == KXApplicationEvent::DidBecomeActive
                                                    ? "became active"
                                                    : "will resign active");
        });
    }
}

// ---------------------------------------------------------------------------------------------
// 1. A game loop on the default asio main queue.

void runGameLoop() {
    std::printf("game loop, polling the asio main queue every frame\n");
    KXLinuxPlatformOptions options;
    options.applicationId = "com.example.gameloop";
    options.backgroundTimeLimit = 100ms;  // short, so the example shows the expiration
    auto platform = std::make_shared<KXLinuxPlatform>(options);
    KXPlatform::install(platform);

    KXAsioMainQueue& queue = *platform->asioMainQueue();
    KXApplication& application = platform->application();
    application.setDelegate(std::make_shared<ExampleDelegate>());

    application.postEvent(KXApplicationEvent::DidFinishLaunching, KXJSON{{"source", "game"}});
    application.postEvent(KXApplicationEvent::DidBecomeActive);

    for (int frame = 0; frame < 40; ++frame) {
        // Simulate the window losing focus at frame 10 and coming back at frame 30.
        if (frame == 10) {
            application.postEvent(KXApplicationEvent::WillResignActive);
            application.postEvent(KXApplicationEvent::DidEnterBackground);
        }
        if (frame == 30) {
            application.postEvent(KXApplicationEvent::WillEnterForeground);
            application.postEvent(KXApplicationEvent::DidBecomeActive);
        }
        // update(); render();  -- the game's own work
        std::this_thread::sleep_for(8ms);
        // Then the library's: everything that is due, without waiting. A loop with spare
        // time per frame may call queue.runFor(remaining) instead.
        queue.poll();
    }
    application.postEvent(KXApplicationEvent::WillTerminate);
    queue.poll();
}

// ---------------------------------------------------------------------------------------------
// 2. A hand-written event loop with its own KXMainQueue.

// The loop's queue: work and timers under a mutex, a condition variable to wake the loop.
class HandWrittenLoop final : public KXMainQueue {
public:
    void post(std::function<void()> work) override { postAfter(0ms, std::move(work)); }

    void postAfter(std::chrono::milliseconds delay, std::function<void()> work) override {
        if (!work) {
            return;
        }
        {
            std::lock_guard lock(mutex_);
            // Equal deadlines keep their posting order (multimap inserts after equal keys).
            timers_.emplace(std::chrono::steady_clock::now() + delay, std::move(work));
        }
        wake_.notify_one();
    }

    bool isMainThread() const override { return std::this_thread::get_id() == owner_; }

    // One turn of the loop: wait for the next due item (at most `timeout`) and run what is due.
    void runOnce(std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex_);
        const auto limit = std::chrono::steady_clock::now() + timeout;
        const auto next = timers_.empty() ? limit : std::min(limit, timers_.begin()->first);
        wake_.wait_until(lock, next, [&] {
            return !timers_.empty() && timers_.begin()->first <= std::chrono::steady_clock::now();
        });
        std::deque<std::function<void()>> due;
        const auto now = std::chrono::steady_clock::now();
        while (!timers_.empty() && timers_.begin()->first <= now) {
            due.push_back(std::move(timers_.begin()->second));
            timers_.erase(timers_.begin());
        }
        lock.unlock();
        for (auto& work : due) {
            work();  // without the lock: work may post more work
        }
    }

private:
    const std::thread::id owner_ = std::this_thread::get_id();
    std::mutex mutex_;
    std::condition_variable wake_;
    std::multimap<std::chrono::steady_clock::time_point, std::function<void()>> timers_;
};

void runHandWrittenLoop() {
    std::printf("hand-written loop with its own main queue\n");
    auto loop = std::make_shared<HandWrittenLoop>();
    KXLinuxPlatformOptions options;
    options.applicationId = "com.example.ownloop";
    options.mainQueue = loop;  // the library now delivers everything through this loop
    options.backgroundTimeLimit = 50ms;
    auto platform = std::make_shared<KXLinuxPlatform>(options);
    KXPlatform::install(platform);

    KXApplication& application = platform->application();
    application.setDelegate(std::make_shared<ExampleDelegate>());
    application.postEvent(KXApplicationEvent::DidFinishLaunching);
    application.postEvent(KXApplicationEvent::DidBecomeActive);

    // Work from another thread (as a network completion would be) lands on the loop's thread.
    std::thread worker([&] {
        platform->mainQueue().post([&] {
            std::printf("  posted from a worker, running on the loop's thread: %s\n",
                        platform->mainQueue().isMainThread() ? "yes" : "no");
        });
    });
    worker.join();

    application.postEvent(KXApplicationEvent::WillResignActive);
    application.postEvent(KXApplicationEvent::DidEnterBackground);
    for (int turn = 0; turn < 10; ++turn) {
        loop->runOnce(20ms);
    }
    application.postEvent(KXApplicationEvent::WillTerminate);
}

int main(int argc, char** argv) {
    constexpr const char* kUsage =
        "usage: example_custom_main_loop [--help]\nRuns the library's main queue from a game loop "
        "and from a hand-written event loop,\nprinting the life-cycle callbacks and notifications "
        "each sees. Takes no options.\n";
    if (argc > 1) {
        const std::string argument = argv[1];
        const bool help = argument == "--help" || argument == "-h";
        std::fputs(kUsage, help ? stdout : stderr);
        return help ? 0 : 2;
    }
    observeLifeCycle();
    runGameLoop();
    runHandWrittenLoop();
    return 0;
}
