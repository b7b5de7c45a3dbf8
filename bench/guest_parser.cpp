// A guest reply with 500 delivery profiles parsed into KXGuest::currentGuest(), against parsing
// the same bytes as JSON alone, in the same run:
//
//   NlohmannOnly      nlohmann::json::parse of the reply (the baseline: what any client must do
//                     with the bytes)
//   ReaderOnly        KXJSONReader::parse with the transport's limits, alone (the decoder's share)
//   Guest             what a guest fetch does with the body: KXJSONReader::parse with the
//                     transport's limits (KXHTTPSessionManager's decoder), then
//                     KXGuestParser::parse into currentGuest()
//
// The interesting number is Guest / NlohmannOnly.

#include <KXClientFramework/KXGuest.h>
#include <KXClientFramework/KXGuestParser.h>
#include <KXClientFramework/KXJSONReader.h>

#include <benchmark/benchmark.h>

#include <nlohmann/json.hpp>

#include <stdexcept>
#include <string>

namespace {

constexpr int kProfiles = 500;

/// One delivery profile as the service sends it: the channel's address attributes, tags, list
/// memberships and the bookkeeping fields the library does not read.
nlohmann::json profile(int i) {
    static const char* const kChannels[] = {"APNS_PUSH", "INBOX", "EMAIL", "SMS"};
    const std::string channel = kChannels[i % 4];
    const std::string n = std::to_string(i);
    nlohmann::json attributes;
    switch (i % 4) {
        case 0:
            attributes = {{"applicationToken",
                           "5f0c9a7e2b8d4c1f9e3a6b0d7c2e8f1a4b9d0c3e6f2a7b1c8d5e0f3a9b6c" + n},
                          {"appId", "com.example.harbourhotel"},
                          {"platform", "ios"}};
            break;
        case 1:
            attributes = {{"inboxDomainId", "inbox-" + std::to_string(i % 7)}};
            break;
        case 2:
            attributes = {{"emailAddress", "guest" + n + "@example.com"}};
            break;
        default:
            attributes = {{"mobileNumber", "+4479460" + std::to_string(10000 + i)}};
            break;
    }
    nlohmann::json memberships = nlohmann::json::array();
    for (int m = 0; m < 3; ++m) {
        memberships.push_back({{"recipientListId", "list-" + std::to_string((i * 3 + m) % 40)},
                               {"languagePref", m == 2 ? "fr" : "en"},
                               {"enabled", m != 1},
                               {"createdDate", 1763800000000 + i * 1000LL + m}});
    }
    return {{"id", "dp-" + std::to_string(700000 + i)},
            {"enabled", i % 5 != 0},
            {"tags", {"loyalty", "tier-" + std::to_string(i % 3), "opt-in"}},
            {"memberships", memberships},
            {"address", {{"channel", channel}, {"attributes", attributes}, {"enabled", true}}},
            {"createdDate", 1763800000000 + i * 1000LL},
            {"lastModifiedDate", 1763900000000 + i * 1000LL}};
}

/// A guest reply with `count` delivery profiles.
std::string guestReply(int count) {
    nlohmann::json profiles = nlohmann::json::array();
    for (int i = 0; i < count; ++i) {
        profiles.push_back(profile(i));
    }
    const nlohmann::json guest = {
        {"externalId", "guest-8c41d2"},
        {"externalIdType", "QRID"},
        {"languagePref", "en"},
        {"buCreativeLabel", "harbour-gold"},
        {"tags", {"vip", "returning", "newsletter"}},
        {"buProperties",
         {{"tier", 2}, {"memberSince", "2019-04-12"}, {"preferredRoom", "sea view"}}},
        {"deliveryProfiles", profiles},
        {"createdDate", 1700000000000},
        {"lastModifiedDate", 1763900000000}};
    return guest.dump();
}

const std::string& reply() {
    static const std::string bytes = guestReply(kProfiles);
    return bytes;
}

void NlohmannOnly(benchmark::State& state) {
    const std::string& bytes = reply();
    for (auto _ : state) {
        nlohmann::json parsed = nlohmann::json::parse(bytes);
        benchmark::DoNotOptimize(parsed);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

void ReaderOnly(benchmark::State& state) {
    const std::string& bytes = reply();
    for (auto _ : state) {
        std::optional<KXJSON> parsed = KXJSONReader::parse(bytes, KXJSONLimits{});
        benchmark::DoNotOptimize(parsed);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

void Guest(benchmark::State& state) {
    const std::string& bytes = reply();
    for (auto _ : state) {
        const std::optional<KXJSON> parsed = KXJSONReader::parse(bytes, KXJSONLimits{});
        KXGuestParser::parse(*parsed);
        benchmark::DoNotOptimize(KXGuest::currentGuest()->deliveryProfiles());
    }
    const auto& profiles = KXGuest::currentGuest()->deliveryProfiles();
    if (!profiles || profiles->size() != kProfiles || profiles->back()->memberships().size() != 3) {
        throw std::logic_error("the guest was not parsed");
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
    state.counters["reply_bytes"] = static_cast<double>(bytes.size());
}

}  // namespace

BENCHMARK(NlohmannOnly);
BENCHMARK(ReaderOnly);
BENCHMARK(Guest);
