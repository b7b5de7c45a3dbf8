// The business unit's subscription lists: pages (optionally by tag), one by id, creation.
#include "KXSandboxHTTP.h"

#include <cctype>

namespace kxsandbox {

namespace {

constexpr std::int64_t kMaxPageSize = 1000;

Reply page(Context& ctx) {
    const std::int64_t offset = ctx.integerParameter("offset", 0, INT32_MAX);
    const std::int64_t limit = ctx.integerParameter("limit", kMaxPageSize, kMaxPageSize);
    const std::optional<std::string> tag = ctx.parameter("tag");
    Statement rows = tag ? ctx.db
                               .prepare(
                                   "SELECT external_id FROM lists WHERE tenant=?1 AND EXISTS "
                                   "(SELECT 1 FROM json_each(lists.tags) WHERE value=?4) "
                                   "ORDER BY rowid LIMIT ?2 OFFSET ?3")
                               .bind({ctx.tenant, limit + 1, offset, *tag})
                         : ctx.db
                               .prepare(
                                   "SELECT external_id FROM lists WHERE tenant=?1 "
                                   "ORDER BY rowid LIMIT ?2 OFFSET ?3")
                               .bind({ctx.tenant, limit + 1, offset});
    std::vector<std::string> ids;
    while (rows.step()) {
        ids.push_back(rows.string(0));
    }
    const bool more = static_cast<std::int64_t>(ids.size()) > limit;
    if (more) {
        ids.pop_back();
    }
    JSON records = JSON::array();
    for (const std::string& id : ids) {
        records.push_back(*listRecord(ctx.db, ctx.tenant, id));
    }
    return {200,
            {{"records", std::move(records)},
             {"hasMoreRecords", more},
             {"offset", offset},
             {"limit", limit}},
            {}};
}

Reply byId(Context& ctx) {
    std::optional<JSON> record = listRecord(ctx.db, ctx.tenant, ctx.arguments[0]);
    if (!record) {
        notFound("no list \"" + ctx.arguments[0] + "\"");
    }
    return {200, std::move(*record), {}};
}

Reply create(Context& ctx) {
    const std::string id = createList(ctx.db, ctx.tenant, ctx.object());
    return Reply::created(id, *listRecord(ctx.db, ctx.tenant, id));
}

}  // namespace

std::optional<JSON> listRecord(Connection& db, const std::string& tenant, const std::string& id) {
    Statement row = db.prepare(
                          "SELECT name, description, type, tags, bu_properties, base_counts "
                          "FROM lists WHERE tenant=?1 AND external_id=?2")
                        .bind({tenant, id});
    if (!row.step()) {
        return std::nullopt;
    }
    JSON record = {{"externalId", id},
                   {"name", row.string(0)},
                   {"type", row.string(2)},
                   {"tags", JSON::parse(row.string(3))},
                   {"buProperties", JSON::parse(row.string(4))},
                   {"channelCounts", JSON::parse(row.string(5))}};
    if (const auto description = row.text(1)) {
        record["description"] = *description;
    }
    // Live subscribers by channel, on top of the counts a list was created with.
    Statement live = db.prepare(
                           "SELECT p.channel, count(*) FROM memberships m JOIN profiles p "
                           "ON p.tenant=m.tenant AND p.id=m.profile_id "
                           "WHERE m.tenant=?1 AND m.list_id=?2 AND m.enabled=1 GROUP BY p.channel")
                         .bind({tenant, id});
    JSON& counts = record["channelCounts"];
    while (live.step()) {
        const std::string channel = live.string(0);
        counts[channel] = counts.value(channel, std::int64_t{0}) + live.integer(1);
    }
    return record;
}

std::string createList(Connection& db, const std::string& tenant, const JSON& body) {
    const std::string name = requiredString(body, "name");
    // An empty identifier counts as none.
    std::string id = optionalString(body, "externalId").value_or(std::string());
    const std::optional<std::string> description = optionalString(body, "description");
    const std::optional<std::string> type = optionalString(body, "type");
    const std::optional<JSON> tags = optionalStringArray(body, "tags");
    const std::optional<JSON> properties = optionalObject(body, "buProperties");
    const std::optional<JSON> counts = optionalObject(body, "channelCounts");
    if (!id.empty()) {
        for (const unsigned char c : id) {
            if (std::isspace(c) != 0 || c == '/' || c == '?' || c == '#' || c < 0x20) {
                badRequest("\"externalId\" \"" + id +
                           "\" must not contain blanks, slashes, '?' or '#'");
            }
        }
    }
    if (counts) {
        for (const auto& [channel, count] : counts->items()) {
            if (!count.is_number_integer() || count < 0) {
                badRequest("\"channelCounts\" must map channels to counts");
            }
        }
    }
    if (id.empty()) {
        id = newIdentifier("list-");
    }
    if (listRecord(db, tenant, id)) {
        throw APIError(409, "conflict", "a list \"" + id + "\" already exists");
    }
    db.run(
        "INSERT INTO lists(tenant, external_id, name, description, type, tags, bu_properties, "
        "base_counts, created_at) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)",
        {tenant, id, name, description ? Value(*description) : Value(nullptr),
         type.value_or("SUBSCRIPTION"), tags.value_or(JSON::array()).dump(),
         properties.value_or(JSON::object()).dump(), counts.value_or(JSON::object()).dump(),
         nowMilliseconds()});
    return id;
}

void seedLists(Connection& db, const std::string& tenant) {
    const JSON lists = JSON::parse(R"([
      {"externalId": "offers", "name": "Special offers", "description": "Deals and packages",
       "tags": ["marketing", "weekly"], "channelCounts": {"APNS_PUSH": 1240, "EMAIL": 860}},
      {"externalId": "events", "name": "Events", "description": "What is on this week",
       "tags": ["events", "local"], "channelCounts": {"APNS_PUSH": 530, "SMS": 120}},
      {"externalId": "spa", "name": "Spa and wellness", "description": "Treatments and offers",
       "tags": ["wellness", "marketing"], "channelCounts": {"EMAIL": 410}},
      {"externalId": "dining", "name": "Dining", "description": "Menus and tables",
       "tags": ["food", "events"], "channelCounts": {"APNS_PUSH": 300, "EMAIL": 200, "SMS": 50}},
      {"externalId": "loyalty", "name": "Loyalty club", "description": "Points and rewards",
       "tags": ["members"], "channelCounts": {"APNS_PUSH": 980, "EMAIL": 975}},
      {"externalId": "alerts", "name": "Service alerts", "description": "Disruptions and changes",
       "tags": ["service"], "channelCounts": {"APNS_PUSH": 2000, "SMS": 640}}
    ])");
    for (const JSON& list : lists) {
        if (!listRecord(db, tenant, list["externalId"].get<std::string>())) {
            createList(db, tenant, list);
        }
    }
}

void addListRoutes(Router& router) {
    router.add("GET", "lists", page);
    router.add("GET", "lists/{}", byId);
    router.add("POST", "lists", create);
    router.add("POST", "lists/", create);
}

}  // namespace kxsandbox
