#include <KXClientFramework/KXNotificationCenter.h>
#include <KXClientFramework/KXProcessWide.h>

#include <utility>
#include <vector>

KXNotificationCenter& KXNotificationCenter::defaultCenter() {
    return kxProcessWide<KXNotificationCenter>();
}

KXNotificationCenter::Token KXNotificationCenter::addObserver(KXApplicationEvent name,
                                                              Observer observer) {
    std::lock_guard lock(mutex_);
    const Token token = nextToken_++;
    if (observer) {
        observers_.emplace(token, Entry{name, std::make_shared<Observer>(std::move(observer))});
    }
    return token;
}

void KXNotificationCenter::removeObserver(Token token) {
    std::shared_ptr<Observer> removed;
    {
        std::lock_guard lock(mutex_);
        auto it = observers_.find(token);
        if (it == observers_.end()) {
            return;
        }
        removed = std::move(it->second.observer);
        observers_.erase(it);
    }
    // `removed` may hold the last reference to a function that is running right now (an
    // observer removing itself); the caller's frame keeps its own reference until it returns.
}

void KXNotificationCenter::post(const KXNotification& notification) {
    // Observers run without the lock so that they may add and remove observers. Those added
    // during this post are not called for it; those removed during it are not called after
    // their removal.
    std::vector<std::pair<Token, std::shared_ptr<Observer>>> matching;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [token, entry] : observers_) {
            if (entry.name == notification.name) {
                matching.emplace_back(token, entry.observer);
            }
        }
    }
    for (const auto& [token, observer] : matching) {
        {
            std::lock_guard lock(mutex_);
            if (observers_.find(token) == observers_.end()) {
                continue;
            }
        }
        (*observer)(notification);
    }
}

void KXNotificationCenter::post(KXApplicationEvent name, KXJSON userInfo) {
    post(KXNotification{name, std::move(userInfo)});
}
