#pragma once

#include <KXClientFramework/KXExport.h>

#include <cstdint>

/// The four delivery channels. The numbers are fixed: callers pass them through public
/// interfaces. Zero and every value above 4 are invalid; the underlying type is fixed so that
/// any integer can be converted and reach the library's own validation.
enum KXChannelType : std::int64_t {
    KXChannelTypeAPNS = 1,   ///< push to this application install ("apns_push")
    KXChannelTypeSMS = 2,    ///< text messages to a mobile number ("sms")
    KXChannelTypeInbox = 3,  ///< the in-application inbox ("inbox")
    KXChannelTypeEmail = 4,  ///< e-mail ("email")
};

/// The channels a subscription list can be delivered on: three independent flags, all false
/// at first.
class KX_EXPORT KXChannel {
public:
    bool isIos() const { return isIos_; }
    void setIsIos(bool value) { isIos_ = value; }
    bool isEmail() const { return isEmail_; }
    void setIsEmail(bool value) { isEmail_ = value; }
    bool isSMS() const { return isSMS_; }
    void setIsSMS(bool value) { isSMS_ = value; }

private:
    bool isIos_ = false;
    bool isEmail_ = false;
    bool isSMS_ = false;
};
