#pragma once

// Operator commands on the sandbox's database (they work while the service runs): send a
// message, look at guests, inboxes, sessions and lists, create a list. Human-readable tables by
// default, JSON with --json.

#include "KXSandboxDatabase.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace kxsandbox {

/// A failure an operator command reports on standard error (exit status 1).
class OperatorError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A tenant given on the command line: a base path ("/KXFrontier-stg") or a business unit's
/// name ("BU1", meaning "/ZandrelService/rest/bu/BU1").
std::string tenantFromArgument(const std::string& argument);

struct MessageToSend {
    std::string guest;
    std::optional<std::string> tenant;
    std::optional<std::string> domain;
    std::string subject;
    std::string contentType;
    std::string content;
    std::string sender = "KX Sandbox";
};

nlohmann::json sendMessage(Database& database, const MessageToSend& message);
nlohmann::json listGuests(Database& database, const std::optional<std::string>& tenant);
nlohmann::json listInbox(Database& database, const std::string& guest,
                         const std::optional<std::string>& tenant,
                         const std::optional<std::string>& domain);
nlohmann::json listSessions(Database& database, const std::optional<std::string>& guest);
nlohmann::json listLists(Database& database, const std::optional<std::string>& tenant);
nlohmann::json createListCommand(Database& database, const std::string& tenant,
                                 const nlohmann::json& body);

/// Writes `rows` (an array of objects) as a table with the given columns, or as JSON.
void printRows(std::ostream& out, const nlohmann::json& rows,
               const std::vector<std::pair<std::string, std::string>>& columns, bool json);

}  // namespace kxsandbox
