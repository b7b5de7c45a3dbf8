// Routes the library's log lines into the application's own logger and turns on the copy in
// the log file. Run it and look at standard output and at
// $XDG_CACHE_HOME/<application id>/ZandrelSDK.log.

#include <KXClientFramework/KXDiskLogger.h>
#include <KXClientFramework/KXLinuxPlatform.h>
#include <KXClientFramework/KXLog.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

// Stands for the application's logger: here it stamps each line and prints it to stdout.
class ApplicationLogSink final : public KXLogSink {
public:
    void write(std::string_view line) override {
        std::lock_guard lock(mutex_);
        const std::time_t now = std::time(nullptr);
        char stamp[32];
        std::strftime(stamp, sizeof stamp, "%H:%M:%S", std::localtime(&now));
        std::printf("%s kx: %.*s\n", stamp, static_cast<int>(line.size()), line.data());
    }

private:
    std::mutex mutex_;
};

int main(int argc, char** argv) {
    constexpr const char* kUsage =
        "usage: example_log_routing [--help]\nRoutes the library's log lines into an application "
        "logger on standard output and\nappends them to "
        "$XDG_CACHE_HOME/com.example.logrouting/ZandrelSDK.log. Takes no options.\n";
    if (argc > 1) {
        const std::string argument = argv[1];
        const bool help = argument == "--help" || argument == "-h";
        std::fputs(kUsage, help ? stdout : stderr);
        return help ? 0 : 2;
    }
    KXLinuxPlatform::installDefault("com.example.logrouting");
    KXLog::setSink(std::make_shared<ApplicationLogSink>());

    kxLogLevel = 4;                 // everything, DEBUG included
    kxLoggingToDiskEnabled = true;  // also append each line to ZandrelSDK.log

    KX_LOG_INFO("routed through the application's logger: {}", 42);
    KX_LOG_DEBUG("debug lines appear at level 4");

    kxLogLevel = 1;
    KX_LOG_DEBUG("this line is neither formatted nor written");

    std::printf("log file: %s\n",
                KXDiskLogger::logFilePath(KXPlatform::current().cachesDirectory()).c_str());
    return 0;
}
