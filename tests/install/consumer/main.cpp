// Uses the library the way an application does, through the umbrella header alone; prints the
// version.
#include <KXClientFramework/KXClientFramework.h>

#include <cstdio>

int main() {
    KXLinuxPlatform::installDefault("com.example.consumer");
    KXClientFramework::setLogLevel(3);
    KX_LOG_INFO("consumer linked against {}", KX_IOS_SDK_VERSION_STRING);
    std::printf("%s %d\n", KX_IOS_SDK_VERSION_STRING,
                KXConfig::defaultConfig().validateInboxDomainId() ? 1 : 0);
    return 0;
}
