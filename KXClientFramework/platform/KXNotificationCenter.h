#pragma once

#include <KXClientFramework/KXApplicationTypes.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

/// A posted life-cycle event and its user info (for DidFinishLaunching: the launch options).
struct KXNotification {
    KXApplicationEvent name;
    KXJSON userInfo;
};

/// The process-wide notification centre for the application's life-cycle events.
///
/// It exists independently of the platform so that observers can register when the library is
/// loaded, before any platform is installed. Observers run synchronously on the posting thread
/// (the main thread, for the events the application posts), in the order they were added. An
/// observer may add or remove observers, itself included, while it runs.
class KX_EXPORT KXNotificationCenter {
public:
    using Observer = std::function<void(const KXNotification&)>;
    using Token = std::uint64_t;

    static KXNotificationCenter& defaultCenter();

    Token addObserver(KXApplicationEvent name, Observer observer);
    void removeObserver(Token token);
    void post(const KXNotification& notification);
    void post(KXApplicationEvent name, KXJSON userInfo = nullptr);

private:
    struct Entry {
        KXApplicationEvent name;
        std::shared_ptr<Observer> observer;
    };
    std::mutex mutex_;
    std::map<Token, Entry> observers_;
    Token nextToken_ = 1;
};
