// What a peer can send, byte by byte, and what the link's thread makes of it while it is busy.
#include <gmock/gmock.h>

#include <future>

#include "LinkDevice.h"
#include "NodeLink/LinkLoop.h"

namespace {

constexpr std::size_t kMebi = std::size_t{1} << 20U;

LinkKeyPair MakeKeys() {
    const TemporaryFolder folder;
    return *LoadOrMakeLinkKeys(folder / "key.json");
}

/// A caller and a listener, without a socket between them.
class Wires : public testing::Test {
protected:
    /// Hands `to` what `from` has to send; what it becomes last.
    static LinkWire::News Pass(LinkWire& from, LinkWire& to) { return Feed(std::exchange(from.Output(), {}), to); }
    static LinkWire::News Feed(std::string_view bytes, LinkWire& to) {
        auto last = LinkWire::News::None;
        while (!bytes.empty() && last != LinkWire::News::Failed) {
            const auto room = to.Room();
            const auto count = bytes.copy(room.data(), room.size());
            bytes.remove_prefix(count);
            to.Filled(count);
            for (auto news = to.Next(); news != LinkWire::News::None && last != LinkWire::News::Failed;
                 news = to.Next()) {
                last = news;
                if (news == LinkWire::News::Asks) {
                    to.Admit();
                }
            }
        }
        return last;
    }
    void Open() {
        for (auto news = LinkWire::News::None; news != LinkWire::News::Open; news = Pass(m_listener, m_caller)) {
            ASSERT_NE(LinkWire::News::Failed, Pass(m_caller, m_listener));
        }
    }

    const LinkKeyPair m_callersKeys = MakeKeys();
    const LinkKeyPair m_listenersKeys = MakeKeys();
    LinkWire m_caller{LinkCurve::Side::Caller, m_callersKeys, m_listenersKeys.publicKey};
    LinkWire m_listener{LinkCurve::Side::Listener, m_listenersKeys};
};

TEST_F(Wires, WhatComesAgainOrInAnotherOrderEndsTheConnection) {
    Open();
    EXPECT_EQ(m_callersKeys.publicKey, m_listener.PeerKey());
    m_caller.Put("first", false);
    const std::string first = std::exchange(m_caller.Output(), {});
    m_caller.Put("second", false);
    EXPECT_EQ(LinkWire::News::Message, Pass(m_caller, m_listener));
    EXPECT_EQ("second", m_listener.TakeMessage().at(0).text);
    EXPECT_EQ(LinkWire::News::Failed, Feed(first, m_listener));
}

TEST_F(Wires, ARefusalIsBelievedOnlyOfWhoHasWelcomed) {
    const std::string refusal(
        "\x04\x09\x05\x45RROR\x03"
        "400",
        11);
    LinkWire impostor(LinkCurve::Side::Listener, m_listenersKeys);
    EXPECT_EQ(LinkWire::News::Failed, Feed(std::exchange(impostor.Output(), {}) + refusal, m_caller));
}

TEST_F(Wires, WhoWasRefusedDoesNotGetInAfterAll) {
    LinkCurve caller(LinkCurve::Side::Caller, m_callersKeys, m_listenersKeys.publicKey);
    LinkCurve listener(LinkCurve::Side::Listener, m_listenersKeys, {});
    EXPECT_EQ(std::nullopt, caller.Take("\x05READY")) << "it has not begun";
    const auto welcome = listener.Take(caller.Begin());
    ASSERT_TRUE(welcome);
    const auto initiate = caller.Take(*welcome);
    ASSERT_TRUE(initiate && listener.Take(*initiate));
    ASSERT_EQ(LinkCurve::State::Asks, listener.GetState());
    ASSERT_TRUE(caller.Take(listener.Refuse()));
    EXPECT_EQ(std::nullopt, caller.Take(listener.Admit()));
    EXPECT_EQ(LinkCurve::State::Refused, caller.GetState());
}

TEST_F(Wires, AfterALongFrameNotMoreIsReadAtOnceThanBefore) {
    Open();
    const std::size_t usual = m_listener.Room().size();
    m_caller.Put(std::string(2 * kMebi - 100, 'x'), false);
    m_caller.Put("", false);
    m_caller.Output().resize(m_caller.Output().size() - 1);  // so that it always has something to wait for
    EXPECT_EQ(LinkWire::News::Message, Pass(m_caller, m_listener));
    EXPECT_EQ(usual, m_listener.Room().size());
}

LinkFrame FrameOf(const std::string& text) {
    const auto owner = std::make_shared<const std::string>(text);
    return {owner, *owner};
}

/// A message whose document lists that many devices, each described by `each`.
LinkFrames ListOf(std::size_t count, const std::function<std::string(std::size_t)>& each) {
    std::string document = R"({"className":"ZPeersMsg","peers":[)";
    for (std::size_t index = 0; index < count; ++index) {
        document += (index == 0 ? "" : ",") + each(index);
    }
    return {FrameOf(R"({"kind":"Request"})"), FrameOf(document + "]}")};
}

TEST(LinkMessages, TakeUpAboutAsMuchAsTheyCount) {
    const auto nothing = [](std::size_t) { return "{}"; };
    const auto small = DecodeLinkMessage(ListOf(1000, nothing));
    ASSERT_TRUE(small) << small.error().text;
    EXPECT_GT(small->size, 1000 * sizeof(ZPeerMsg));
    const auto large = DecodeLinkMessage(ListOf(600'000, nothing));
    ASSERT_FALSE(large);
    EXPECT_EQ("it holds too many values", large.error().text);

    auto frames = ListOf(1000, [](std::size_t index) { return R"({"name@":)" + std::to_string(index) + "}"; });
    frames.insert(frames.end(), 1000, FrameOf("x"));
    const auto texts = DecodeLinkMessage(std::move(frames));
    ASSERT_TRUE(texts) << texts.error().text;
    const auto peers = cast_shared<ZPeersMsg>(texts->message);
    EXPECT_EQ("x", peers->m_Peers.at(999)->m_Name);
    EXPECT_LT(peers->m_Peers.at(999)->m_Name.capacity(), 100U) << "room for a long text";

    const std::string keyword(100'000, 'k');
    EXPECT_FALSE(DecodeLinkMessage({FrameOf(R"({"kind":"Request","keyword":")" + keyword + "\"}")}));
}

/// A link without a graph. Its thread stays in a message until Free is called.
class BareLink : public LinkEvents {
public:
    explicit BareLink(int port = 0) : m_listens(port == 0 ? "" : "tcp://127.0.0.1:" + std::to_string(port)) {
        EXPECT_TRUE(m_loop.Start());
    }
    ~BareLink() override {
        Free();
        m_loop.Stop();
    }
    BareLink(const BareLink&) = delete;
    BareLink& operator=(const BareLink&) = delete;

    ZResult<void> OnIntroduced(const std::string& /*key*/, const std::shared_ptr<ZMessage>& /*message*/) override {
        return {};
    }
    void OnArrived(const std::string& /*key*/) override { ++m_arrived; }
    void OnGone(const std::string& /*key*/) override { ++m_gone; }
    void OnRefused(const std::string& /*key*/) override {}
    void OnMessage(const std::string& /*key*/, LinkMessage /*message*/) override {
        m_busy = true;
        m_freed.wait();
    }
    ZClock::time_point OnTime(ZClock::time_point now) override { return now + std::chrono::hours(1); }

    ZLinkPin Pin(int port = 0) const {
        return {"a device", m_keys.publicKey, port == 0 ? "" : "tcp://127.0.0.1:" + std::to_string(port), {}};
    }
    bool Send(const BareLink& to, const std::shared_ptr<ZMessage>& message) {
        LinkMessage sent{Z_MAKE(ZLinkHeader), message};
        sent.header->m_Kind = ZLinkKind::Request;
        return m_loop.Send(to.m_keys.publicKey, sent);
    }
    LinkLoop& Loop() { return m_loop; }
    bool IsBusy() const { return m_busy; }
    int Arrived() const { return m_arrived; }
    int Gone() const { return m_gone; }
    void Free() {
        if (!std::exchange(m_isFree, true)) {
            m_free.set_value();
        }
    }

private:
    const LinkKeyPair m_keys = MakeKeys();
    const std::string m_listens;
    std::promise<void> m_free;
    std::shared_future<void> m_freed = m_free.get_future();
    bool m_isFree = false;
    std::atomic_bool m_busy = false;
    std::atomic_int m_arrived = 0;
    std::atomic_int m_gone = 0;
    LinkLoop m_loop{{m_keys, m_listens, std::chrono::seconds(10)}, Z_MAKE(ZPeerMsg), *this};
};

/// Two devices call a third.
class BareLinks : public testing::Test {
protected:
    void SetUp() override {
        m_host.Loop().SetPins({m_first.Pin(), m_second.Pin()});
        for (BareLink* device : {&m_first, &m_second}) {
            device->Loop().SetPins({m_host.Pin(m_port)});
            ASSERT_TRUE(WaitUntil([&] { return device->Arrived() == 1; }));
        }
        ASSERT_TRUE(WaitUntil([&] { return m_host.Arrived() == 2; }));
    }
    void KeepTheHostBusy() {
        ASSERT_TRUE(m_first.Send(m_host, Z_MAKE(ZPeerMsg)));
        ASSERT_TRUE(WaitUntil([&] { return m_host.IsBusy(); }));
    }

    const int m_port = FreePort();
    BareLink m_host{m_port};
    BareLink m_first;
    BareLink m_second;
};

TEST_F(BareLinks, APinThatGoesAndComesAgainEndsTheConnectionHoweverFast) {
    KeepTheHostBusy();
    m_host.Loop().SetPins({m_second.Pin()});
    m_host.Loop().SetPins({m_first.Pin(), m_second.Pin()});
    m_host.Free();
    EXPECT_TRUE(WaitUntil([&] { return m_host.Gone() == 1 && m_host.Arrived() == 3; }));
}

TEST_F(BareLinks, WhatWaitsForOneDeviceKeepsNothingFromAnother) {
    KeepTheHostBusy();
    std::size_t waiting = 0;
    while (waiting < 16 * kMebi / kLinkFrameCost && m_host.Send(m_first, nullptr)) {
        ++waiting;
    }
    EXPECT_LT(waiting, 16 * kMebi / kLinkFrameCost) << "what a message costs beside its bytes is counted";
    EXPECT_TRUE(m_host.Send(m_second, Z_MAKE(ZPeerMsg)));
}

TEST_F(BareLinks, AMessageThatTheOtherSideWouldNotTakeIsNotSent) {
    const auto list = Z_MAKE(ZPeersMsg);
    for (int count = 0; count < 200; ++count) {
        list->m_Peers.push_back(Z_MAKE(ZPeerMsg));
        list->m_Peers.back()->m_Name = ZString(15'000, 'n');
    }
    EXPECT_FALSE(m_first.Send(m_host, list));
}

}  // namespace
