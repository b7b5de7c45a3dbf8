// Guests, their delivery profiles and the profiles' list memberships.
#include "KXSandboxHTTP.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace kxsandbox {

namespace {

/// The channels a profile can have, with the attribute each address must carry.
struct ChannelRule {
    const char* channel;
    const char* requiredAttribute;
};
constexpr std::array<ChannelRule, 4> kChannels = {{
    {"APNS_PUSH", "applicationToken"},
    {"SMS", "mdn"},
    {"INBOX", "inboxDomainId"},
    {"EMAIL", "emailAddress"},
}};

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

/// Identifiers travel in URL paths: refuse the empty one, slashes, blanks and control characters.
void checkIdentifier(const std::string& id, const char* what) {
    if (id.empty()) {
        badRequest(std::string(what) + " must not be empty");
    }
    for (const unsigned char c : id) {
        if (c == '/' || c == '?' || c == '#' || std::isspace(c) != 0 || c < 0x20 || c == 0x7f) {
            badRequest(std::string(what) + " \"" + id +
                       "\" must not contain blanks, slashes, '?', '#' or control characters");
        }
    }
}

struct Address {
    std::string channel;
    JSON attributes;
};

/// A delivery-address request body {"address": {"channel", "attributes"}}, checked.
Address readAddress(const JSON& body) {
    const std::optional<JSON> address = optionalObject(body, "address");
    if (!address) {
        badRequest("\"address\" is required");
    }
    const std::string channel = upper(requiredString(*address, "channel"));
    const auto rule = std::find_if(kChannels.begin(), kChannels.end(),
                                   [&](const ChannelRule& r) { return channel == r.channel; });
    if (rule == kChannels.end()) {
        badRequest("unknown channel \"" + channel + "\"; one of APNS_PUSH, SMS, INBOX, EMAIL");
    }
    const std::optional<JSON> attributes = optionalObject(*address, "attributes");
    if (!attributes) {
        badRequest("\"attributes\" is required");
    }
    requiredString(*attributes, rule->requiredAttribute);
    return {channel, *attributes};
}

void requireGuest(Connection& db, const std::string& tenant, const std::string& guest) {
    if (!db.integer("SELECT 1 FROM guests WHERE tenant=?1 AND external_id=?2", {tenant, guest})) {
        notFound("no guest \"" + guest + "\"");
    }
}

void requireProfile(Connection& db, const std::string& tenant, const std::string& guest,
                    const std::string& profile) {
    requireGuest(db, tenant, guest);
    if (!db.integer("SELECT 1 FROM profiles WHERE tenant=?1 AND guest_id=?2 AND id=?3",
                    {tenant, guest, profile})) {
        notFound("guest \"" + guest + "\" has no delivery profile \"" + profile + "\"");
    }
}

std::string insertProfile(Connection& db, const std::string& tenant, const std::string& guest,
                          const JSON& body) {
    const Address address = readAddress(body);
    const std::optional<JSON> tags = optionalStringArray(body, "tags");
    const std::string id = newIdentifier("p-");
    db.run(
        "INSERT INTO profiles(tenant, guest_id, id, channel, attributes, enabled, tags) "
        "VALUES(?1, ?2, ?3, ?4, ?5, 1, ?6)",
        {tenant, guest, id, address.channel, address.attributes.dump(),
         tags.value_or(JSON::array()).dump()});
    return id;
}

JSON profileRecord(Connection& db, const std::string& tenant, const std::string& id) {
    Statement profile = db.prepare(
                              "SELECT channel, attributes, enabled, tags FROM profiles "
                              "WHERE tenant=?1 AND id=?2")
                            .bind({tenant, id});
    if (!profile.step()) {
        return nullptr;
    }
    const bool enabled = profile.integer(2) != 0;
    JSON record = {{"id", id},
                   {"enabled", enabled},
                   {"tags", JSON::parse(profile.string(3))},
                   {"address",
                    {{"channel", profile.string(0)},
                     {"enabled", enabled},
                     {"attributes", JSON::parse(profile.string(1))}}},
                   {"memberships", JSON::array()}};
    Statement memberships = db.prepare(
                                  "SELECT list_id, language_pref, enabled FROM memberships "
                                  "WHERE tenant=?1 AND profile_id=?2 ORDER BY rowid")
                                .bind({tenant, id});
    while (memberships.step()) {
        JSON membership = {{"recipientListId", memberships.string(0)},
                           {"enabled", memberships.integer(2) != 0}};
        if (const auto language = memberships.text(1)) {
            membership["languagePref"] = *language;
        }
        record["memberships"].push_back(std::move(membership));
    }
    return record;
}

Reply registerGuest(Context& ctx) {
    const JSON body = ctx.objectOrEmpty();
    std::optional<std::string> id = optionalString(body, "externalId");
    if (id) {
        checkIdentifier(*id, "\"externalId\"");
    }
    const std::optional<std::string> type = optionalString(body, "externalIdType");
    const std::optional<std::string> language = optionalString(body, "languagePref");
    const std::optional<std::string> label = optionalString(body, "buCreativeLabel");
    const std::optional<JSON> tags = optionalStringArray(body, "tags");
    const std::optional<JSON> properties = optionalObject(body, "buProperties");
    const auto profiles = body.find("deliveryProfiles");
    if (profiles != body.end() && !profiles->is_null() && !profiles->is_array()) {
        badRequest("\"deliveryProfiles\" must be an array");
    }
    if (!id) {
        id = newIdentifier("g-");
    }
    if (ctx.db.integer("SELECT 1 FROM guests WHERE tenant=?1 AND external_id=?2",
                       {ctx.tenant, *id})) {
        throw APIError(409, "conflict", "a guest \"" + *id + "\" already exists");
    }
    auto optionalValue = [](const std::optional<std::string>& text) -> Value {
        return text ? Value(*text) : Value(nullptr);
    };
    ctx.db.run(
        "INSERT INTO guests(tenant, external_id, external_id_type, language_pref, "
        "bu_creative_label, tags, bu_properties, created_at) "
        "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)",
        {ctx.tenant, *id, optionalValue(type), optionalValue(language), optionalValue(label),
         tags.value_or(JSON::array()).dump(), properties.value_or(JSON::object()).dump(),
         nowMilliseconds()});
    if (profiles != body.end() && profiles->is_array()) {
        for (const JSON& profile : *profiles) {
            if (!profile.is_object()) {
                badRequest("each of \"deliveryProfiles\" must be an object");
            }
            insertProfile(ctx.db, ctx.tenant, *id, profile);
        }
    }
    if (ctx.settings.seed) {
        deliverWelcomeMessages(ctx.db, ctx.tenant, *id);
    }
    return Reply::created(*id, *guestRecord(ctx.db, ctx.tenant, *id));
}

Reply fetchGuest(Context& ctx) {
    std::optional<JSON> record = guestRecord(ctx.db, ctx.tenant, ctx.arguments[0]);
    if (!record) {
        notFound("no guest \"" + ctx.arguments[0] + "\"");
    }
    return {200, std::move(*record), {}};
}

Reply saveGuest(Context& ctx) {
    const std::string& id = ctx.arguments[0];
    requireGuest(ctx.db, ctx.tenant, id);
    const JSON body = ctx.object();
    if (const auto sent = optionalString(body, "externalId"); sent && *sent != id) {
        badRequest("\"externalId\" \"" + *sent + "\" differs from the guest's id \"" + id + "\"");
    }
    const std::optional<std::string> type = optionalString(body, "externalIdType");
    const std::optional<std::string> language = optionalString(body, "languagePref");
    const std::optional<std::string> label = optionalString(body, "buCreativeLabel");
    const std::optional<JSON> tags = optionalStringArray(body, "tags");
    const std::optional<JSON> properties = optionalObject(body, "buProperties");
    const std::vector<std::pair<const char*, std::optional<std::string>>> columns = {
        {"external_id_type", type},
        {"language_pref", language},
        {"bu_creative_label", label},
        {"tags", tags ? std::optional<std::string>(tags->dump()) : std::nullopt},
        {"bu_properties",
         properties ? std::optional<std::string>(properties->dump()) : std::nullopt},
    };
    for (const auto& [column, value] : columns) {
        if (value) {
            ctx.db.run(std::string("UPDATE guests SET ") + column +
                           "=?3 WHERE tenant=?1 AND external_id=?2",
                       {ctx.tenant, id, *value});
        }
    }
    return {200, *guestRecord(ctx.db, ctx.tenant, id), {}};
}

Reply deleteGuest(Context& ctx) {
    const std::string& id = ctx.arguments[0];
    requireGuest(ctx.db, ctx.tenant, id);
    for (const char* table : {"memberships", "profiles", "messages"}) {
        ctx.db.run(std::string("DELETE FROM ") + table + " WHERE tenant=?1 AND guest_id=?2",
                   {ctx.tenant, id});
    }
    ctx.db.run("DELETE FROM guests WHERE tenant=?1 AND external_id=?2", {ctx.tenant, id});
    return {200, {{"deleted", id}}, {}};
}

Reply addProfile(Context& ctx) {
    const std::string& guest = ctx.arguments[0];
    requireGuest(ctx.db, ctx.tenant, guest);
    const std::string id = insertProfile(ctx.db, ctx.tenant, guest, ctx.object());
    return Reply::created(id, profileRecord(ctx.db, ctx.tenant, id));
}

Reply updateProfile(Context& ctx) {
    const std::string& guest = ctx.arguments[0];
    const std::string& profile = ctx.arguments[1];
    requireProfile(ctx.db, ctx.tenant, guest, profile);
    const Address address = readAddress(ctx.object());
    ctx.db.run("UPDATE profiles SET channel=?3, attributes=?4 WHERE tenant=?1 AND id=?2",
               {ctx.tenant, profile, address.channel, address.attributes.dump()});
    return {200, profileRecord(ctx.db, ctx.tenant, profile), {}};
}

Handler switchProfile(bool enabled) {
    return [enabled](Context& ctx) -> Reply {
        const std::string& profile = ctx.arguments[1];
        requireProfile(ctx.db, ctx.tenant, ctx.arguments[0], profile);
        ctx.db.run("UPDATE profiles SET enabled=?3 WHERE tenant=?1 AND id=?2",
                   {ctx.tenant, profile, std::int64_t{enabled ? 1 : 0}});
        return {200, profileRecord(ctx.db, ctx.tenant, profile), {}};
    };
}

Reply subscribe(Context& ctx) {
    const std::string& guest = ctx.arguments[0];
    const std::string& profile = ctx.arguments[1];
    const std::string& list = ctx.arguments[2];
    checkIdentifier(list, "the list id");
    requireProfile(ctx.db, ctx.tenant, guest, profile);
    const JSON body = ctx.objectOrEmpty();
    if (const auto sent = optionalString(body, "externalId"); sent && *sent != guest) {
        badRequest("\"externalId\" \"" + *sent + "\" is not the guest \"" + guest + "\"");
    }
    const bool enabled = optionalFlag(body, "enabled").value_or(true);
    const std::optional<std::string> language = optionalString(body, "languagePref");
    if (!listRecord(ctx.db, ctx.tenant, list)) {
        if (ctx.parameter("createList") != "true") {
            notFound("no list \"" + list + "\" (add ?createList=true to create it)");
        }
        createList(ctx.db, ctx.tenant, {{"externalId", list}, {"name", list}});
    }
    ctx.db.run(
        "INSERT INTO memberships(tenant, guest_id, profile_id, list_id, language_pref, "
        "enabled) VALUES(?1, ?2, ?3, ?4, ?5, ?6) "
        "ON CONFLICT(tenant, profile_id, list_id) DO UPDATE SET "
        "enabled=excluded.enabled, language_pref=excluded.language_pref",
        {ctx.tenant, guest, profile, list, language ? Value(*language) : Value(nullptr),
         std::int64_t{enabled ? 1 : 0}});
    return {200, profileRecord(ctx.db, ctx.tenant, profile), {}};
}

Reply unsubscribe(Context& ctx) {
    const std::string& guest = ctx.arguments[0];
    const std::string& profile = ctx.arguments[1];
    const std::string& list = ctx.arguments[2];
    requireProfile(ctx.db, ctx.tenant, guest, profile);
    if (ctx.db.run("DELETE FROM memberships WHERE tenant=?1 AND profile_id=?2 AND list_id=?3",
                   {ctx.tenant, profile, list}) == 0) {
        notFound("delivery profile \"" + profile + "\" is not subscribed to \"" + list + "\"");
    }
    return {200, profileRecord(ctx.db, ctx.tenant, profile), {}};
}

}  // namespace

std::optional<JSON> guestRecord(Connection& db, const std::string& tenant, const std::string& id) {
    Statement guest = db.prepare(
                            "SELECT external_id_type, language_pref, bu_creative_label, tags, "
                            "bu_properties FROM guests WHERE tenant=?1 AND external_id=?2")
                          .bind({tenant, id});
    if (!guest.step()) {
        return std::nullopt;
    }
    JSON record = {{"externalId", id},
                   {"tags", JSON::parse(guest.string(3))},
                   {"buProperties", JSON::parse(guest.string(4))},
                   {"deliveryProfiles", JSON::array()}};
    const std::array<std::pair<const char*, int>, 3> scalars = {
        {{"externalIdType", 0}, {"languagePref", 1}, {"buCreativeLabel", 2}}};
    for (const auto& [key, column] : scalars) {
        if (const auto value = guest.text(column)) {
            record[key] = *value;
        }
    }
    std::vector<std::string> profiles;
    Statement ids =
        db.prepare("SELECT id FROM profiles WHERE tenant=?1 AND guest_id=?2 ORDER BY rowid")
            .bind({tenant, id});
    while (ids.step()) {
        profiles.push_back(ids.string(0));
    }
    for (const std::string& profile : profiles) {
        record["deliveryProfiles"].push_back(profileRecord(db, tenant, profile));
    }
    return record;
}

void addGuestRoutes(Router& router) {
    router.add("POST", "guests", registerGuest);
    router.add("GET", "guests/{}", fetchGuest);
    router.add("POST", "guests/{}", saveGuest);
    router.add("DELETE", "guests/{}", deleteGuest);
    router.add("POST", "guests/{}/profiles", addProfile);
    router.add("POST", "guests/{}/profiles/{}", updateProfile);
    router.add("POST", "guests/{}/profiles/{}/enable", switchProfile(true));
    router.add("POST", "guests/{}/profiles/{}/disable", switchProfile(false));
    router.add("PUT", "guests/{}/profiles/{}/memberships/{}", subscribe);
    router.add("DELETE", "guests/{}/profiles/{}/memberships/{}", unsubscribe);
}

}  // namespace kxsandbox
