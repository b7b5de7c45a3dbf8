#pragma once

// The platform kxctl runs the library on: the Linux default, except that the main bundle's
// configuration resource (KXConfig.enc) is the file given with --config, whatever its name.

#include <KXClientFramework/KXBundle.h>
#include <KXClientFramework/KXLinuxPlatform.h>
#include <KXClientFramework/KXPlatform.h>

#include <filesystem>
#include <memory>

/// A bundle that answers KXConfig.enc with one given file and everything else from another
/// bundle.
class KXCtlBundle final : public KXBundle {
public:
    KXCtlBundle(KXBundle& resources, std::filesystem::path configuration)
        : resources_(resources), configuration_(std::move(configuration)) {}

    std::optional<std::filesystem::path> pathForResource(const std::string& name,
                                                         const std::string& type) const override;
    KXJSON infoDictionary() const override { return resources_.infoDictionary(); }

private:
    KXBundle& resources_;
    std::filesystem::path configuration_;
};

/// The Linux default platform with KXCtlBundle as its main bundle. Resources other than the
/// configuration (an Info.plist, for instance) are looked up in the configuration's folder.
class KXCtlPlatform final : public KXPlatform {
public:
    explicit KXCtlPlatform(const std::filesystem::path& configuration);

    KXMainQueue& mainQueue() override { return linux_->mainQueue(); }
    KXBackgroundQueue& backgroundQueue() override { return linux_->backgroundQueue(); }
    KXApplication& application() override { return linux_->application(); }
    KXBundle& mainBundle() override { return bundle_; }
    KXUserDefaults& userDefaults() override { return linux_->userDefaults(); }
    KXKeychain& keychain() override { return linux_->keychain(); }
    KXDeviceFacts deviceFacts() const override { return linux_->deviceFacts(); }
    std::filesystem::path cachesDirectory() const override { return linux_->cachesDirectory(); }
    std::unique_ptr<KXLocationSource> makeLocationSource() override {
        return linux_->makeLocationSource();
    }
    KXNotificationAuthorizer& notificationAuthorizer() override {
        return linux_->notificationAuthorizer();
    }
    KXAlertPresenter& alertPresenter() override { return linux_->alertPresenter(); }
    const KXClock& clock() const override { return linux_->clock(); }

    KXAsioMainQueue& asioMainQueue() { return *linux_->asioMainQueue(); }

private:
    std::unique_ptr<KXLinuxPlatform> linux_;
    KXCtlBundle bundle_;
};
