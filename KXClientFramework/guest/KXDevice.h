#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// User-defaults key of the current push token (a string).
inline constexpr const char* kKXApplicationDeviceTokenKey = "applicationDeviceToken";
/// User-defaults key of every distinct push token ever saved, oldest first (an array).
inline constexpr const char* kKXApplicationDeviceTokenListKey = "applicationDeviceTokenList";

/// What the library knows about the device it runs on: the push token the platform issued to
/// this installation, the history of such tokens, a badge count, and the device and application
/// facts that analytics sends with every session.
///
/// The current token lives in memory once a new one arrives and in the platform's user
/// defaults, so the token of an earlier launch stays in use until a new one arrives. The token
/// list only grows: a token is appended the first time it is saved, and the whole list goes
/// only through deleteDeviceTokenList().
///
/// Every member may be called from any thread; the user-defaults store serialises its own
/// access.
class KX_EXPORT KXDevice {
public:
    /// The shared device, created on first use and kept for the life of the process.
    static KXDevice& currentDevice();

    /// No token in memory, badge 0.
    KXDevice();
    KXDevice(const KXDevice&) = delete;
    KXDevice& operator=(const KXDevice&) = delete;

    /// The token in memory if one was set, otherwise the one stored in the user defaults.
    std::optional<std::string> deviceToken() const;
    /// Keeps `deviceToken` in memory only.
    void setDeviceToken(std::optional<std::string> deviceToken);

    /// True when the stored token list holds more than one token.
    bool multipleDeviceTokens() const;

    /// Makes `deviceToken` the current token, in memory and in the user defaults, and adds it
    /// to the token list. An absent or empty token is refused with a WARN line and changes
    /// nothing.
    void saveDeviceToken(const std::optional<std::string>& deviceToken);

    /// Writes the token held in memory under "applicationDeviceToken" (removing the entry when
    /// none is held), appends `deviceToken` to "applicationDeviceTokenList" unless the list
    /// already holds it, and synchronises the store.
    void saveToUserDefaults(const std::optional<std::string>& deviceToken);

    /// The stored current token, or absent.
    std::optional<std::string> retrieveDeviceTokenFromUserDefaults() const;
    /// The stored token list; empty when there is none.
    std::vector<std::string> retrieveDeviceTokenListFromUserDefaults() const;

    /// Forgets the current token, in memory and in the store. The token list stays.
    void deleteDeviceToken();
    /// Removes the token list. The current token stays.
    void deleteDeviceTokenList();

    /// Logs the stored token, the stored list and deviceData() at DEBUG level.
    void printDeviceTokensSavedInUserDefaults() const;

    /// The device and application facts, built afresh on every call. "manufacturer" and
    /// "pushEnabled" are always present; "osVersion", "deviceModel", "appName", "appVersion",
    /// "carrier", "country", "language" and "frameworkVersion" only when the platform knows
    /// them.
    KXJSON deviceData() const;

    std::int64_t badge() const { return badge_.load(); }
    void setBadge(std::int64_t badge) { badge_.store(badge); }

private:
    mutable std::mutex mutex_;
    std::optional<std::string> deviceToken_;
    std::atomic<std::int64_t> badge_{0};
};
