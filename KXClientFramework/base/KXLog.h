#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXGlobals.h>
#include <KXClientFramework/KXLogSink.h>

#include <fmt/format.h>

#include <cstdint>
#include <memory>
#include <source_location>
#include <string>
#include <string_view>

#if defined(__cpp_lib_source_location)
using KXSourceLocation = std::source_location;
#else
/// Where a log line comes from, for compilers whose standard library cannot provide
/// std::source_location (clang 14 with libstdc++, the fuzzing build). Only the bare function
/// name is known there.
struct KXSourceLocation {
    static constexpr KXSourceLocation current(const char* function = __builtin_FUNCTION(),
                                              unsigned line = __builtin_LINE()) noexcept {
        KXSourceLocation location;
        location.function_ = function;
        location.line_ = line;
        return location;
    }
    constexpr const char* function_name() const noexcept { return function_; }
    constexpr unsigned line() const noexcept { return line_; }

private:
    const char* function_ = "";
    unsigned line_ = 0;
};
#endif

enum class KXLogLevel : std::int64_t { Error = 1, Warn = 2, Info = 3, Debug = 4 };

/// The library's one log facility.
///
/// A line reads "[LEVEL] Class::method [Line N] message". It is written only when logging is
/// on and kxLogLevel is at least the level's number; otherwise nothing is formatted at all.
/// Written lines go to the sink and, when disk logging (kxLoggingToDiskEnabled) is on, to the
/// disk sink as well.
class KX_EXPORT KXLog {
public:
    static bool isEnabled(KXLogLevel level) noexcept {
        return kxLoggingEnabled.load(std::memory_order_relaxed) &&
               kxLogLevel.load(std::memory_order_relaxed) >= static_cast<std::int64_t>(level);
    }

    /// Builds the prefixed line and writes it; callers use the KX_LOG_* macros instead.
    static void write(KXLogLevel level, const KXSourceLocation& where, std::string_view message);
    /// Like write(), but naming `function` ("Class::method") in the line instead of the
    /// caller's own function: for code that carries out another class's operation and logs
    /// under that operation's name. Callers use KX_LOG_AS.
    static void writeAs(KXLogLevel level, std::string_view function, std::uint_least32_t line,
                        std::string_view message);

    /// Writes a line to the sink unconditionally, without prefix or level test.
    static void systemLog(std::string_view line);

    /// Replaces the sink; null restores standard error.
    static void setSink(std::shared_ptr<KXLogSink> sink);
    static std::shared_ptr<KXLogSink> sink();

    /// The sink that receives the written lines while disk logging is on; null drops them.
    /// The platform installs a KXDiskLogSink for its caches directory when the library loads.
    static void setDiskSink(std::shared_ptr<KXLogSink> sink);
    static std::shared_ptr<KXLogSink> diskSink();

    /// "Class::method" from a compiler function signature.
    static std::string functionName(std::string_view signature);
    static std::string_view levelWord(KXLogLevel level) noexcept;
};

#define KX_LOG(level, ...)                                                              \
    do {                                                                                \
        if (KXLog::isEnabled(level)) {                                                  \
            KXLog::write(level, KXSourceLocation::current(), fmt::format(__VA_ARGS__)); \
        }                                                                               \
    } while (false)

#define KX_LOG_AS(level, function, ...)                                          \
    do {                                                                         \
        if (KXLog::isEnabled(level)) {                                           \
            KXLog::writeAs(level, function, __LINE__, fmt::format(__VA_ARGS__)); \
        }                                                                        \
    } while (false)

#define KX_LOG_ERROR(...) KX_LOG(KXLogLevel::Error, __VA_ARGS__)
#define KX_LOG_WARN(...) KX_LOG(KXLogLevel::Warn, __VA_ARGS__)
#define KX_LOG_INFO(...) KX_LOG(KXLogLevel::Info, __VA_ARGS__)
#define KX_LOG_DEBUG(...) KX_LOG(KXLogLevel::Debug, __VA_ARGS__)
