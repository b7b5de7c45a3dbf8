#pragma once

#include <KXClientFramework/KXExport.h>

#include <atomic>
#include <cstdint>

// Process-wide switches. They are atomics so that any thread may read or flip them.

/// Master switch of the log facility (initially on).
extern KX_EXPORT std::atomic<bool> kxLoggingEnabled;
/// Highest level written: 1 ERROR, 2 WARN, 3 INFO, 4 DEBUG; 0 or below silences everything.
extern KX_EXPORT std::atomic<std::int64_t> kxLogLevel;
/// Also append every written log line to the log file in the caches directory (initially off).
extern KX_EXPORT std::atomic<bool> kxLoggingToDiskEnabled;
/// The library maintains the application badge (initially on).
extern KX_EXPORT std::atomic<bool> badging;
/// Analytics is switched on (initially off).
extern KX_EXPORT std::atomic<bool> analyticsEnabled;

// Constants.

extern KX_EXPORT const std::int64_t inboxPageSize;  // 20
extern KX_EXPORT const std::int64_t listPageSize;   // 20
extern KX_EXPORT const double KXClientFrameworkVersionNumber;
extern KX_EXPORT const char
    KXClientFrameworkVersionString[];  // NOLINT(modernize-avoid-c-arrays): a C string by contract
extern KX_EXPORT const char* const KX_IOS_SDK_VERSION_STRING;  // "1.0.8.1"
extern KX_EXPORT const char* const InboxEmptyCellReuseIdentifier;
extern KX_EXPORT const char* const ListCellReuseIdentifier;
extern KX_EXPORT const char* const ListEmptyCellReuseIdentifier;
extern KX_EXPORT const char* const kKXAFOAuthClientCredentialsGrantType;
extern KX_EXPORT const char* const kKXAFOAuthScope;
