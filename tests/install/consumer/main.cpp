// Uses a few public headers the way an application does; prints the version.
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXGlobals.h>
#include <KXClientFramework/KXLinuxPlatform.h>
#include <KXClientFramework/KXLog.h>

#include <cstdio>

int main() {
    KXLinuxPlatform::installDefault("com.example.consumer");
    kxLogLevel = 3;
    KX_LOG_INFO("consumer linked against {}", KX_IOS_SDK_VERSION_STRING);
    std::printf("%s %d\n", KX_IOS_SDK_VERSION_STRING,
                KXConfig::defaultConfig().validateInboxDomainId() ? 1 : 0);
    return 0;
}
