#include "../guest/KXGuestServiceFixture.h"

#include <KXClientFramework/KXClientFrameworkAppDelegate.h>
#include <KXClientFramework/KXNotificationActionHandler.h>
#include <KXClientFramework/KXNotificationActions.h>

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

// An action as "identifier title", with the flags that differ from a plain background button.
std::string describe(const KXNotificationAction& action) {
    return action.identifier + " " + action.title +
           (action.activationMode != 1 ? " foreground" : "") +
           (action.destructive ? " destructive" : "") +
           (action.authenticationRequired ? " authenticated" : "");
}

TEST(KXNotificationActions, RegistersTheInviteCategoryWithAcceptAndDeclineOnly) {
    auto platform = KXTestPlatform::install();
    KXNotificationActions::sharedManager().registerActions();

    const auto settings = platform->application().currentUserNotificationSettings();
    ASSERT_TRUE(settings.has_value());
    EXPECT_EQ(settings->types, 7u);
    ASSERT_EQ(settings->categories.size(), 1u);
    EXPECT_EQ(settings->categories[0].identifier, "INVITE_CATEGORY");
    Lines registered;
    for (const KXNotificationAction& action : settings->categories[0].actions) {
        registered.push_back(describe(action));
    }
    EXPECT_EQ(registered, (Lines{"ACCEPT_IDENTIFIER Yes", "DECLINE_IDENTIFIER No"}));
    EXPECT_EQ(describe(KXNotificationActions::sharedManager().maybeAction()),
              "MAYBE_IDENTIFIER Maybe");
}

struct ActionCase {
    const char* name;
    const char* identifier;
    KXJSON userInfo;
    const char* userInfoText;  // as the console shows it
    const char* listId;        // as the console shows it
    // The console lines after the four that every action writes: how it is handled, and how
    // the subscription ended.
    const char* handling;
    const char* subscribed = nullptr;
    const char* request = nullptr;  // the subscription sent, after the base URI
    bool knownGuest = true;         // the current guest is g1, with a push profile for this device
    int answerStatus = 200;         // what the service answers a subscription
};

void PrintTo(const ActionCase& c, std::ostream* os) {
    *os << c.name;
}

const KXJSON kInvite = {{"aps", {{"listId", "L1"}, {"alert", "Join?"}}}};
const char* const kInviteText = R"({"aps":{"alert":"Join?","listId":"L1"}})";
const char* const kSubscription = "/guests/g1/profiles/AP-1/memberships/L1?createList=true";
const char* const kAccept = "ACCEPT_IDENTIFIER";
// An invitation that also carries a value nested beyond the JSON reader's limit.
const KXJSON kTooDeep = {{"aps", {{"listId", "L1"}}},
                         {"nested", KXJSON::parse(std::string(600, '[') + std::string(600, ']'))}};

const ActionCase kActionCases[] = {
    {"AcceptSubscribesThisDevicesProfile", kAccept, kInvite, kInviteText, "L1",
     "Handling accept...", "Successfully subscribed to L1", kSubscription},
    {"AcceptThatTheServiceRefuses", kAccept, kInvite, kInviteText, "L1", "Handling accept...",
     "Unable to subscribed to L1", kSubscription, true, 500},
    {"AcceptWithANumberForList", kAccept, KXJSON::parse(R"({"aps":{"listId":7}})"),
     R"({"aps":{"listId":7}})", "7", "Handling accept...", "Successfully subscribed to 7",
     "/guests/g1/profiles/AP-1/memberships/7?createList=true"},
    {"AcceptWithAListThatHasABlank", kAccept, KXJSON::parse(R"({"aps":{"listId":"L 1"}})"),
     R"({"aps":{"listId":"L 1"}})", "L 1", "Handling accept...", "Unable to subscribed to L 1"},
    {"AcceptWithTheListOutsideAps", kAccept, KXJSON::parse(R"({"listId":"L1"})"),
     R"({"listId":"L1"})", "(null)", "Handling accept..."},
    {"AcceptWithoutAGuest", kAccept, kInvite, kInviteText, "L1", "Handling accept...", nullptr,
     nullptr, false},
    {"AcceptWithUserInfoThatIsNoObject", kAccept, "text", "text", "(null)", "Handling accept..."},
    {"Maybe", "MAYBE_IDENTIFIER", kInvite, kInviteText, "L1", "Handling maybe..."},
    {"Decline", "DECLINE_IDENTIFIER", kInvite, kInviteText, "L1", "Handling decline..."},
    {"DeclineWithUserInfoNestedTooDeeply", "DECLINE_IDENTIFIER", kTooDeep,
     R"("<JSON nested deeper than 512 levels>")", "L1", "Handling decline..."},
    {"UnknownIdentifier", "accept_identifier", kInvite, kInviteText, "L1", nullptr},
};

class KXNotificationActionTest : public KXGuestServiceTest,
                                 public testing::WithParamInterface<ActionCase> {};

TEST_P(KXNotificationActionTest, WritesTheConsoleAndSubscribesOnAccept) {
    const ActionCase& c = GetParam();
    if (c.knownGuest) {
        haveGuest({{"externalId", "g1"}, {"deliveryProfiles", {apnsProfileJSON("AP-1", "aa")}}});
    }
    haveTokens({"aa"});
    if (c.request) {
        answer(std::string("PUT ") + c.request, KXScriptedAnswer::empty(c.answerStatus));
    }
    // The console is written whatever the log settings say.
    kxLoggingEnabled = false;
    auto sink = KXCapturingSink::install();

    // Handed over as the platform does: through the library's delegate, which completes at once.
    KXClientFrameworkAppDelegate delegate;
    int completions = 0;
    delegate.handleActionWithIdentifier(platform->application(), c.identifier, c.userInfo,
                                        [&] { ++completions; });
    EXPECT_EQ(completions, 1);

    Lines console = {std::string("Action Identifer: ") + c.identifier,
                     std::string("User Info: ") + c.userInfoText,
                     std::string("Current KXGuest: ") + (c.knownGuest ? "g1" : "(null)"),
                     std::string("ListId KX: ") + c.listId};
    for (const char* line : {c.handling, c.subscribed}) {
        if (line) {
            console.emplace_back(line);
        }
    }
    EXPECT_TRUE(waitFor([&] { return sink->lines().size() >= console.size(); }));
    drain();
    EXPECT_EQ(sink->lines(), console);
    EXPECT_EQ(sentRequests(), c.request ? Lines{std::string("PUT ") + c.request} : Lines{});
}

INSTANTIATE_TEST_SUITE_P(Actions, KXNotificationActionTest, testing::ValuesIn(kActionCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
