#include <KXClientFramework/KXLog.h>

#include <cstdio>
#include <mutex>
#include <string>

namespace {

std::mutex& sinkMutex() {
    static std::mutex mutex;
    return mutex;
}

std::shared_ptr<KXLogSink>& installedSink() {
    static std::shared_ptr<KXLogSink> sink = std::make_shared<KXStandardErrorSink>();
    return sink;
}

std::shared_ptr<KXLogSink>& installedDiskSink() {
    static std::shared_ptr<KXLogSink> sink;
    return sink;
}

}  // namespace

void KXStandardErrorSink::write(std::string_view line) {
    std::string buffer;
    buffer.reserve(line.size() + 1);
    buffer.append(line).push_back('\n');
    std::fwrite(buffer.data(), 1, buffer.size(), stderr);
}

void KXLog::setSink(std::shared_ptr<KXLogSink> sink) {
    std::lock_guard lock(sinkMutex());
    installedSink() = sink ? std::move(sink) : std::make_shared<KXStandardErrorSink>();
}

std::shared_ptr<KXLogSink> KXLog::sink() {
    std::lock_guard lock(sinkMutex());
    return installedSink();
}

void KXLog::setDiskSink(std::shared_ptr<KXLogSink> sink) {
    std::lock_guard lock(sinkMutex());
    installedDiskSink() = std::move(sink);
}

std::shared_ptr<KXLogSink> KXLog::diskSink() {
    std::lock_guard lock(sinkMutex());
    return installedDiskSink();
}

void KXLog::systemLog(std::string_view line) {
    sink()->write(line);
}

std::string_view KXLog::levelWord(KXLogLevel level) noexcept {
    switch (level) {
        case KXLogLevel::Error:
            return "ERROR";
        case KXLogLevel::Warn:
            return "WARN";
        case KXLogLevel::Info:
            return "INFO";
        case KXLogLevel::Debug:
            return "DEBUG";
    }
    return "LOG";
}

std::string KXLog::functionName(std::string_view signature) {
    // The name ends at the first "(" outside template brackets and starts after the last blank
    // before it that is outside template brackets (which separates the return type).
    int depth = 0;
    std::size_t start = 0;
    std::size_t end = signature.size();
    for (std::size_t i = 0; i < signature.size(); ++i) {
        const char c = signature[i];
        if (c == '<') {
            ++depth;
        } else if (c == '>' && depth > 0) {
            --depth;
        } else if (depth == 0 && c == ' ') {
            start = i + 1;
        } else if (depth == 0 && c == '(') {
            end = i;
            break;
        }
    }
    return std::string(signature.substr(start, end - start));
}

void KXLog::write(KXLogLevel level, const KXSourceLocation& where, std::string_view message) {
    writeAs(level, functionName(where.function_name()), where.line(), message);
}

void KXLog::writeAs(KXLogLevel level, std::string_view function, std::uint_least32_t lineNumber,
                    std::string_view message) {
    const std::string line =
        fmt::format("[{}] {} [Line {}] {}", levelWord(level), function, lineNumber, message);
    systemLog(line);
    if (kxLoggingToDiskEnabled.load(std::memory_order_relaxed)) {
        if (const auto disk = diskSink()) {
            disk->write(line);
        }
    }
}
