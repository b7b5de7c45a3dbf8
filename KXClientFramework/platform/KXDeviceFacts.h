#pragma once

#include <optional>
#include <string>
#include <vector>

/// Facts about the device and its operating system. Absent where the platform has no such fact
/// (a Linux machine has no cellular carrier).
struct KXDeviceFacts {
    std::optional<std::string> systemName;     // "Debian GNU/Linux"
    std::optional<std::string> systemVersion;  // "12"
    std::optional<std::string> model;          // "ThinkPad X1 Carbon Gen 9"
    std::string manufacturer;                  // always present ("Unknown" when not known)
    std::optional<std::string> carrierName;
    std::optional<std::string> localeIdentifier;  // "en_US"
    std::vector<std::string> preferredLanguages;  // "en-US", "en"
    /// The platform's capability level; 847.2 and above means background remote notifications
    /// can run (the value iPhone OS 7.0 reported).
    double coreFoundationVersionNumber = 0.0;
};
