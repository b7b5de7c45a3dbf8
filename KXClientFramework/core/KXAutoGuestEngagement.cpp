// Engaging with the automatic guest: the guest of this installation is fetched again by the id
// stored in the user defaults, or registered and its id stored.
#include <KXClientFramework/KXClientFrameworkFacade.h>
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXGuest.h>
#include <KXClientFramework/KXGuestManager.h>
#include <KXClientFramework/KXLog.h>

#include <utility>

std::string KXClientFramework::autoGuestStorageKey() {
    const KXConfig& config = KXConfig::defaultConfig();
    const auto& clientId = config.inProduction() ? config.prodClientId() : config.stageClientId();
    return (clientId ? *clientId : std::string("(null)")) + "-GUEST-ID";
}

void KXClientFramework::engageWithAutoGuestUsingKey(
    const std::string& key, std::function<void(const std::shared_ptr<KXGuest>&)> success,
    std::function<void(const KXError&)> failure) {
    engageUsingKey(key);
    const std::string storageKey = autoGuestStorageKey();

    if (!KXConfig::defaultConfig().autoGuestEnabled()) {
        KX_LOG_DEBUG("Delete KXGuest externalId in UserDefaults");
        deleteUserDefaultsExternalIdForKey(storageKey);
        KXGuest::currentGuest()->logout();
        if (success) {
            success(nullptr);
        }
        return;
    }

    // The entry lives in the user defaults, whatever the line says.
    KX_LOG_DEBUG("Get stored KXGuest external with keychain key: {}", storageKey);
    auto failed = [failure = std::move(failure)](const KXError& error) {
        KX_LOG_ERROR("ERROR: {}", error.description());
        if (failure) {
            failure(error);
        }
    };
    const auto storedId = sharedManager().retrieveUserDefaultsExternalIdForKey(storageKey);
    if (storedId) {
        KXGuestManager::fetchGuestWithId(
            storedId,
            [storageKey, success](const std::shared_ptr<KXGuest>& guest) {
                KX_LOG_DEBUG("Reset KXGuest externalId in UserDefaults");
                sharedManager().saveUserDefaultsExternalId(guest->externalId(), storageKey);
                if (success) {
                    success(guest);
                }
            },
            std::move(failed));
        return;
    }
    KXGuestManager::registerGuestWithSuccess(
        [storageKey, success](const std::shared_ptr<KXGuest>& guest) {
            KX_LOG_DEBUG("Set KXGuest externalId in UserDefaults");
            sharedManager().saveUserDefaultsExternalId(guest->externalId(), storageKey);
            if (success) {
                success(guest);
            }
        },
        std::move(failed));
}
