#pragma once

#include <KXClientFramework/TZCryptorSettings.h>

#include <cstdint>

// Upper bounds on the sizes settings may ask for. Nothing real comes near them; they keep a
// mistaken or hostile settings value from turning into a giant allocation.

/// The largest key, salt or IV a cryptor makes or reads.
inline constexpr std::uint64_t kTZMaxSettingSize = 1 << 20;
/// The largest HMAC a container carries (the longest digest, SHA-512, is 64 bytes).
inline constexpr std::uint64_t kTZMaxHMACLength = 64;

inline bool TZKeySettingsAreUsable(const TZCryptorKeyDerivationSettings& settings) {
    return settings.keySize <= kTZMaxSettingSize && settings.saltSize <= kTZMaxSettingSize;
}

inline bool TZSettingsAreUsable(const TZCryptorSettings& settings) {
    return settings.IVSize <= kTZMaxSettingSize && settings.HMACLength <= kTZMaxHMACLength &&
           TZKeySettingsAreUsable(settings.keySettings) &&
           TZKeySettingsAreUsable(settings.HMACKeySettings);
}
