// Inbox replies turned into KXInboxMessage objects, against parsing the same bytes as JSON
// alone, in the same run:
//
//   JSONOnly/<n>    nlohmann::json::parse of a page reply of n message headers (the baseline:
//                   what any client must do with the bytes)
//   ReaderOnly/<n>  KXJSONReader::parse with the transport's limits, alone (the decoder's share)
//   Messages/<n>    what every page or full fetch does with the body: KXJSONReader::parse with
//                   the transport's limits (KXHTTPSessionManager's decoder), then
//                   KXInboxParser::parse into n KXInboxMessage objects
//
// n is 20 (one page) and 1,000 (a full fetch). The interesting number is Messages / JSONOnly.
//
// Memory: LoadedInbox/10000 loads 10,000 messages into KXInbox::shared() and reports, as
// counters, the heap bytes the inbox holds per message and, for comparison, the bytes per
// message of the parsed JSON document of the same reply. Heap bytes are counted by the
// replaced global operator new below.

#include <KXClientFramework/KXInbox.h>
#include <KXClientFramework/KXInboxParser.h>
#include <KXClientFramework/KXJSONReader.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <optional>
#include <string>

namespace {

std::atomic<std::int64_t> liveBytes{0};

// Each block carries its size in front, so delete knows how much to subtract.
constexpr std::size_t kHeader = alignof(std::max_align_t);

void* countedAllocate(std::size_t size) {
    void* block = std::malloc(size + kHeader);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    *static_cast<std::size_t*>(block) = size;
    liveBytes.fetch_add(static_cast<std::int64_t>(size), std::memory_order_relaxed);
    return static_cast<char*>(block) + kHeader;
}

void countedFree(void* pointer) noexcept {
    if (pointer == nullptr) {
        return;
    }
    void* block = static_cast<char*>(pointer) - kHeader;
    liveBytes.fetch_sub(static_cast<std::int64_t>(*static_cast<std::size_t*>(block)),
                        std::memory_order_relaxed);
    std::free(block);
}

/// A page reply of `count` message headers as the service sends them.
std::string pageReply(int count) {
    KXJSON records = KXJSON::array();
    for (int i = 0; i < count; ++i) {
        records.push_back({{"id", "msg-" + std::to_string(100000 + i)},
                           {"subject", "Your stay at the harbour hotel, part " + std::to_string(i)},
                           {"contentType", "text/html"},
                           {"sender", "Harbour Hotel Front Desk"},
                           {"dateReceived", 1763800000000 + i * 60000LL},
                           {"flags", {{"read", i % 3 == 0}}}});
    }
    return KXJSON{{"records", records}, {"hasMoreRecords", count == 20}}.dump();
}

void JSONOnly(benchmark::State& state) {
    const std::string bytes = pageReply(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        nlohmann::json reply = nlohmann::json::parse(bytes);
        benchmark::DoNotOptimize(reply);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

void ReaderOnly(benchmark::State& state) {
    const std::string bytes = pageReply(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        std::optional<KXJSON> reply = KXJSONReader::parse(bytes, KXJSONLimits{});
        benchmark::DoNotOptimize(reply);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

void Messages(benchmark::State& state) {
    const std::string bytes = pageReply(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        const std::optional<KXJSON> reply = KXJSONReader::parse(bytes, KXJSONLimits{});
        auto messages = KXInboxParser::parse(*reply);
        benchmark::DoNotOptimize(messages);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

void LoadedInbox(benchmark::State& state) {
    const auto count = static_cast<int>(state.range(0));
    const std::string bytes = pageReply(count);
    double inboxBytes = 0;
    double documentBytes = 0;
    for (auto _ : state) {
        KXInbox::shared().setMessages({});
        const std::int64_t before = liveBytes.load();
        auto reply = std::make_unique<KXJSON>(*KXJSONReader::parse(bytes, KXJSONLimits{}));
        const std::int64_t withDocument = liveBytes.load();
        KXInbox::shared().setMessages(*KXInboxParser::parse(*reply));
        reply.reset();
        const std::int64_t withInbox = liveBytes.load();
        documentBytes = static_cast<double>(withDocument - before);
        inboxBytes = static_cast<double>(withInbox - before);
    }
    KXInbox::shared().setMessages({});
    state.counters["inbox_bytes_per_message"] = inboxBytes / count;
    state.counters["json_bytes_per_message"] = documentBytes / count;
    state.counters["reply_bytes_per_message"] = static_cast<double>(bytes.size()) / count;
}

}  // namespace

void* operator new(std::size_t size) {
    return countedAllocate(size);
}
void* operator new[](std::size_t size) {
    return countedAllocate(size);
}
void operator delete(void* pointer) noexcept {
    countedFree(pointer);
}
void operator delete[](void* pointer) noexcept {
    countedFree(pointer);
}
void operator delete(void* pointer, std::size_t) noexcept {
    countedFree(pointer);
}
void operator delete[](void* pointer, std::size_t) noexcept {
    countedFree(pointer);
}

BENCHMARK(JSONOnly)->Arg(20)->Arg(1000);
BENCHMARK(ReaderOnly)->Arg(20)->Arg(1000);
BENCHMARK(Messages)->Arg(20)->Arg(1000);
BENCHMARK(LoadedInbox)->Arg(10000)->Iterations(3);
