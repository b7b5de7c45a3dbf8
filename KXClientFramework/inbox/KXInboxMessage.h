#pragma once

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// One message of the guest's inbox: the header fields of a message page and, once its details
/// were fetched, the body.
///
/// A plain value holder, filled by KXInboxParser; the library creates one per message of every
/// reply and keeps them only in KXInbox::shared(). Like the rest of the inbox it is meant to be
/// used on the main queue.
class KX_EXPORT KXInboxMessage {
public:
    using SuccessBlock = std::function<void()>;
    using FailureBlock = std::function<void(const KXError& error)>;

    /// The message's identifier ("id" of its header), used in the message URLs.
    const std::optional<std::string>& messageId() const { return messageId_; }
    void setMessageId(std::optional<std::string> v) { messageId_ = std::move(v); }

    /// The body's media type as the service states it ("contentType").
    const std::optional<std::string>& contentType() const { return contentType_; }
    void setContentType(std::optional<std::string> v) { contentType_ = std::move(v); }

    /// The message's title ("subject").
    const std::optional<std::string>& title() const { return title_; }
    void setTitle(std::optional<std::string> v) { title_ = std::move(v); }

    /// Room for the application's own data; the library never fills it.
    const KXJSON& extra() const { return extra_; }
    void setExtra(KXJSON v) { extra_ = std::move(v); }

    /// The body ("content" of a message-details reply); absent until the details were fetched.
    const std::optional<std::string>& content() const { return content_; }
    void setContent(std::optional<std::string> v) { content_ = std::move(v); }

    /// The sender's display text ("sender").
    const std::optional<std::string>& sender() const { return sender_; }
    void setSender(std::optional<std::string> v) { sender_ = std::move(v); }

    /// Room for the raw JSON of the message; the library never fills it.
    const KXJSON& rawMessageObject() const { return rawMessageObject_; }
    void setRawMessageObject(KXJSON v) { rawMessageObject_ = std::move(v); }

    /// Never filled by the library.
    const std::optional<std::string>& messageURL() const { return messageURL_; }
    void setMessageURL(std::optional<std::string> v) { messageURL_ = std::move(v); }

    /// Never filled by the library; isExpired() compares it with the platform clock.
    const std::optional<std::chrono::system_clock::time_point>& messageExpiration() const {
        return messageExpiration_;
    }
    void setMessageExpiration(std::optional<std::chrono::system_clock::time_point> v) {
        messageExpiration_ = v;
    }

    /// When the message was received, in milliseconds since 1970-01-01 UTC ("dateReceived");
    /// 0 when the service gave none.
    double timestamp() const { return timestamp_; }
    void setTimestamp(double v) { timestamp_ = v; }

    /// Whether the guest has read it ("read" of the header's "flags").
    bool read() const { return read_; }
    void setRead(bool v) { read_ = v; }

    /// Sets read() to true at once and tells the service, in the configured inbox domain,
    /// without waiting for or reporting the outcome.
    void markAsRead();

    /// Sets read() to true at once and tells the service, in the configured inbox domain; then
    /// calls `success` or `failure` (each only when given) on the main queue. read() stays true
    /// when the request fails.
    void markAsReadWithSuccess(SuccessBlock success, FailureBlock failure);

    /// True when messageExpiration() is set and not after the platform clock's present time.
    bool isExpired() const;

private:
    std::optional<std::string> messageId_;
    std::optional<std::string> contentType_;
    std::optional<std::string> title_;
    KXJSON extra_;
    std::optional<std::string> content_;
    std::optional<std::string> sender_;
    KXJSON rawMessageObject_;
    std::optional<std::string> messageURL_;
    std::optional<std::chrono::system_clock::time_point> messageExpiration_;
    double timestamp_ = 0.0;
    bool read_ = false;
};

/// The messages of one reply, in the service's order.
using KXInboxMessages = std::vector<std::shared_ptr<KXInboxMessage>>;
