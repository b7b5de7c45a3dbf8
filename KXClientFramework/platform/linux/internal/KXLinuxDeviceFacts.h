#pragma once

// Reading the device facts of a Linux machine. The sources are parameters so that tests can
// point them at fixture files and a made-up environment.

#include <KXClientFramework/KXDeviceFacts.h>
#include <KXClientFramework/KXExport.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

struct KXLinuxDeviceFactsSources {
    /// os-release(5): NAME and VERSION_ID. The second path is read when the first is missing.
    std::filesystem::path osRelease = "/etc/os-release";
    std::filesystem::path osReleaseFallback = "/usr/lib/os-release";
    /// DMI (PCs, servers, most x86 kiosks).
    std::filesystem::path dmiProductName = "/sys/class/dmi/id/product_name";
    std::filesystem::path dmiSysVendor = "/sys/class/dmi/id/sys_vendor";
    /// The device tree (ARM and RISC-V boards), read when DMI names no model.
    std::filesystem::path deviceTreeModel = "/proc/device-tree/model";
    /// Looks up an environment variable; null means the process environment.
    std::function<std::optional<std::string>(const std::string&)> environment;
};

/// Reads the facts from `sources`: system name and version from os-release, model from DMI or
/// the device tree (placeholder texts such as "To be filled by O.E.M." count as unknown),
/// manufacturer from DMI or "Unknown", no carrier, the locale from LC_ALL, LC_MESSAGES or LANG
/// ("en_US.UTF-8" gives "en_US"; C and POSIX give none), preferred languages from LANGUAGE
/// ("en_GB:en" gives "en-GB", "en") or else from the locale, and
/// kKXLinuxCoreFoundationVersionNumber.
KX_EXPORT KXDeviceFacts kxReadLinuxDeviceFacts(const KXLinuxDeviceFactsSources& sources = {});

/// Parses os-release(5) text into the value of `key`, unquoted and unescaped.
KX_EXPORT std::optional<std::string> kxOsReleaseValue(const std::string& text,
                                                      const std::string& key);
