// What people order is written down: who, with what, and what became of it.

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/json.hpp>

#include "GatewayFixture.h"
#include "NodeBase/ZOperation.h"
#include "ZShared/ZUnixAddress.h"

namespace {

using namespace testing;
namespace json = boost::json;

class GatewayOrders : public Gateway {
protected:
    void StartWithJournal() {
        ASSERT_TRUE(Start() && StartJournal()) << error;
        probe->Listen(kClient, "updatesystem", [this](const std::shared_ptr<ZMessage>& request) {
            const auto update = cast_shared<ZSystemUpdateMsg>(request);
            if (update->m_Version.empty()) {
                return Made("ZVersionInfoMsg", R"({"bSuccess":false,"text":"an install is under way"})");
            }
            begun.Exchange(probe->BeginOperation({.kind = ZOperationKind::Install}, request.get()));
            return Made("ZVersionInfoMsg");
        });
        probe->Listen(kClient, "findupdates", [](const auto&) { return Made("ZMessageArray"); });
        probe->Listen(kClient, "forget", [](const auto&) { return Made("ZGenericResponseMsg"); });
    }
    json::array Orders(const std::string& query = "") {
        const Reply reply = Get("/v1/orders" + query);
        EXPECT_EQ(reply.status, 200) << reply.body;
        return json::parse(reply.body).at("orders").as_array();
    }
    /// "keyword what +" or "keyword what -reason", the newest first.
    std::vector<std::string> Told(const std::string& query = "") {
        std::vector<std::string> told;
        for (const auto& order : Orders(query)) {
            const auto text = [&](const char* key) { return std::string(order.at(key).as_string()); };
            told.push_back(text("keyword") + ' ' + text("subject") +
                           (order.at("accepted").as_bool() ? " +" : " -" + text("reason")));
        }
        return told;
    }
    /// A connection that a process of its own made, which has ended meanwhile or waits, under that name.
    std::pair<ZFileDescriptor, pid_t> ConnectedByChild(const char* name, bool ends) {
        ZFileDescriptor connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const auto address = ZUnixAddress::Of(socket.string());
        std::array<int, 2> ready{};
        EXPECT_EQ(::pipe2(ready.data(), O_CLOEXEC), 0);
        const pid_t child = ::fork();
        if (child == 0) {
            ::prctl(PR_SET_NAME, name);
            const int failed = ::connect(connection.Get(), address->Get(), ZUnixAddress::Size());
            static_cast<void>(::write(ready[1], "x", 1));
            if (!ends) {
                ::pause();
            }
            ::_exit(failed == 0 ? 0 : 1);
        }
        const ZFileDescriptor read(ready[0]);
        const ZFileDescriptor write(ready[1]);
        char byte = 0;
        EXPECT_EQ(::read(read.Get(), &byte, 1), 1);
        if (ends) {
            EXPECT_EQ(::waitpid(child, nullptr, 0), child);
        }
        return {std::move(connection), child};
    }
    static void Forget(const ZFileDescriptor& connection, const std::string& file) {
        const std::string text = PostText("/v1/forget", R"({"file":")" + file + "\"}");
        EXPECT_EQ(::send(connection.Get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
        std::array<char, 4096> answer{};
        EXPECT_GT(::recv(connection.Get(), answer.data(), answer.size(), 0), 0);
    }

    ZGuarded<std::shared_ptr<ZOperation>> begun;
};

TEST_F(GatewayOrders, AreWrittenDownWithWhoGaveThemAndWhatBecameOfThem) {
    StartWithJournal();
    const std::string job = Post("/v1/updatesystem", R"({"version":"3.046"})").Text("operationId");
    Post("/v1/updatesystem", R"({"reboot":false})");
    Post("/v1/newFile", R"({"folder":"/tmp","fileName":"evil.pkg"})");
    Post("/v1/scan", R"({"path":"/etc/passwd"})");
    Post("/v1/transfer", R"({"version":"3.\n046"})");
    Post("/v1/pair", R"({"publicKey":7})");
    Post("/v1/findupdates", "{}");  // a question is no order
    EXPECT_THAT(Told(),
                ElementsAre(StartsWith("pair  -"), R"(transfer 3.\n046 -No node of this graph serves "transfer")",
                            StartsWith("scan /etc/passwd -/etc/passwd is neither"),
                            StartsWith(R"(newFile /tmp evil.pkg -"newFile" is a message between nodes)"),
                            "updatesystem  -an install is under way", "updatesystem 3.046 reboot +"));
    const json::array orders = Orders();
    ASSERT_EQ(orders.size(), 6U);
    const json::value& first = orders.back();
    EXPECT_EQ(first.at("operationId").as_string(), job);
    EXPECT_EQ(first.at("userId").as_int64(), ::geteuid());
    EXPECT_EQ(first.at("processId").as_int64(), ::getpid());
    EXPECT_EQ(first.at("program").as_string(), "gateway_tests");
    EXPECT_EQ(first.at("count").as_int64(), 1);
    begun.Copy()->Succeed();
    graph.reset();
    StartWithJournal();
    EXPECT_EQ(Orders(), orders) << "after a restart";
    EXPECT_EQ(Orders("?result=accepted"), json::array{first});
    EXPECT_EQ(Orders("?result=refused&limit=2").size(), 2U);
    EXPECT_EQ(Orders("?user=nosuchuser").size(), 0U);
    EXPECT_EQ(Orders("?user=" + std::to_string(::geteuid())).size(), 6U);
    for (const char* query : {"?limit=1001", "?since=x", "?result=maybe", "?before=x"}) {
        EXPECT_EQ(Get(std::string("/v1/orders") + query).status, 400) << query;
    }
    EXPECT_EQ(Post("/v1/orders", "{}").status, 405);
}

TEST_F(GatewayOrders, AreNotToldForEachPieceOfAFile) {
    StartWithJournal();
    probe->Listen(kDevice, "upload", [](const std::shared_ptr<ZMessage>& step) {
        const auto piece = cast_shared<ZFileWriteMsg>(step);
        return Made("ZGenericResponseMsg",
                    piece && piece->m_Data == "QkFE" ? R"({"bSuccess":false,"text":"no space left"})" : "{}");
    });
    Post("/v1/upload", R"({"className":"ZFileOpenMsg","filePath":"a.pkg"})");
    for (const char* data : {"QQ==", "QQ==", "QkFE"}) {
        Post("/v1/upload", R"({"className":"ZFileWriteMsg","filePath":"a.pkg","data":")" + std::string(data) + "\"}");
    }
    Post("/v1/upload", R"({"className":"ZFileCloseMsg","filePath":"a.pkg"})");
    EXPECT_THAT(Told(), ElementsAre("upload a.pkg -no space left", "upload a.pkg +"));
}

TEST_F(GatewayOrders, NameTheProcessAsItIsOrSayThatItHasGone) {
    StartWithJournal();
    const auto [living, child] = ConnectedByChild("a\n\x1b[2J", false);
    Forget(living, "1");
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    const auto [orphan, gone] = ConnectedByChild("gone", true);
    Forget(orphan, "2");
    const json::array orders = Orders();
    ASSERT_EQ(orders.size(), 2U);
    EXPECT_EQ(orders[1].at("processId").as_int64(), child);
    EXPECT_EQ(orders[1].at("program").as_string(), "a\\n\\x1b[2J");
    EXPECT_EQ(orders[0].at("processId").as_int64(), gone);
    EXPECT_EQ(orders[0].at("program").as_string(), "unknown");
}

TEST_F(GatewayOrders, AreCountedWhenTheSameComesAgain) {
    StartWithJournal();
    for (int count = 0; count < 50; ++count) {
        Post("/v1/getdevices", "{}");
        Post("/v1/forget", R"({"file":"a.pkg"})");
    }
    const auto counts = [&] {
        std::string text;
        for (const auto& order : Orders()) {
            text +=
                std::string(order.at("keyword").as_string()) + ' ' + std::to_string(order.at("count").as_int64()) + ' ';
        }
        return text;
    };
    EXPECT_TRUE(WaitUntil([&] { return counts() == "forget 50 getdevices 50 "; })) << counts();
}

TEST_F(GatewayOrders, ThatAreRefusedFillNothingHoweverTheyDiffer) {
    StartWithJournal();
    Post("/v1/forget", R"({"file":"a.pkg"})");
    for (int count = 0; count < 60; ++count) {
        Post("/v1/scan", R"({"path":"/etc/)" + std::to_string(count) + "\"}");
        Post("/v1/forget", R"({"file":")" + std::to_string(count) + "\"}");
    }
    EXPECT_EQ(Orders("?result=accepted").size(), 61U) << "an order that was obeyed must not hide among refused ones";
    json::array refused;
    EXPECT_TRUE(WaitUntil([&] {
        refused = Orders("?result=refused");
        return refused.front().at("count").as_int64() == 40;
    })) << json::serialize(refused);
    EXPECT_EQ(refused.size(), 21U);
    EXPECT_EQ(refused.front().at("keyword").as_string(), "");
    EXPECT_THAT(refused.front().at("reason").as_string().c_str(), HasSubstr("further orders"));
}

TEST_F(GatewayOrders, AreTakenWithoutAJournalAsEver) {
    ASSERT_TRUE(Start());
    probe->Listen(kClient, "forget", [](const auto&) { return Made("ZGenericResponseMsg"); });
    EXPECT_EQ(Post("/v1/forget", "{}").status, 200);
    EXPECT_EQ(Get("/v1/orders").status, 503);
    EXPECT_THAT(Get("/v1/orders").Text("detail"), HasSubstr("No node of this graph keeps"));
}

}  // namespace
