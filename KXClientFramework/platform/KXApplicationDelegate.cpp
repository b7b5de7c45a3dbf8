// The default delegate implements nothing: respondsTo() answers only Description, so the
// application object never calls the bodies below unless a subclass claims a callback
// without overriding it, and then they do nothing (launching succeeds).
#include <KXClientFramework/KXApplicationDelegate.h>

#include <fmt/format.h>

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <typeinfo>

bool KXApplicationDelegate::respondsTo(KXApplicationDelegateCallback callback) const {
    return callback == KXApplicationDelegateCallback::Description;
}

bool KXApplicationDelegate::didFinishLaunching(KXApplication& /*application*/,
                                               const KXJSON& /*launchOptions*/) {
    return true;
}

void KXApplicationDelegate::didBecomeActive(KXApplication& /*application*/) {}
void KXApplicationDelegate::willResignActive(KXApplication& /*application*/) {}
void KXApplicationDelegate::didEnterBackground(KXApplication& /*application*/) {}
void KXApplicationDelegate::willEnterForeground(KXApplication& /*application*/) {}
void KXApplicationDelegate::willTerminate(KXApplication& /*application*/) {}

void KXApplicationDelegate::didRegisterForRemoteNotificationsWithDeviceToken(
    KXApplication& /*application*/, const std::vector<std::uint8_t>& /*deviceToken*/) {}

void KXApplicationDelegate::didFailToRegisterForRemoteNotificationsWithError(
    KXApplication& /*application*/, const KXError& /*error*/) {}

void KXApplicationDelegate::didReceiveRemoteNotification(KXApplication& /*application*/,
                                                         const KXJSON& /*userInfo*/) {}

void KXApplicationDelegate::didReceiveRemoteNotification(
    KXApplication& /*application*/, const KXJSON& /*userInfo*/,
    std::function<void(KXBackgroundFetchResult)> /*completionHandler*/) {}

void KXApplicationDelegate::handleActionWithIdentifier(
    KXApplication& /*application*/, const std::string& /*identifier*/, const KXJSON& /*userInfo*/,
    std::function<void()> /*completionHandler*/) {}

void KXApplicationDelegate::didRegisterUserNotificationSettings(
    KXApplication& /*application*/, const KXUserNotificationSettings& /*settings*/) {}

std::string KXApplicationDelegate::description() const {
    // "<ClassName: 0x...>", the dynamic class's readable name and the object's address.
    const char* mangled = typeid(*this).name();
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> demangled(
        abi::__cxa_demangle(mangled, nullptr, nullptr, &status), std::free);
    const char* name = status == 0 && demangled ? demangled.get() : mangled;
    return fmt::format("<{}: {}>", name, static_cast<const void*>(this));
}
