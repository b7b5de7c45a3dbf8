#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <memory>

class KXGuest;

/// Fills the current guest from the service's guest JSON. The parser has no state and never
/// creates a guest.
///
/// Values are taken as received: a scalar string takes a string or a number's decimal text and
/// treats anything else as absent, a truth value follows the platform's boolean reading, and a
/// value of the wrong type never fails the parse.
class KX_EXPORT KXGuestParser {
public:
    /// Runs parseRoot, parseTags, parseDeliveryProfiles and parseBuProperties, in that order,
    /// on KXGuest::currentGuest().
    static void parse(const KXJSON& dictionary);

    /// Each step returns false and changes nothing when `dictionary` is not an object or
    /// `guest` is null, and true otherwise.
    ///
    /// Scalars: "externalId" when present (and with it "externalIdType", which is ignored
    /// without an identifier), "buCreativeLabel" and "languagePref" when present. Absent keys
    /// keep the present values.
    static bool parseRoot(const KXJSON& dictionary, const std::shared_ptr<KXGuest>& guest);
    /// Tags: every element of "tags" in order; absent (or not an array) gives an empty array.
    static bool parseTags(const KXJSON& dictionary, const std::shared_ptr<KXGuest>& guest);
    /// Profiles: one per element of "deliveryProfiles", in order (an element that is not an
    /// object gives a profile with nothing set); absent gives an empty list.
    static bool parseDeliveryProfiles(const KXJSON& dictionary,
                                      const std::shared_ptr<KXGuest>& guest);
    /// Business-unit properties: a copy of the "buProperties" object; absent gives an empty
    /// object.
    static bool parseBuProperties(const KXJSON& dictionary, const std::shared_ptr<KXGuest>& guest);
};
