#include "KXDemoSteps.h"

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXTransportActivity.h>

#if __has_include(<KXClientFramework/KXGuestManager.h>)
#define KX_DEMO_GUESTS 1
#include <KXClientFramework/KXDeliveryAddress.h>
#include <KXClientFramework/KXDeliveryMembership.h>
#include <KXClientFramework/KXDeliveryProfile.h>
#include <KXClientFramework/KXGuest.h>
#include <KXClientFramework/KXGuestManager.h>
#else
#define KX_DEMO_GUESTS 0
#endif

#if __has_include(<KXClientFramework/KXInbox.h>) && KX_DEMO_GUESTS
#define KX_DEMO_INBOX 1
#include <KXClientFramework/KXInbox.h>
#include <KXClientFramework/KXInboxMessage.h>
#include <KXClientFramework/KXInboxSummary.h>
#include <KXClientFramework/KXList.h>
#include <KXClientFramework/KXListManager.h>
#else
#define KX_DEMO_INBOX 0
#endif

#if __has_include(<KXClientFramework/KXAnalytics.h>)
#define KX_DEMO_ANALYTICS 1
#include <KXClientFramework/KXAnalytics.h>
#include <KXClientFramework/KXSession.h>
#else
#define KX_DEMO_ANALYTICS 0
#endif

#include <cstdio>

// Engage and push token, then: the guest (1); summary, pages 1 and 2, one message, read, lists,
// subscribe (7); an analytics session (1).
const int kxDemoStepCount =
    2 + (KX_DEMO_GUESTS ? 1 : 0) + (KX_DEMO_INBOX ? 7 : 0) + (KX_DEMO_ANALYTICS ? 1 : 0);

namespace {

using Finish = KXDemoTour::Finish;

#if KX_DEMO_GUESTS
std::string describeGuest(const KXGuest& guest) {
    std::string text = "guest " + guest.externalId().value_or("(none)");
    const std::size_t count = guest.deliveryProfiles() ? guest.deliveryProfiles()->size() : 0;
    return text + ", " + std::to_string(count) + " delivery profile" + (count == 1 ? "" : "s");
}

bool subscribedTo(const KXGuest& guest, const std::string& listId) {
    if (!guest.deliveryProfiles()) {
        return false;
    }
    for (const auto& profile : *guest.deliveryProfiles()) {
        for (const auto& membership : profile->memberships()) {
            if (membership->recipientListId() == listId && membership->enabled()) {
                return true;
            }
        }
    }
    return false;
}
#endif

#if KX_DEMO_INBOX
/// Message content as plain text: tags dropped, entities left as they are.
std::string asText(const std::string& content) {
    std::string text;
    bool inTag = false;
    for (const char c : content) {
        if (c == '<') {
            inTag = true;
        } else if (c == '>') {
            inTag = false;
            if (!text.empty() && text.back() != ' ') {
                text.push_back(' ');
            }
        } else if (!inTag) {
            text.push_back(c == '\n' ? ' ' : c);
        }
    }
    return text;
}

void showPage(const std::optional<KXInboxMessages>& messages, bool more) {
    if (!messages) {
        return;
    }
    for (const auto& message : *messages) {
        KXDemoTour::detail(std::string(message->read() ? "  " : "* ") +
                           message->title().value_or("(no subject)"));
    }
    KXDemoTour::detail(more ? "(more follow)" : "(last page)");
}
#endif

}  // namespace

bool KXDemoDelegate::respondsTo(KXApplicationDelegateCallback callback) const {
    return callback == KXApplicationDelegateCallback::DidFinishLaunching ||
           KXApplicationDelegate::respondsTo(callback);
}

bool KXDemoDelegate::didFinishLaunching(KXApplication& /*application*/, const KXJSON& /*options*/) {
#if KX_DEMO_GUESTS
    KXClientFramework::sharedManager().engageWithAutoGuestUsingKey(
        key_, [this](const std::shared_ptr<KXGuest>&) { guestFlowEnded = true; },
        [this](const KXError& error) {
            guestFlowError = error;
            guestFlowEnded = true;
        });
#else
    KXClientFramework::sharedManager().engageUsingKey(key_);
#endif
    return true;
}

void kxDemoEngage(KXDemoTour& tour, const KXDemoDelegate& delegate) {
#if KX_DEMO_GUESTS
    tour.until(
        "Engaging with the automatic guest: KXConfig.enc, a bearer token, a new guest",
        [&] { return delegate.guestFlowEnded; },
        [&] {
            return delegate.guestFlowError ? KXDemoTour::describe(*delegate.guestFlowError)
                                           : std::string("no guest (is the sandbox running?)");
        });
    if (!tour.failed() && delegate.guestFlowError) {
        tour.step("The automatic guest", [&](const Finish& finish) {
            finish(KXDemoTour::describe(*delegate.guestFlowError));
        });
    }
#else
    (void)delegate;
    tour.until(
        "Engaging: opening KXConfig.enc and fetching a bearer token",
        [] { return KXHTTPSessionManager::sharedManager().bearerToken() != nullptr; },
        [] { return std::string("no bearer token (is the sandbox running?)"); });
#endif
}

void kxDemoServiceSteps(KXDemoTour& tour, KXApplication& application) {
    (void)tour;
#if KX_DEMO_GUESTS
    // The registration added the inbox profile without waiting for it; a fetch once the library
    // is idle sees it, and reconciles the new push token into an APNS profile.
    tour.mainQueue().runUntil([] { return KXTransportActivity::requestsUnderWay() == 0; },
                              std::chrono::seconds(20));
    tour.step("The guest, fetched again with the push token", [](const Finish& finish) {
        KXGuest::currentGuest()->refreshWithSuccess(
            [finish] {
                const auto guest = KXGuest::currentGuest();
                KXDemoTour::detail(describeGuest(*guest));
                if (guest->deliveryProfiles()) {
                    for (const auto& profile : *guest->deliveryProfiles()) {
                        KXDemoTour::detail("  " + profile->address()->channel().value_or("?") +
                                           " " + profile->profileId().value_or("?"));
                    }
                }
                finish(guest->APNSDeliveryProfileForCurrentDevice()
                           ? std::nullopt
                           : KXDemoTour::Outcome("no push profile for this device"));
            },
            [finish](const KXError& error) { finish(KXDemoTour::describe(error)); });
    });
#endif

#if KX_DEMO_INBOX
    KXInbox& inbox = KXInbox::shared();
    std::uint64_t unreadBefore = 0;
    tour.step("The inbox summary", [&](const Finish& finish) {
        inbox.fetchInboxSummaryWithId(
            std::nullopt,
            [&, finish](std::shared_ptr<KXInboxSummary> summary) {
                unreadBefore = summary->unreadMessageCount();
                KXDemoTour::detail(summary->name().value_or("?") + ": " +
                                   std::to_string(summary->totalMessageCount()) + " messages, " +
                                   std::to_string(summary->unreadMessageCount()) + " unread");
                finish(std::nullopt);
            },
            [finish](const KXError& error) { finish(KXDemoTour::describe(error)); });
    });
    for (const std::int64_t page : {1, 2}) {
        tour.step("Messages, page " + std::to_string(page) + " of 10", [&](const Finish& finish) {
            inbox.fetchWithPageNumber(
                page, 10, std::nullopt,
                [finish](const std::optional<KXInboxMessages>& messages, bool more) {
                    showPage(messages, more);
                    finish(messages && !messages->empty() ? std::nullopt
                                                          : KXDemoTour::Outcome("an empty page"));
                },
                [finish](const KXError& error) { finish(KXDemoTour::describe(error)); });
        });
    }
    std::shared_ptr<KXInboxMessage> opened;
    tour.step("Opening the first message as text", [&](const Finish& finish) {
        if (inbox.messages().empty()) {
            finish("no message loaded");
            return;
        }
        inbox.fetchMessageDetails(
            inbox.messages().front(), std::nullopt,
            [&, finish](std::shared_ptr<KXInboxMessage> message) {
                opened = message;
                KXDemoTour::detail(message->title().value_or("") + " (" +
                                   message->contentType().value_or("?") + ")");
                KXDemoTour::detail("  " + asText(message->content().value_or("")));
                finish(std::nullopt);
            },
            [finish](const KXError& error) { finish(KXDemoTour::describe(error)); });
    });
    tour.step("Marking it read", [&](const Finish& finish) {
        if (!opened) {
            finish("no message opened");
            return;
        }
        opened->markAsReadWithSuccess(
            [&, finish] {
                inbox.fetchInboxSummaryWithId(
                    std::nullopt,
                    [&, finish](std::shared_ptr<KXInboxSummary> summary) {
                        KXDemoTour::detail(std::to_string(summary->unreadMessageCount()) +
                                           " unread now");
                        finish(summary->unreadMessageCount() + 1 == unreadBefore
                                   ? std::nullopt
                                   : KXDemoTour::Outcome("the unread count did not drop"));
                    },
                    [finish](const KXError& error) { finish(KXDemoTour::describe(error)); });
            },
            [finish](const KXError& error) { finish(KXDemoTour::describe(error)); });
    });
    const std::string listToJoin = "offers";
    tour.step("The lists, with the guest's subscriptions", [&](const Finish& finish) {
        KXListManager::fetchListsForPage(
            1, 0,
            [finish](const std::optional<KXLists>& lists, bool) {
                const auto guest = KXGuest::currentGuest();
                for (const auto& list : lists.value_or(KXLists())) {
                    const std::string id = list->externalId().value_or("?");
                    std::string channels;
                    if (list->channel()) {
                        channels = std::string(list->channel()->isIos() ? " push" : "") +
                                   (list->channel()->isEmail() ? " e-mail" : "") +
                                   (list->channel()->isSMS() ? " SMS" : "");
                    }
                    KXDemoTour::detail(std::string(subscribedTo(*guest, id) ? "[x] " : "[ ] ") +
                                       list->name().value_or(id) + " (" + id + ";" + channels +
                                       ")");
                }
                finish(lists && !lists->empty() ? std::nullopt : KXDemoTour::Outcome("no lists"));
            },
            [finish](const KXError& error) { finish(KXDemoTour::describe(error)); });
    });
    tour.step("Subscribing the inbox profile to \"" + listToJoin + "\"", [&](const Finish& finish) {
        KXGuestManager::subscribeToList(
            listToJoin, KXChannelTypeInbox,
            [&, finish](bool) {
                KXGuest::currentGuest()->refreshWithSuccess(
                    [&, finish] {
                        const bool joined = subscribedTo(*KXGuest::currentGuest(), listToJoin);
                        KXDemoTour::detail(joined ? "subscribed" : "not subscribed");
                        finish(joined ? std::nullopt : KXDemoTour::Outcome("no membership"));
                    },
                    [finish](const KXError& error) { finish(KXDemoTour::describe(error)); });
            },
            [finish](const KXError& error) { finish(KXDemoTour::describe(error)); });
    });
#endif

#if KX_DEMO_ANALYTICS
    // The engine started a session when the application became active; going to the
    // background ends it.
    tour.step("An analytics session: active, then background", [&](const Finish& finish) {
        if (!KXAnalytics::engaged()) {
            finish("analytics is not running (analyticsEnabled in the configuration)");
            return;
        }
        KXSession& session = KXSession::currentSession();
        if (!tour.mainQueue().runUntil([&] { return !session.sessionId().value_or("").empty(); },
                                       std::chrono::seconds(20))) {
            finish("the service gave the session no id");
            return;
        }
        KXDemoTour::detail("session " + *session.sessionId() + " started");
        application.postEvent(KXApplicationEvent::WillResignActive);
        application.postEvent(KXApplicationEvent::DidEnterBackground);
        tour.mainQueue().runUntil([] { return KXTransportActivity::requestsUnderWay() == 0; },
                                  std::chrono::seconds(20));
        KXDemoTour::detail(session.isClosed() ? "ended in the background" : "still open");
        finish(session.isClosed() ? std::nullopt : KXDemoTour::Outcome("the session is open"));
    });
#else
    (void)application;
#endif
}
