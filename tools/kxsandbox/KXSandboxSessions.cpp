// Analytics sessions: the start document creates a session (its id in "newRecordId"); update
// and end documents are stored with it, in arrival order.
#include "KXSandboxHTTP.h"

namespace kxsandbox {

namespace {

/// Checks the types of the documents' known members; unknown members are kept as sent.
void checkDocument(const JSON& document) {
    optionalString(document, "time");
    optionalFlag(document, "isClosed");
    if (const auto guest = optionalObject(document, "guestSession")) {
        optionalString(*guest, "guestId");
        optionalString(*guest, "guestProfileId");
    }
    if (const auto location = optionalObject(document, "geoLocation")) {
        optionalString(*location, "time");
        if (const auto coordinates = optionalObject(*location, "coordinates")) {
            for (const char* key : {"latitude", "longitude"}) {
                const auto value = coordinates->find(key);
                if (value != coordinates->end() && !value->is_number()) {
                    badRequest(std::string("\"") + key + "\" must be a number");
                }
            }
        }
    }
    optionalObject(document, "deviceData");
    const auto broadcasts = document.find("receivedBroadcasts");
    if (broadcasts != document.end() && !broadcasts->is_null()) {
        if (!broadcasts->is_array()) {
            badRequest("\"receivedBroadcasts\" must be an array");
        }
        for (const JSON& broadcast : *broadcasts) {
            if (!broadcast.is_object()) {
                badRequest("each of \"receivedBroadcasts\" must be an object");
            }
            optionalString(broadcast, "time");
        }
    }
}

std::optional<std::string> guestOf(const JSON& document) {
    const auto guest = document.find("guestSession");
    if (guest == document.end() || !guest->is_object()) {
        return std::nullopt;
    }
    return optionalString(*guest, "guestId");
}

void storeDocument(Context& ctx, const std::string& session, const char* kind,
                   const JSON& document) {
    ctx.db.run(
        "INSERT INTO session_documents(tenant, session_id, kind, received_at, document) "
        "VALUES(?1, ?2, ?3, ?4, ?5)",
        {ctx.tenant, session, std::string(kind), nowMilliseconds(), document.dump()});
}

Reply start(Context& ctx) {
    const JSON document = ctx.object();
    checkDocument(document);
    const std::string id = newIdentifier("s-");
    const std::optional<std::string> guest = guestOf(document);
    const std::int64_t now = nowMilliseconds();
    ctx.db.run(
        "INSERT INTO sessions(tenant, id, guest_id, started_at, updated_at, closed, "
        "updates) VALUES(?1, ?2, ?3, ?4, ?4, 0, 0)",
        {ctx.tenant, id, guest ? Value(*guest) : Value(nullptr), now});
    storeDocument(ctx, id, "start", document);
    return Reply::created(id, {{"id", id}});
}

Reply update(Context& ctx) {
    const std::string& id = ctx.arguments[0];
    const JSON document = ctx.object();
    checkDocument(document);
    if (!ctx.db.integer("SELECT 1 FROM sessions WHERE tenant=?1 AND id=?2", {ctx.tenant, id})) {
        notFound("no session \"" + id + "\"");
    }
    const bool closed = optionalFlag(document, "isClosed").value_or(false);
    ctx.db.run(
        "UPDATE sessions SET updated_at=?3, closed=max(closed, ?4), updates=updates+1, "
        "guest_id=coalesce(?5, guest_id) WHERE tenant=?1 AND id=?2",
        {ctx.tenant, id, nowMilliseconds(), std::int64_t{closed ? 1 : 0},
         guestOf(document) ? Value(*guestOf(document)) : Value(nullptr)});
    storeDocument(ctx, id, closed ? "end" : "update", document);
    return {200, {{"id", id}, {"closed", closed}}, {}};
}

}  // namespace

void addSessionRoutes(Router& router) {
    router.add("POST", "sessions", start);
    router.add("POST", "sessions/{}", update);
}

}  // namespace kxsandbox
