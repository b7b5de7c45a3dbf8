// The invitation category and its actions, and what a tap on each action does: the console
// lines, the subscription of an accept, and the dispatcher completing at once.
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

TEST(KXNotificationActions, RegistersTheInviteCategoryWithAcceptAndDeclineOnly) {
    auto platform = KXTestPlatform::install();
    KXNotificationActions::sharedManager().registerActions();

    const auto settings = platform->application().currentUserNotificationSettings();
    ASSERT_TRUE(settings.has_value());
    EXPECT_EQ(settings->types, 7u);
    ASSERT_EQ(settings->categories.size(), 1u);
    const KXNotificationCategory& category = settings->categories[0];
    EXPECT_EQ(category.identifier, "INVITE_CATEGORY");

    struct Expected {
        KXNotificationAction action;
        const char* identifier;
        const char* title;
    };
    const auto& actions = KXNotificationActions::sharedManager();
    const Expected expected[] = {{actions.acceptAction(), "ACCEPT_IDENTIFIER", "Yes"},
                                 {actions.maybeAction(), "MAYBE_IDENTIFIER", "Maybe"},
                                 {actions.declineAction(), "DECLINE_IDENTIFIER", "No"}};
    for (const Expected& e : expected) {
        EXPECT_EQ(e.action.identifier, e.identifier);
        EXPECT_EQ(e.action.title, e.title);
        EXPECT_EQ(e.action.activationMode, 1) << e.identifier;
        EXPECT_FALSE(e.action.destructive) << e.identifier;
        EXPECT_FALSE(e.action.authenticationRequired) << e.identifier;
    }
    ASSERT_EQ(category.actions.size(), 2u);
    EXPECT_EQ(category.actions[0].identifier, "ACCEPT_IDENTIFIER");
    EXPECT_EQ(category.actions[1].identifier, "DECLINE_IDENTIFIER");
}

struct ActionCase {
    const char* name;
    const char* identifier;
    KXJSON userInfo;
    bool knownGuest;   // the current guest is g1, with a push profile for this device
    int answerStatus;  // what the service answers a subscription
    Lines console;     // every console line, in order
    Lines requests;    // suffixes after the base URI
};

void PrintTo(const ActionCase& c, std::ostream* os) {
    *os << c.name;
}

const KXJSON kInvite = {{"aps", {{"listId", "L1"}, {"alert", "Join?"}}}};
const char* const kInviteText = R"(User Info: {"aps":{"alert":"Join?","listId":"L1"}})";
const char* const kSubscription = "/guests/g1/profiles/AP-1/memberships/L1?createList=true";

/// An invitation that also carries a value nested beyond the JSON reader's limit.
KXJSON inviteNestedTooDeeply() {
    KXJSON nested = KXJSON::array();
    for (int level = 1; level < 600; ++level) {
        KXJSON outer = KXJSON::array();
        outer.push_back(std::move(nested));
        nested = std::move(outer);
    }
    return {{"aps", {{"listId", "L1"}}}, {"nested", std::move(nested)}};
}

const ActionCase kActionCases[] = {
    {"AcceptSubscribesThisDevicesProfile",
     "ACCEPT_IDENTIFIER",
     kInvite,
     true,
     200,
     {"Action Identifer: ACCEPT_IDENTIFIER", kInviteText, "Current KXGuest: g1", "ListId KX: L1",
      "Handling accept...", "Successfully subscribed to L1"},
     {kSubscription}},
    {"AcceptThatTheServiceRefuses",
     "ACCEPT_IDENTIFIER",
     kInvite,
     true,
     500,
     {"Action Identifer: ACCEPT_IDENTIFIER", kInviteText, "Current KXGuest: g1", "ListId KX: L1",
      "Handling accept...", "Unable to subscribed to L1"},
     {kSubscription}},
    {"AcceptWithANumberForList",
     "ACCEPT_IDENTIFIER",
     {{"aps", {{"listId", 7}}}},
     true,
     200,
     {"Action Identifer: ACCEPT_IDENTIFIER", R"(User Info: {"aps":{"listId":7}})",
      "Current KXGuest: g1", "ListId KX: 7", "Handling accept...", "Successfully subscribed to 7"},
     {"/guests/g1/profiles/AP-1/memberships/7?createList=true"}},
    {"AcceptWithAListThatHasABlank",
     "ACCEPT_IDENTIFIER",
     {{"aps", {{"listId", "L 1"}}}},
     true,
     200,
     {"Action Identifer: ACCEPT_IDENTIFIER", R"(User Info: {"aps":{"listId":"L 1"}})",
      "Current KXGuest: g1", "ListId KX: L 1", "Handling accept...", "Unable to subscribed to L 1"},
     {}},
    {"AcceptWithTheListOutsideAps",
     "ACCEPT_IDENTIFIER",
     {{"listId", "L1"}},
     true,
     200,
     {"Action Identifer: ACCEPT_IDENTIFIER", R"(User Info: {"listId":"L1"})", "Current KXGuest: g1",
      "ListId KX: (null)", "Handling accept..."},
     {}},
    {"AcceptWithoutAGuest",
     "ACCEPT_IDENTIFIER",
     kInvite,
     false,
     200,
     {"Action Identifer: ACCEPT_IDENTIFIER", kInviteText, "Current KXGuest: (null)",
      "ListId KX: L1", "Handling accept..."},
     {}},
    {"AcceptWithUserInfoThatIsNoObject",
     "ACCEPT_IDENTIFIER",
     "text",
     true,
     200,
     {"Action Identifer: ACCEPT_IDENTIFIER", "User Info: text", "Current KXGuest: g1",
      "ListId KX: (null)", "Handling accept..."},
     {}},
    {"Maybe",
     "MAYBE_IDENTIFIER",
     kInvite,
     true,
     200,
     {"Action Identifer: MAYBE_IDENTIFIER", kInviteText, "Current KXGuest: g1", "ListId KX: L1",
      "Handling maybe..."},
     {}},
    {"Decline",
     "DECLINE_IDENTIFIER",
     kInvite,
     true,
     200,
     {"Action Identifer: DECLINE_IDENTIFIER", kInviteText, "Current KXGuest: g1", "ListId KX: L1",
      "Handling decline..."},
     {}},
    {"DeclineWithUserInfoNestedTooDeeply",
     "DECLINE_IDENTIFIER",
     inviteNestedTooDeeply(),
     true,
     200,
     {"Action Identifer: DECLINE_IDENTIFIER",
      R"(User Info: "<JSON nested deeper than 512 levels>")", "Current KXGuest: g1",
      "ListId KX: L1", "Handling decline..."},
     {}},
    {"UnknownIdentifier",
     "accept_identifier",
     kInvite,
     true,
     200,
     {"Action Identifer: accept_identifier", kInviteText, "Current KXGuest: g1", "ListId KX: L1"},
     {}},
};

class KXNotificationActionTest : public KXGuestServiceTest,
                                 public testing::WithParamInterface<ActionCase> {};

TEST_P(KXNotificationActionTest, WritesTheConsoleAndSubscribesOnAccept) {
    const ActionCase& c = GetParam();
    if (c.knownGuest) {
        haveGuest({{"externalId", "g1"}, {"deliveryProfiles", {apnsProfileJSON("AP-1", "aa")}}});
    }
    haveTokens({"aa"});
    service.script("PUT",
                   path(std::string(kSubscription).substr(0, std::string(kSubscription).find('?'))),
                   KXScriptedAnswer::empty(c.answerStatus));
    service.script("PUT", path("/guests/g1/profiles/AP-1/memberships/7"),
                   KXScriptedAnswer::empty(c.answerStatus));
    // The console is written whatever the log settings say.
    kxLoggingEnabled = false;
    auto sink = KXCapturingSink::install();

    // Handed over as the platform does: through the library's delegate, which completes at once.
    KXClientFrameworkAppDelegate delegate;
    int completions = 0;
    delegate.handleActionWithIdentifier(platform->application(), c.identifier, c.userInfo,
                                        [&] { ++completions; });
    EXPECT_EQ(completions, 1);

    EXPECT_TRUE(waitFor([&] { return sink->lines().size() >= c.console.size(); }));
    drain();
    EXPECT_EQ(sink->lines(), c.console);
    Lines expectedRequests;
    for (const auto& suffix : c.requests) {
        expectedRequests.push_back("PUT " + path(suffix));
    }
    EXPECT_EQ(requestLines(), expectedRequests);
}

INSTANTIATE_TEST_SUITE_P(Actions, KXNotificationActionTest, testing::ValuesIn(kActionCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
