#pragma once

#include <KXClientFramework/KXExport.h>

#include <KXClientFramework/KXJSON.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The library's settings, read from the application's sealed configuration file KXConfig.enc.
///
/// One shared object, defaultConfig(), holds them for the process. It starts empty (strings
/// absent, booleans false, interval 0) and is filled by configWithContentsOfFile(), which
/// always fills the shared object whichever instance it is called on.
class KX_EXPORT KXConfig {
public:
    static KXConfig& defaultConfig();

    /// Opens the sealed property list at `path` with `key` and copies its values into
    /// defaultConfig(). A missing file shows the missing-file alert and returns false. A file
    /// that does not open with the key (wrong key, damaged file, not a property list) stops the
    /// process: a misconfigured application fails fast.
    bool configWithContentsOfFile(const std::optional<std::filesystem::path>& path,
                                  const std::string& key);
    /// configWithContentsOfFile() into this object instead of defaultConfig(): for an
    /// engagement that works with a configuration of its own.
    bool loadContentsOfFile(const std::optional<std::filesystem::path>& path,
                            const std::string& key);

    /// Opens sealed configuration bytes with `key`: the property list as JSON, or absent when
    /// the key is wrong or the data is damaged or not a property list. Never stops the process,
    /// so tools can report a bad file cleanly.
    static std::optional<KXJSON> openSealedConfiguration(const std::vector<std::uint8_t>& sealed,
                                                         const std::string& key);

    /// Copies the values of an opened configuration into this object, every property again:
    /// keys that are missing reset their property to absent or false, the interval to 90.
    void applyConfiguration(const KXJSON& configuration);

    /// The property-list keys the library reads, in the order they are applied.
    static const std::array<const char*, 13>& propertyListKeys();

    /// The platform's boolean reading of a property-list value: true for a non-zero number, or
    /// a string that begins (after blanks, a sign and zeros) with Y, y, T, t or a digit 1-9.
    static bool boolValue(const KXJSON& value);
    /// The platform's integer reading: numbers (reals truncated), and strings from their leading
    /// decimal digits; anything else is 0.
    static std::int64_t integerValue(const KXJSON& value);

    /// Shows the "Missing Config File" alert through the platform's alert presenter.
    void showMissingConfigFileAlertView();

    /// True when inboxDomainId is present and not empty.
    bool validateInboxDomainId() const;

    const std::optional<std::string>& appId() const { return appId_; }
    void setAppId(std::optional<std::string> v) { appId_ = std::move(v); }
    const std::optional<std::string>& inboxDomainId() const { return inboxDomainId_; }
    void setInboxDomainId(std::optional<std::string> v) { inboxDomainId_ = std::move(v); }
    const std::optional<std::string>& stageClientId() const { return stageClientId_; }
    void setStageClientId(std::optional<std::string> v) { stageClientId_ = std::move(v); }
    const std::optional<std::string>& stageClientSecret() const { return stageClientSecret_; }
    void setStageClientSecret(std::optional<std::string> v) { stageClientSecret_ = std::move(v); }
    const std::optional<std::string>& prodClientId() const { return prodClientId_; }
    void setProdClientId(std::optional<std::string> v) { prodClientId_ = std::move(v); }
    const std::optional<std::string>& prodClientSecret() const { return prodClientSecret_; }
    void setProdClientSecret(std::optional<std::string> v) { prodClientSecret_ = std::move(v); }

    bool inProduction() const { return inProduction_; }
    void setInProduction(bool v) { inProduction_ = v; }
    bool analyticsEnabled() const { return analyticsEnabled_; }
    void setAnalyticsEnabled(bool v) { analyticsEnabled_ = v; }
    bool locationServicesEnabled() const { return locationServicesEnabled_; }
    void setLocationServicesEnabled(bool v) { locationServicesEnabled_ = v; }
    bool autoGuestEnabled() const { return autoGuestEnabled_; }
    void setAutoGuestEnabled(bool v) { autoGuestEnabled_ = v; }
    bool networkActivityIndicatorEnabled() const { return networkActivityIndicatorEnabled_; }
    void setNetworkActivityIndicatorEnabled(bool v) { networkActivityIndicatorEnabled_ = v; }
    bool locationFuzzEnabled() const { return locationFuzzEnabled_; }
    void setLocationFuzzEnabled(bool v) { locationFuzzEnabled_ = v; }
    std::int64_t analyticsSessionInterval() const { return analyticsSessionInterval_; }
    void setAnalyticsSessionInterval(std::int64_t v) { analyticsSessionInterval_ = v; }

private:
    std::optional<std::string> appId_;
    std::optional<std::string> inboxDomainId_;
    std::optional<std::string> stageClientId_;
    std::optional<std::string> stageClientSecret_;
    std::optional<std::string> prodClientId_;
    std::optional<std::string> prodClientSecret_;
    bool inProduction_ = false;
    bool analyticsEnabled_ = false;
    bool locationServicesEnabled_ = false;
    bool autoGuestEnabled_ = false;
    bool networkActivityIndicatorEnabled_ = false;
    bool locationFuzzEnabled_ = false;
    std::int64_t analyticsSessionInterval_ = 0;
};
