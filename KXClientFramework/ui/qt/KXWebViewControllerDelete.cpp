// The viewer's Delete button talks to the inbox service.
#include "KXNavigationStack.h"
#include "KXWebViewController.h"

#include <KXClientFramework/KXInbox.h>
#include <KXClientFramework/KXInboxMessage.h>

void KXWebViewController::deleteAction() {
    if (!message_) {
        return;
    }
    QPointer<KXWebViewController> self(this);
    // No inbox domain id on purpose: the service call uses the configured one. A failed
    // deletion leaves the viewer where it is, without a word.
    KXInbox::shared().deleteMessageDetails(*message_, std::nullopt,
                                           [self] {
                                               if (self && self->navigationStack() != nullptr) {
                                                   self->navigationStack()->pop();
                                               }
                                           },
                                           {});
}
