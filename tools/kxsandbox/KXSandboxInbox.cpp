// The inbox of a guest in an inbox domain: the domain summary with live counts, pages of message
// headers, message details, read and unread flags, deletion.
#include "KXSandboxHTTP.h"

#include <array>

namespace kxsandbox {

namespace {

constexpr std::int64_t kMaxPageSize = 1000;
constexpr std::int64_t kDefaultPageSize = 20;
constexpr int kWelcomeMessages = 25;

struct Domain {
    std::string name;
    std::string description;
    bool deleteForbidden = false;
};

Domain requireInbox(Context& ctx) {
    const std::string& guest = ctx.arguments[0];
    const std::string& domain = ctx.arguments[1];
    if (!ctx.db.integer("SELECT 1 FROM guests WHERE tenant=?1 AND external_id=?2",
                        {ctx.tenant, guest})) {
        notFound("no guest \"" + guest + "\"");
    }
    Statement row =
        ctx.db.prepare("SELECT name, description, delete_forbidden FROM domains WHERE id=?1")
            .bind({domain});
    if (!row.step()) {
        notFound("no inbox domain \"" + domain + "\"");
    }
    return {row.string(0), row.string(1), row.integer(2) != 0};
}

void requireMessage(Context& ctx) {
    if (!ctx.db.integer("SELECT 1 FROM messages WHERE tenant=?1 AND guest_id=?2 AND "
                        "domain_id=?3 AND id=?4",
                        {ctx.tenant, ctx.arguments[0], ctx.arguments[1], ctx.arguments[2]})) {
        notFound("no message \"" + ctx.arguments[2] + "\" in this inbox");
    }
}

JSON header(const Statement& row) {
    // Columns: id, subject, content_type, sender, date_received, read.
    return {{"id", row.string(0)},
            {"subject", row.string(1)},
            {"contentType", row.string(2)},
            {"sender", row.string(3)},
            {"dateReceived", row.integer(4)},
            {"flags", {{"read", row.integer(5) != 0}}}};
}

/// The members of header(row) as JSON text, in the order JSON::dump writes them, without the
/// braces.
void appendHeaderFields(std::string& out, const Statement& row) {
    out += R"("contentType":)";
    appendJSONString(out, row.view(2));
    out += R"(,"dateReceived":)";
    appendJSONInteger(out, row.integer(4));
    out += row.integer(5) != 0 ? R"(,"flags":{"read":true},"id":)"
                               : R"(,"flags":{"read":false},"id":)";
    appendJSONString(out, row.view(0));
    out += R"(,"sender":)";
    appendJSONString(out, row.view(3));
    out += R"(,"subject":)";
    appendJSONString(out, row.view(1));
}

Reply summary(Context& ctx) {
    const Domain domain = requireInbox(ctx);
    Statement counts = ctx.db
                           .prepare(
                               "SELECT count(*), coalesce(sum(read = 0), 0) FROM messages "
                               "WHERE tenant=?1 AND guest_id=?2 AND domain_id=?3")
                           .bind({ctx.tenant, ctx.arguments[0], ctx.arguments[1]});
    counts.step();
    return {200,
            {{"id", ctx.arguments[1]},
             {"name", domain.name},
             {"description", domain.description},
             {"totalMessageCount", counts.integer(0)},
             {"unreadMessageCount", counts.integer(1)},
             {"deleteByGuestForbidden", domain.deleteForbidden}},
            {}};
}

Reply messages(Context& ctx) {
    requireInbox(ctx);
    const bool paged = ctx.parameter("offset") || ctx.parameter("limit");
    const std::int64_t offset = ctx.integerParameter("offset", 0, INT32_MAX);
    const std::int64_t limit =
        paged ? ctx.integerParameter("limit", kDefaultPageSize, kMaxPageSize) : -1;
    // One row more than asked tells whether more records follow.
    Statement rows =
        ctx.db
            .prepare(
                "SELECT id, subject, content_type, sender, date_received, read FROM messages "
                "WHERE tenant=?1 AND guest_id=?2 AND domain_id=?3 "
                "ORDER BY date_received DESC, id LIMIT ?4 OFFSET ?5")
            .bind({ctx.tenant, ctx.arguments[0], ctx.arguments[1],
                   limit < 0 ? std::int64_t{-1} : limit + 1, offset});
    // The page is rendered as text, as JSON::dump would write {"hasMoreRecords", "limit",
    // "offset", "records"} with each record's keys in order: building a JSON value for every
    // record and then writing it cost several times what the three queries cost.
    std::string records;
    records.reserve(4096);
    std::size_t count = 0;
    bool more = false;
    while (rows.step()) {
        if (limit >= 0 && static_cast<std::int64_t>(count) == limit) {
            more = true;
            break;
        }
        records += count++ == 0 ? "{" : ",{";
        appendHeaderFields(records, rows);
        records += '}';
    }
    Reply reply;
    std::string& text = reply.text;
    text.reserve(records.size() + 96);
    text = more ? R"({"hasMoreRecords":true)" : R"({"hasMoreRecords":false)";
    if (limit >= 0) {
        text += R"(,"limit":)";
        appendJSONInteger(text, limit);
    }
    text += R"(,"offset":)";
    appendJSONInteger(text, offset);
    text += R"(,"records":[)";
    text += records;
    text += "]}";
    return reply;
}

Reply details(Context& ctx) {
    requireInbox(ctx);
    Statement row = ctx.db
                        .prepare(
                            "SELECT id, subject, content_type, sender, date_received, read, "
                            "content FROM messages WHERE tenant=?1 AND guest_id=?2 AND "
                            "domain_id=?3 AND id=?4")
                        .bind({ctx.tenant, ctx.arguments[0], ctx.arguments[1], ctx.arguments[2]});
    if (!row.step()) {
        notFound("no message \"" + ctx.arguments[2] + "\" in this inbox");
    }
    return {200, {{"header", header(row)}, {"content", row.string(6)}}, {}};
}

Handler markRead(bool read) {
    return [read](Context& ctx) -> Reply {
        requireInbox(ctx);
        requireMessage(ctx);
        ctx.db.run("UPDATE messages SET read=?3 WHERE tenant=?1 AND id=?2",
                   {ctx.tenant, ctx.arguments[2], std::int64_t{read ? 1 : 0}});
        return {200, {{"id", ctx.arguments[2]}, {"read", read}}, {}};
    };
}

Reply remove(Context& ctx) {
    const Domain domain = requireInbox(ctx);
    requireMessage(ctx);
    if (domain.deleteForbidden) {
        throw APIError(
            403, "forbidden",
            "guests may not delete messages of inbox domain \"" + ctx.arguments[1] + "\"");
    }
    ctx.db.run("DELETE FROM messages WHERE tenant=?1 AND id=?2", {ctx.tenant, ctx.arguments[2]});
    return {200, {{"deleted", ctx.arguments[2]}}, {}};
}

}  // namespace

std::string insertMessage(Connection& db, const std::string& tenant, const std::string& guest,
                          const std::string& domain, const std::string& subject,
                          const std::string& contentType, const std::string& content,
                          const std::string& sender, std::int64_t dateReceived) {
    const std::string id = newIdentifier("m-");
    db.run(
        "INSERT INTO messages(tenant, guest_id, domain_id, id, subject, content_type, content, "
        "sender, date_received, read) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, 0)",
        {tenant, guest, domain, id, subject, contentType, content, sender, dateReceived});
    return id;
}

void deliverWelcomeMessages(Connection& db, const std::string& tenant, const std::string& guest) {
    struct Topic {
        const char* title;
        const char* text;
    };
    static const std::array<Topic, 5> kTopics = {{
        {"Welcome aboard", "Your inbox is ready. Messages from us arrive here."},
        {"Your stay at a glance", "Check-in opens at 14:00; breakfast is served until 10:30."},
        {"Tonight's events", "Live music in the lobby from 20:00, free for guests."},
        {"Spa offer", "Book a treatment today and enjoy 15% off your second visit."},
        {"Getting around", "Shuttles leave every 30 minutes from the main entrance."},
    }};
    std::vector<std::string> domains;
    Statement rows = db.prepare("SELECT id FROM domains ORDER BY id").bind({});
    while (rows.step()) {
        domains.push_back(rows.string(0));
    }
    const std::int64_t now = nowMilliseconds();
    for (const std::string& domain : domains) {
        for (int n = 1; n <= kWelcomeMessages; ++n) {
            const Topic& topic = kTopics[static_cast<std::size_t>(n - 1) % kTopics.size()];
            const std::string subject = "Welcome " + std::to_string(n) + " of " +
                                        std::to_string(kWelcomeMessages) + ": " + topic.title;
            std::string contentType;
            std::string content;
            switch (n % 3) {
                case 1:
                    contentType = "text/html";
                    content = std::string("<html><body><h1>") + topic.title + "</h1><p>" +
                              topic.text + "</p></body></html>";
                    break;
                case 2:
                    contentType = "text/plain";
                    content = std::string(topic.title) + "\n\n" + topic.text;
                    break;
                default:
                    contentType = "text/uri-list";
                    content = "https://example.com/welcome/" + std::to_string(n);
                    break;
            }
            // Message 1 is the newest, one minute apart.
            insertMessage(db, tenant, guest, domain, subject, contentType, content, "KX Sandbox",
                          now - std::int64_t{n} * 60000);
        }
    }
}

void addInboxRoutes(Router& router) {
    router.add("GET", "guests/{}/inboxes/{}", summary);
    router.add("GET", "guests/{}/inboxes/{}/messages", messages);
    router.add("GET", "guests/{}/inboxes/{}/messages/{}", details);
    router.add("DELETE", "guests/{}/inboxes/{}/messages/{}", remove);
    router.add("POST", "guests/{}/inboxes/{}/messages/{}/read", markRead(true));
    router.add("POST", "guests/{}/inboxes/{}/messages/{}/unread", markRead(false));
}

}  // namespace kxsandbox
