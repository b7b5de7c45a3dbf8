#include <KXClientFramework/KXGlobals.h>

std::atomic<bool> kxLoggingEnabled{true};
std::atomic<std::int64_t> kxLogLevel{1};
std::atomic<bool> kxLoggingToDiskEnabled{false};
std::atomic<bool> badging{true};
std::atomic<bool> analyticsEnabled{false};

const std::int64_t inboxPageSize = 20;
const std::int64_t listPageSize = 20;
const double KXClientFrameworkVersionNumber = 1.0;
const char KXClientFrameworkVersionString[] =
    "@(#)PROGRAM:KXClientFramework  PROJECT:KXClientFramework-1\n";
const char* const KX_IOS_SDK_VERSION_STRING = "1.0.8.1";
const char* const InboxEmptyCellReuseIdentifier = "InboxEmptyCellReuseIdentifier";
const char* const ListCellReuseIdentifier = "ListCellReuseIdentifier";
const char* const ListEmptyCellReuseIdentifier = "ListEmptyCellReuseIdentifier";
const char* const kKXAFOAuthClientCredentialsGrantType = "client_credentials";
const char* const kKXAFOAuthScope = "RETURN_ALL_CLIENT_SCOPES";
