// Who may do what: groups as the kernel tells them of whoever connects.

#include <grp.h>

#include <numeric>

#include "GatewayFixture.h"
#include "NodeBase/ZOperation.h"

namespace {

using namespace testing;

// Users and groups that every system has.
constexpr uid_t kDaemon = 1;
constexpr const char* kLook = "users";
constexpr const char* kOperate = "games";
constexpr const char* kAdminister = "audio";
constexpr const char* kAllGroups = R"("lookGroup":"users","operateGroup":"games","administerGroup":"audio")";

gid_t Id(const char* group) {
    return ::getgrnam(group)->gr_gid;
}

class GatewayRoles : public GatewayOfUsers {
protected:
    void StartFor(const std::string& groups) {
        ASSERT_TRUE(StartForAll(groups)) << error;
        for (const char* keyword : {"findupdates", "updatesystem"}) {
            probe->Listen(kClient, keyword, [](const auto&) { return Made("ZVersionInfoMsg"); });
        }
        probe->Listen(kService, "pair", [](const auto&) { return Made("ZPeersMsg"); });
        probe->Listen(kService, "cancel");
    }
    Reply SendAs(const Identity& identity, const std::string& method, const std::string& path,
                 const std::string& body = "{}") {
        Reply reply;
        As(identity, [&] { reply = Send(method, path, method == "GET" ? "" : body); });
        return reply;
    }
    /// Which of the roles somebody has: "loa", by what is answered.
    std::string RolesOf(const Identity& identity) {
        std::string roles;
        const auto may = [&](const char* method, const char* path) {
            const int status = SendAs(identity, method, path).status;
            EXPECT_TRUE(status == 200 || status == 403) << path << status;
            return status == 200;
        };
        const bool reads = may("GET", "/v1/log?lines=1");
        EXPECT_EQ(may("HEAD", "/v1/status"), reads);
        EXPECT_EQ(may("POST", "/v1/findupdates"), reads);
        roles += reads ? "l" : "";
        roles += may("POST", "/v1/updatesystem") ? "o" : "";
        roles += may("POST", "/v1/pair") ? "a" : "";
        return roles;
    }
};

TEST_F(GatewayRoles, BelongToGroupsAndIncludeEachOther) {
    const std::tuple<const char*, Identity, const char*> rows[]{
        {"", {}, "loa"},
        {kAllGroups, {}, ""},
        {kAllGroups, {kNobody, {Id(kLook)}}, "l"},
        {kAllGroups, {kNobody, {Id("video"), Id(kOperate)}}, "lo"},
        {kAllGroups, {kNobody, {}, Id(kOperate)}, "lo"},
        {kAllGroups, {kNobody, {Id(kAdminister)}}, "loa"},
        {kAllGroups, {0, {}, 0}, "loa"},
        // Without a group of its own a role belongs to those of the one before it.
        {R"("operateGroup":"games")", {}, "l"},
        {R"("operateGroup":"games")", {kNobody, {Id(kOperate)}}, "loa"},
        {R"("administerGroup":"audio")", {}, "lo"},
        {R"("lookGroup":"users")", {}, ""},
        {R"("lookGroup":"users")", {kNobody, {Id(kLook)}}, "loa"},
        {R"("lookGroup":"users","administerGroup":"audio")", {kNobody, {Id(kLook)}}, "lo"},
    };
    for (const auto& [settings, who, roles] : rows) {
        graph.reset();
        StartFor(settings);
        EXPECT_EQ(RolesOf(who), roles) << settings << " user " << who.user;
    }
}

TEST_F(GatewayRoles, AreTakenWhenSomebodyConnectsOutOfManyGroups) {
    StartFor(kAllGroups);
    std::vector<gid_t> many(300);
    std::iota(many.begin(), many.end(), 100'000);
    EXPECT_EQ(RolesOf({kNobody, many}), "");
    many.push_back(Id(kOperate));
    EXPECT_EQ(RolesOf({kNobody, many}), "lo");
    // What the thread becomes once it has connected does not count.
    std::unique_ptr<RawClient> client;
    As({kNobody, {Id(kLook)}}, [&] { client = std::make_unique<RawClient>(socket, ""); });
    As({kNobody, {Id(kAdminister)}}, [&] {
        client->Send(PostText("/v1/updatesystem", "{}"));
        EXPECT_TRUE(client->WaitFor("\r\n\r\n"));
    });
    EXPECT_TRUE(client->Says("403")) << client->Received();
}

TEST_F(GatewayRoles, AreNamedInARefusalWithTheGroupAndWhoAsked) {
    StartFor(kAllGroups);
    const Identity looker{kNobody, {Id(kLook)}};
    const Reply refused = SendAs(looker, "POST", "/v1/updatesystem");
    EXPECT_EQ(refused.status, 403);
    EXPECT_EQ(refused.type, "application/problem+json");
    EXPECT_EQ(refused.Text("detail"),
              "you (user nobody) are not in the group games, which may install, transfer, upload, scan and check (the "
              "role \"operate\")");
    EXPECT_THAT(SendAs({}, "GET", "/v1/events").Text("detail"),
                HasSubstr("are not in the group users, which may look"));
    EXPECT_THAT(SendAs({4'000'000'000U, {}}, "GET", "/v1/status").Text("detail"), HasSubstr("(user 4000000000)"));
    EXPECT_THAT(SendAs(looker, "POST", "/v1/pair").Text("detail"), HasSubstr("the group audio, which may pair"));
    EXPECT_THAT(log.All(), HasSubstr("user nobody was refused \"updatesystem\""));
    const std::size_t before = log.Lines().size();
    for (int count = 0; count < 20; ++count) {
        SendAs(looker, "POST", "/v1/updatesystem");
    }
    EXPECT_EQ(log.Lines().size(), before) << "the same refusal fills the log";
    EXPECT_THAT(probe->Received(), IsEmpty());
}

TEST_F(GatewayRoles, LetAnOperatorEndJobsOfHisOwnOnly) {
    StartFor(kAllGroups);
    const Identity operating{kNobody, {Id(kOperate)}};
    const std::string nobodyKnows = R"({"id":"0123456789abcdef"})";
    EXPECT_THAT(SendAs(operating, "POST", "/v1/cancel", nobodyKnows).Text("detail"),
                HasSubstr("nobody tells who asked"));
    ASSERT_TRUE(StartJournal());
    const auto begin = [&](const char* asker) {
        return probe->BeginOperation({.kind = ZOperationKind::Install, .asker = asker});
    };
    const auto cancel = [&](const Identity& who, const std::string& id) {
        return SendAs(who, "POST", "/v1/cancel", R"({"id":")" + id + "\"}");
    };
    const auto own = begin("user nobody");
    const auto others = begin("user daemon");
    const auto devices = begin("");
    EXPECT_EQ(cancel(operating, ToStdString(own->Id())).status, 202);
    EXPECT_EQ(cancel({kDaemon, {Id(kOperate)}}, ToStdString(others->Id())).status, 202);
    const Reply refused = cancel(operating, ToStdString(others->Id()));
    EXPECT_EQ(refused.status, 403);
    EXPECT_THAT(refused.Text("detail"), AllOf(HasSubstr("user daemon asked for this job"), HasSubstr("group audio")));
    EXPECT_THAT(cancel(operating, ToStdString(devices->Id())).Text("detail"), HasSubstr("the device itself began"));
    EXPECT_EQ(cancel(operating, ToStdString(own->Id()).substr(0, 8)).status, 403) << "a beginning names nobody's job";
    EXPECT_EQ(cancel(operating, "").status, 403);
    EXPECT_EQ(cancel({kNobody, {Id(kAdminister)}}, ToStdString(others->Id())).status, 202);
    EXPECT_TRUE(probe->WaitForMessages(3));
    EXPECT_EQ(probe->Received().size(), 3U);
    for (const auto& job : {own, others, devices}) {
        job->Succeed();
    }
}

}  // namespace
