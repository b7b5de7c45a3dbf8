#include "KXSandboxFixture.h"

#include <atomic>
#include <set>
#include <thread>

using SandboxDurability = KXAuthenticatedSandboxTest;

TEST_F(SandboxDurability, KillNineDuringAStreamOfWritesLosesNoAcknowledgedWrite) {
    const std::string guest = registerGuest(
        {{"deliveryProfiles",
          {{{"address", {{"channel", "SMS"}, {"attributes", {{"mdn", "+15550100"}}}}}}}}});
    const std::string profile = get("/guests/" + guest).object["deliveryProfiles"][0]["id"];
    ASSERT_EQ(call(&KXHTTPSessionManager::PUT,
                   "/guests/" + guest + "/profiles/" + profile + "/memberships/events",
                   {{"externalId", guest}, {"enabled", 1}})
                  .status,
              200);
    const std::string session = post("/sessions", {{"time", "60"}}).newRecordId;
    const KXJSON before = get("/guests/" + guest).object;

    std::vector<std::string> acknowledged;
    std::atomic<std::size_t> count{0};
    bool stopped = false;
    std::function<void()> next = [&] {
        const std::string id = "w-" + std::to_string(acknowledged.size());
        KXHTTPSessionManager::sharedManager().POST(
            KXSessionManager::kxBaseURI() + "/guests", {{"externalId", id}, {"tags", {"stream"}}},
            [&, id](std::shared_ptr<const KXHTTPResponse>, const KXJSON&) {
                acknowledged.push_back(id);
                ++count;
                next();
            },
            [&](std::shared_ptr<const KXHTTPResponse>, const KXError&) { stopped = true; });
    };
    std::thread killer([&] {
        while (count < 40) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        sandbox->kill();
    });
    next();
    ASSERT_TRUE(runUntil([&] { return stopped; }));
    killer.join();
    ASSERT_GE(acknowledged.size(), 40u);

    sandbox->restart();
    pointLibraryAtSandbox();
    for (const std::string& id : acknowledged) {
        EXPECT_EQ(get("/guests/" + id).status, 200) << id << " was acknowledged, then lost";
    }
    // The token issued before the restart is still valid, and subscriptions and sessions stay.
    EXPECT_EQ(get("/guests/" + guest).object, before);
    EXPECT_EQ(post("/sessions/" + session, {{"isClosed", true}}).status, 200);
    EXPECT_EQ(get("/lists/events").object["channelCounts"]["SMS"], 121);
    EXPECT_EQ(sandbox->terminate(), 0) << "SIGTERM stops the service cleanly";
}

TEST_F(SandboxDurability, ConcurrentClientsAreServedInParallelAndEveryWriteLands) {
    constexpr int kClients = 8;
    constexpr int kEach = 10;
    const std::string token = bearerToken();
    std::atomic<int> created{0};
    std::atomic<int> blocked{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.emplace_back([&, c] {
            httplib::Client client = rawClient();
            client.set_keep_alive(true);
            for (int i = 0; i < kEach; ++i) {
                const std::string id = "c" + std::to_string(c) + "-" + std::to_string(i);
                const auto answer =
                    client.Post("/ZandrelService/rest/bu/BU1/guests",
                                httplib::Headers{{"Authorization", "BEARER " + token}},
                                KXJSON{{"externalId", id}}.dump(), "application/json");
                if (answer && answer->status == 201 &&
                    answer->get_header_value("newRecordId") == id) {
                    ++created;
                }
            }
            // A slow answer on one connection does not hold the others up.
            const auto slow = client.Get("/ZandrelService/rest/bu/BU1/lists",
                                         httplib::Headers{{"Authorization", "BEARER " + token}});
            if (!slow || slow->status != 200) {
                ++blocked;
            }
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(created, kClients * kEach);
    EXPECT_EQ(blocked, 0);
    EXPECT_EQ(json({"guests", "--tenant", "BU1"}).size(),
              static_cast<std::size_t>(kClients * kEach));
}
