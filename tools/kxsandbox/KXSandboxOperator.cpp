#include "KXSandboxOperator.h"

#include "KXSandboxHTTP.h"

#include <algorithm>
#include <ctime>

namespace kxsandbox {

namespace {

std::string timeText(std::int64_t milliseconds) {
    const std::time_t seconds = static_cast<std::time_t>(milliseconds / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%SZ", &utc);
    return text;
}

/// The tenant that holds `guest`: the given one, or the only one that has such a guest.
std::string tenantOfGuest(Connection& db, const std::string& guest,
                          const std::optional<std::string>& tenant) {
    std::vector<std::string> tenants;
    Statement rows =
        db.prepare("SELECT tenant FROM guests WHERE external_id=?1 ORDER BY tenant").bind({guest});
    while (rows.step()) {
        tenants.push_back(rows.string(0));
    }
    if (tenant) {
        const std::string wanted = tenantFromArgument(*tenant);
        if (std::find(tenants.begin(), tenants.end(), wanted) == tenants.end()) {
            throw OperatorError("no guest \"" + guest + "\" under " + wanted);
        }
        return wanted;
    }
    if (tenants.empty()) {
        throw OperatorError("no guest \"" + guest + "\"");
    }
    if (tenants.size() > 1) {
        std::string names;
        for (const std::string& t : tenants) {
            names += " " + t;
        }
        throw OperatorError("guest \"" + guest + "\" exists under several base paths (" + names +
                            " ); choose one with --tenant");
    }
    return tenants.front();
}

/// The inbox domain of a guest: the given one, the domain of the guest's inbox profile, or the
/// only domain guests may delete from.
std::string domainOfGuest(Connection& db, const std::string& tenant, const std::string& guest,
                          const std::optional<std::string>& domain) {
    if (domain) {
        if (!db.integer("SELECT 1 FROM domains WHERE id=?1", {*domain})) {
            throw OperatorError("no inbox domain \"" + *domain + "\"");
        }
        return *domain;
    }
    Statement profile = db.prepare(
                              "SELECT json_extract(attributes, '$.inboxDomainId') FROM profiles "
                              "WHERE tenant=?1 AND guest_id=?2 AND channel='INBOX' ORDER BY rowid")
                            .bind({tenant, guest});
    if (profile.step() && profile.text(0) &&
        db.integer("SELECT 1 FROM domains WHERE id=?1", {*profile.text(0)})) {
        return *profile.text(0);
    }
    std::vector<std::string> domains;
    Statement rows =
        db.prepare("SELECT id FROM domains WHERE delete_forbidden=0 ORDER BY id").bind({});
    while (rows.step()) {
        domains.push_back(rows.string(0));
    }
    if (domains.size() != 1) {
        throw OperatorError("choose the inbox domain with --domain");
    }
    return domains.front();
}

std::string cellText(const nlohmann::json& value) {
    if (value.is_null()) {
        return "";
    }
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_boolean()) {
        return value.get<bool>() ? "yes" : "no";
    }
    return value.dump();
}

}  // namespace

std::string tenantFromArgument(const std::string& argument) {
    if (!argument.empty() && argument.front() == '/') {
        return argument;
    }
    return "/ZandrelService/rest/bu/" + argument;
}

nlohmann::json sendMessage(Database& database, const MessageToSend& message) {
    auto lease = database.borrow();
    Transaction transaction(*lease);
    const std::string tenant = tenantOfGuest(*lease, message.guest, message.tenant);
    const std::string domain = domainOfGuest(*lease, tenant, message.guest, message.domain);
    const std::string id =
        insertMessage(*lease, tenant, message.guest, domain, message.subject, message.contentType,
                      message.content, message.sender, nowMilliseconds());
    transaction.commit();
    return {{"id", id}, {"tenant", tenant}, {"guest", message.guest}, {"domain", domain}};
}

nlohmann::json listGuests(Database& database, const std::optional<std::string>& tenant) {
    auto lease = database.borrow();
    std::vector<std::pair<std::string, std::string>> keys;
    {
        Statement rows = lease
                             ->prepare(
                                 "SELECT tenant, external_id FROM guests WHERE ?1 IS NULL OR "
                                 "tenant=?1 ORDER BY tenant, created_at, external_id")
                             .bind({tenant ? Value(tenantFromArgument(*tenant)) : Value(nullptr)});
        while (rows.step()) {
            keys.emplace_back(rows.string(0), rows.string(1));
        }
    }
    nlohmann::json guests = nlohmann::json::array();
    for (const auto& [guestTenant, id] : keys) {
        nlohmann::json record = *guestRecord(*lease, guestTenant, id);
        std::string channels;
        for (const auto& profile : record["deliveryProfiles"]) {
            if (!channels.empty()) {
                channels += ' ';
            }
            channels += profile["address"]["channel"].get<std::string>();
        }
        Statement counts = lease
                               ->prepare(
                                   "SELECT count(*), coalesce(sum(read=0), 0) FROM messages "
                                   "WHERE tenant=?1 AND guest_id=?2")
                               .bind({guestTenant, id});
        counts.step();
        guests.push_back({{"tenant", guestTenant},
                          {"externalId", id},
                          {"channels", channels},
                          {"messages", counts.integer(0)},
                          {"unread", counts.integer(1)},
                          {"guest", std::move(record)}});
    }
    return guests;
}

nlohmann::json listInbox(Database& database, const std::string& guest,
                         const std::optional<std::string>& tenant,
                         const std::optional<std::string>& domain) {
    auto lease = database.borrow();
    const std::string guestTenant = tenantOfGuest(*lease, guest, tenant);
    const std::string inbox = domainOfGuest(*lease, guestTenant, guest, domain);
    Statement rows = lease
                         ->prepare(
                             "SELECT id, read, date_received, content_type, subject, sender "
                             "FROM messages WHERE tenant=?1 AND guest_id=?2 AND domain_id=?3 "
                             "ORDER BY date_received DESC, id")
                         .bind({guestTenant, guest, inbox});
    nlohmann::json messages = nlohmann::json::array();
    while (rows.step()) {
        messages.push_back({{"id", rows.string(0)},
                            {"read", rows.integer(1) != 0},
                            {"dateReceived", rows.integer(2)},
                            {"received", timeText(rows.integer(2))},
                            {"contentType", rows.string(3)},
                            {"subject", rows.string(4)},
                            {"sender", rows.string(5)},
                            {"domain", inbox},
                            {"tenant", guestTenant}});
    }
    return messages;
}

nlohmann::json listSessions(Database& database, const std::optional<std::string>& guest) {
    auto lease = database.borrow();
    std::vector<nlohmann::json> sessions;
    {
        Statement rows = lease
                             ->prepare(
                                 "SELECT tenant, id, guest_id, started_at, updated_at, closed, "
                                 "updates FROM sessions WHERE ?1 IS NULL OR guest_id=?1 "
                                 "ORDER BY started_at, id")
                             .bind({guest ? Value(*guest) : Value(nullptr)});
        while (rows.step()) {
            sessions.push_back({{"tenant", rows.string(0)},
                                {"id", rows.string(1)},
                                {"guest", rows.text(2) ? nlohmann::json(*rows.text(2)) : nullptr},
                                {"started", timeText(rows.integer(3))},
                                {"updated", timeText(rows.integer(4))},
                                {"closed", rows.integer(5) != 0},
                                {"updates", rows.integer(6)}});
        }
    }
    for (nlohmann::json& session : sessions) {
        nlohmann::json documents = nlohmann::json::array();
        Statement rows =
            lease
                ->prepare(
                    "SELECT kind, received_at, document FROM session_documents "
                    "WHERE tenant=?1 AND session_id=?2 ORDER BY rowid")
                .bind({session["tenant"].get<std::string>(), session["id"].get<std::string>()});
        while (rows.step()) {
            documents.push_back({{"kind", rows.string(0)},
                                 {"received", timeText(rows.integer(1))},
                                 {"document", nlohmann::json::parse(rows.string(2))}});
        }
        session["documents"] = std::move(documents);
    }
    return sessions;
}

nlohmann::json listLists(Database& database, const std::optional<std::string>& tenant) {
    auto lease = database.borrow();
    std::vector<std::pair<std::string, std::string>> keys;
    {
        Statement rows = lease
                             ->prepare(
                                 "SELECT tenant, external_id FROM lists WHERE ?1 IS NULL OR "
                                 "tenant=?1 ORDER BY tenant, created_at, external_id")
                             .bind({tenant ? Value(tenantFromArgument(*tenant)) : Value(nullptr)});
        while (rows.step()) {
            keys.emplace_back(rows.string(0), rows.string(1));
        }
    }
    nlohmann::json lists = nlohmann::json::array();
    for (const auto& [listTenant, id] : keys) {
        nlohmann::json record = *listRecord(*lease, listTenant, id);
        std::string tags;
        for (const auto& tag : record["tags"]) {
            if (!tags.empty()) {
                tags += ',';
            }
            tags += tag.get<std::string>();
        }
        std::string counts;
        for (const auto& [channel, count] : record["channelCounts"].items()) {
            if (!counts.empty()) {
                counts += ' ';
            }
            counts += channel + "=" + count.dump();
        }
        record["tenant"] = listTenant;
        record["tagText"] = tags;
        record["countText"] = counts;
        lists.push_back(std::move(record));
    }
    return lists;
}

nlohmann::json createListCommand(Database& database, const std::string& tenant,
                                 const nlohmann::json& body) {
    auto lease = database.borrow();
    try {
        Transaction transaction(*lease);
        const std::string id = createList(*lease, tenantFromArgument(tenant), body);
        nlohmann::json record = *listRecord(*lease, tenantFromArgument(tenant), id);
        transaction.commit();
        record["tenant"] = tenantFromArgument(tenant);
        return record;
    } catch (const APIError& error) {
        throw OperatorError(error.what());
    }
}

void printRows(std::ostream& out, const nlohmann::json& rows,
               const std::vector<std::pair<std::string, std::string>>& columns, bool json) {
    if (json) {
        out << rows.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
        return;
    }
    std::vector<std::size_t> widths;
    for (const auto& [key, title] : columns) {
        widths.push_back(title.size());
    }
    std::vector<std::vector<std::string>> cells;
    for (const auto& row : rows) {
        std::vector<std::string> line;
        for (std::size_t i = 0; i < columns.size(); ++i) {
            std::string text = cellText(row.value(columns[i].first, nlohmann::json()));
            std::replace(text.begin(), text.end(), '\n', ' ');
            widths[i] = std::max(widths[i], text.size());
            line.push_back(std::move(text));
        }
        cells.push_back(std::move(line));
    }
    auto printLine = [&](const std::vector<std::string>& line) {
        std::string text;
        for (std::size_t i = 0; i < line.size(); ++i) {
            text += line[i];
            if (i + 1 < line.size()) {
                text += std::string(widths[i] - line[i].size() + 2, ' ');
            }
        }
        out << text << '\n';
    };
    std::vector<std::string> titles;
    for (const auto& [key, title] : columns) {
        titles.push_back(title);
    }
    printLine(titles);
    for (const auto& line : cells) {
        printLine(line);
    }
    if (cells.empty()) {
        out << "(none)\n";
    }
}

}  // namespace kxsandbox
