#include <gmock/gmock.h>
#include <unistd.h>
#include <zmq.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <future>
#include <thread>

#include "LinkDevice.h"
#include "NodeLink/LinkKeys.h"
#include "NodeLink/LinkLoop.h"
#include "ZMessages/ZJSONCommStream.h"
#include "ZNodePeer.h"

namespace {

using Message = std::shared_ptr<ZMessage>;
constexpr auto kDevice = ZEndpointType::DeviceRequest;
constexpr auto kService = ZEndpointType::GraphService;

Message WriteOf(const std::string& data) {
    const auto write = Z_MAKE(ZFileWriteMsg);
    write->m_FilePath = "a.pkg";
    write->m_Data = ToZString(data);
    return write;
}

std::string TextOf(const Message& answer) {
    const auto response = cast_shared<ZGenericResponseMsg>(answer);
    return response ? (response->m_bSuccess ? "ok: " : "no: ") + ToStdString(response->m_ErrorText) : "no answer";
}

/// Answers a file message with how much it carries, and what it begins and ends with.
Message Weighed(const Message& message) {
    const auto answer = Z_MAKE(ZGenericResponseMsg);
    const auto write = cast_shared<ZFileWriteMsg>(message);
    const std::string data = write ? ToStdString(write->m_Data) : "";
    answer->m_ErrorText =
        ToZString(std::to_string(data.size()) + data.substr(0, 1) + (data.empty() ? "" : std::string(1, data.back())));
    return answer;
}

/// Expects this process to have as many threads and descriptors at its end as at its beginning.
class NothingLeftBehind {
public:
    ~NothingLeftBehind() {
        EXPECT_TRUE(WaitUntil([this] { return Held() == m_held; })) << Held().first << ' ' << Held().second;
    }

private:
    using Counts = std::pair<std::ptrdiff_t, std::ptrdiff_t>;
    static Counts Held() {
        const auto count = [](const char* folder) {
            return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
        };
        return {count("/proc/self/task"), count("/proc/self/fd")};
    }
    static Counts HeldByNow() {
        pid_t id = 0;
        std::thread([&id] {
            id = ::gettid();
        }).join();  // with the first one a checker starts one of its own, which stays
        // One that was joined may be listed for a moment yet.
        WaitUntil([&id] { return !std::filesystem::exists("/proc/self/task/" + std::to_string(id)); });
        return Held();
    }
    const Counts m_held = HeldByNow();
};

class Link : public testing::Test {
protected:
    const NothingLeftBehind m_nothing{};
    const int m_port = FreePort();
    LogCapture m_log;
    LinkDevice m_cart{"CT-1", DEVICE_CART, m_port, {"3:checkCompatibility"}};
    LinkDevice m_palm{"PM-1", DEVICE_PALM, 0, {"2:upload"}};
};

TEST_F(Link, OnlyPinnedDevicesGetInAndAnAccessoryAsksWhetherItFits) {
    m_cart.Probe().Listen(kService, "checkCompatibility", [](const Message& request) {
        const auto verdict = cast_shared<ZDeviceCompatibilityMsg>(request);
        verdict->m_bCompatible = verdict->m_Version == "3.044" && verdict->m_Board == "verdin-imx8mm";
        verdict->m_TargetVersion = "3.046";
        return verdict;
    });
    EXPECT_EQ("", m_palm.Pair(m_cart.Key(), m_port));
    ASSERT_TRUE(WaitUntil([&] { return m_cart.Peer(m_palm.Key()) != nullptr; })) << m_log.All();
    EXPECT_FALSE(m_cart.Peer(m_palm.Key())->m_bPinned) << "a refused key is shown, so that it can be pinned";
    EXPECT_TRUE(m_log.WaitFor(3, "nobody pinned its key " + m_palm.Key()));
    EXPECT_FALSE(m_palm.IsConnectedTo(m_cart.Key()));

    Join(m_cart, m_port, m_palm);
    ASSERT_TRUE(WaitUntil([&] { return m_palm.Peer(m_cart.Key())->m_TargetVersion == "3.046"; })) << m_log.All();
    EXPECT_TRUE(m_palm.Peer(m_cart.Key())->m_bCompatible);
    const auto palm = m_cart.Peer(m_palm.Key());
    EXPECT_EQ("PM-1", palm->m_SerialNumber);
    EXPECT_EQ("3.044", palm->m_Version);
    EXPECT_EQ(DEVICE_PALM, palm->m_DeviceType);

    EXPECT_EQ("", m_cart.Pair(m_palm.Key(), 0, true));
    ASSERT_TRUE(WaitUntil([&] { return !m_palm.IsConnectedTo(m_cart.Key()); }));
    EXPECT_EQ("no: Device KiteQM-PM-1 is not connected", TextOf(m_cart.Forward("PM-1", "upload", WriteOf("x"))));
}

TEST_F(Link, AVersionThatIsLongerThanAnyIsNotKept) {
    m_cart.Probe().Listen(kService, "checkCompatibility", [](const Message& request) {
        const auto verdict = cast_shared<ZDeviceCompatibilityMsg>(request);
        verdict->m_bCompatible = true;
        verdict->m_TargetVersion = ZString(std::size_t{1} << 20U, '9');
        return verdict;
    });
    Join(m_cart, m_port, m_palm);
    ASSERT_TRUE(WaitUntil([&] { return m_palm.Peer(m_cart.Key())->m_bCompatible; })) << m_log.All();
    EXPECT_EQ("", m_palm.Peer(m_cart.Key())->m_TargetVersion);
}

TEST_F(Link, MessagesOfAnySizeArriveWholeAndAnswersComeBack) {
    m_palm.Probe().Listen(kDevice, "upload", Weighed);
    m_palm.Probe().Listen(kDevice, "secret", Weighed);
    Join(m_cart, m_port, m_palm);
    for (const std::size_t size : {0U, 1U, 16383U, 16384U, 65535U, 65536U, 65537U, 131072U, 1035600U}) {
        std::string data(size, 'm');
        if (size > 0) {
            data.front() = 'a';
            data.back() = 'z';
        }
        const auto ends = size == 0 ? "" : size == 1 ? "zz" : "az";
        EXPECT_EQ("ok: " + std::to_string(size) + ends, TextOf(m_cart.Forward("PM-1", "upload", WriteOf(data))));
    }
    for (const auto& [serial, keyword, said] :
         {std::tuple{"PM-1", "secret", "no: 2:secret is not open to other devices"},
          std::tuple{"PM-2", "upload", "no: Device KiteQM-PM-2 is not connected"}}) {
        EXPECT_EQ(said, TextOf(m_cart.Forward(serial, keyword, WriteOf("x"))));
    }
    EXPECT_EQ(9 + 2, m_palm.Probe().Received().size()) << "the nine sizes, and what the link itself asked";
}

TEST_F(Link, ADeviceThatGoesAwayFailsWhatWaitsForItAndComesBackByItself) {
    std::promise<void> asked;
    m_palm.Probe().Listen(kDevice, "upload", [&asked](const Message&) {
        asked.set_value();
        return nullptr;
    });
    Join(m_cart, m_port, m_palm);
    auto answer =
        std::async(std::launch::async, [&] { return TextOf(m_cart.Forward("PM-1", "upload", WriteOf("x"))); });
    asked.get_future().wait();
    m_palm.Stop();
    EXPECT_EQ("no: The connection to the device was lost", answer.get());

    m_palm.Start();  // with the key and the pins that it has on its disk
    m_palm.Probe().Listen(kDevice, "upload", Weighed);
    ASSERT_TRUE(WaitUntil([&] { return m_cart.IsConnectedTo(m_palm.Key()); })) << m_log.All();
    ASSERT_TRUE(WaitUntil([&] { return m_palm.IsConnectedTo(m_cart.Key()); })) << m_log.All();
    const LogCapture since;
    m_cart.Stop();
    ASSERT_TRUE(since.WaitFor(3, "Device KiteQM-CT-1 is gone")) << since.All();
    m_cart.Start();
    ASSERT_TRUE(WaitUntil([&] { return m_cart.IsConnectedTo(m_palm.Key()); })) << m_log.All();
    EXPECT_EQ("ok: 1zz", TextOf(m_cart.Forward("PM-1", "upload", WriteOf("z"))));
}

TEST_F(Link, ADeviceThatNeverAnswersFailsOnlyTheRequest) {
    // Shared: the palm's thread has only the link in common with this one, and the checker does not know the link.
    const auto answers = std::make_shared<std::atomic_bool>(false);
    m_palm.Probe().Listen(kDevice, "upload",
                          [answers](const Message& message) { return *answers ? Weighed(message) : nullptr; });
    m_cart.Stop();
    m_cart.Start(5);
    Join(m_cart, m_port, m_palm);
    EXPECT_EQ("no: The device did not answer in time", TextOf(m_cart.Forward("PM-1", "upload", WriteOf("x"))));
    *answers = true;
    EXPECT_EQ("ok: 1zz", TextOf(m_cart.Forward("PM-1", "upload", WriteOf("z"))));
}

TEST(TwoLinks, ThatCallEachOtherSettleOnOneConnection) {
    const NothingLeftBehind nothing{};
    const LogCapture log;
    const int ports[]{FreePort(), FreePort()};
    LinkDevice a("A", DEVICE_CART, ports[0], {"2:upload"});
    LinkDevice b("B", DEVICE_PALM, ports[1], {"2:upload"});
    for (LinkDevice* device : {&a, &b}) {
        device->Probe().Listen(kDevice, "upload", Weighed);
    }
    const auto talk = [&](int wanted) {
        int inARow = 0;
        return WaitUntil([&] {
            const bool both = TextOf(a.Forward("B", "upload", WriteOf("z"))) == "ok: 1zz" &&
                              TextOf(b.Forward("A", "upload", WriteOf("z"))) == "ok: 1zz";
            return (inARow = both ? inARow + 1 : 0) >= wanted;
        });
    };
    ASSERT_EQ("", a.Pair(b.Key(), ports[1]));
    ASSERT_EQ("", b.Pair(a.Key(), ports[0]));
    EXPECT_TRUE(talk(50)) << log.All();
    // Whichever call counts, its caller's going and coming back is noticed by both.
    for (LinkDevice* device : {&a, &b}) {
        device->Stop();
        device->Start();
        device->Probe().Listen(kDevice, "upload", Weighed);
        EXPECT_TRUE(talk(50)) << log.All();
    }
    // And the call that does not count takes over when the other is no longer made.
    ASSERT_EQ("", a.Pair(b.Key()));
    EXPECT_TRUE(talk(50)) << log.All();
    ASSERT_EQ("", a.Pair(b.Key(), ports[1]));
    ASSERT_EQ("", b.Pair(a.Key()));
    EXPECT_TRUE(talk(50)) << log.All();
}

TEST_F(Link, ManyAtOnceAreAllAnswered) {
    m_palm.Probe().Listen(kDevice, "upload", Weighed);
    Join(m_cart, m_port, m_palm);
    std::vector<std::future<std::string>> answers;
    for (int index = 0; index < 100; ++index) {
        answers.push_back(std::async(std::launch::async, [&, index] {
            const auto size = static_cast<std::size_t>(1000 + index * 1000);
            return TextOf(m_cart.Forward("PM-1", "upload", WriteOf(std::string(size, 'z'))));
        }));
    }
    int answered = 0;
    for (auto& answer : answers) {
        answered += answer.get().starts_with("ok: ") ? 1 : 0;
    }
    EXPECT_EQ(100, answered) << m_log.All();
}

/// A device that was made of the protocol's own library.
class ForeignDevice {
public:
    explicit ForeignDevice(int kind) : m_socket(::zmq_socket(m_context, kind)) {
        ::zmq_curve_keypair(m_public.data(), m_secret.data());
        ::zmq_setsockopt(m_socket, ZMQ_CURVE_SECRETKEY, m_secret.data(), 40);
    }
    ~ForeignDevice() {
        ::zmq_close(m_socket);
        ::zmq_ctx_term(m_context);
    }
    ForeignDevice(const ForeignDevice&) = delete;
    ForeignDevice& operator=(const ForeignDevice&) = delete;
    std::string Key() const {
        LinkKeyBytes key{};
        ::zmq_z85_decode(key.data(), m_public.data());
        return LinkKeyText(key);
    }
    void Say(const std::vector<std::string>& frames) {
        for (std::size_t index = 0; index < frames.size(); ++index) {
            ::zmq_send(m_socket, frames[index].data(), frames[index].size(),
                       index + 1 < frames.size() ? ZMQ_SNDMORE : 0);
        }
    }

protected:
    std::array<char, 41> m_public{};
    std::array<char, 41> m_secret{};
    void* const m_context = ::zmq_ctx_new();
    void* const m_socket;
};

/// One whose key is known and that speaks the protocol of the transport, but not this one.
class Stranger : public ForeignDevice {
public:
    Stranger() : ForeignDevice(ZMQ_DEALER) {}
    void Connect(const std::string& serverKey, int port) {
        const int linger = 0;
        ::zmq_setsockopt(m_socket, ZMQ_LINGER, &linger, sizeof linger);
        const LinkKeyBytes server = *LinkKeyFrom(serverKey);
        ::zmq_setsockopt(m_socket, ZMQ_CURVE_SERVERKEY, server.data(), server.size());
        ::zmq_setsockopt(m_socket, ZMQ_CURVE_PUBLICKEY, m_public.data(), 40);
        ::zmq_connect(m_socket, ("tcp://127.0.0.1:" + std::to_string(port)).c_str());
    }
};

TEST_F(Link, RubbishIsDroppedWithALineThatNamesItsSender) {
    m_palm.Probe().Listen(kDevice, "upload", Weighed);
    Stranger stranger;
    ASSERT_EQ("", m_cart.Pair(stranger.Key()));
    Join(m_cart, m_port, m_palm);
    stranger.Connect(m_cart.Key(), m_port);
    const std::string hello = R"({"kind":"Hello"})";
    const std::string request = R"({"kind":"Request","request":1,"endpointType":3,"keyword":"checkCompatibility"})";
    const std::vector<std::pair<std::vector<std::string>, std::string>> table{
        {{""}, "The text is empty"},
        {{"rubbish"}, "is not whole JSON"},
        {{R"({"kind":"Nothing"})"}, "\"kind\" is not"},
        {{request}, "has not introduced itself"},
        {{hello, R"({"className":"ZNoSuchMsg"})"}, "the name of a message class"},
        {{hello, R"({"className":"ZPeerMsg"})", std::string(65536, 'x')}, "has no end"},
        {{hello, R"({"className":"ZPeerMsg","serialNumber@":7})"}, "among those that came"},
        {{hello, R"({"className":"ZPeerMsg","serialNumber@":0,"version@":0})", std::string(65535, 'x')},
         "\"version\" is not a text of its own"},
    };
    for (const auto& [frames, said] : table) {
        stranger.Say(frames);
        EXPECT_TRUE(WaitUntil([&, &said = said] {
            return std::ranges::any_of(m_log.Lines(), [&](const LogCapture::Line& line) {
                return line.text.find(said) != std::string::npos && line.text.find(stranger.Key()) != std::string::npos;
            });
        })) << said
            << '\n'
            << m_log.All();
    }
    stranger.Say({hello, R"({"className":"ZGenericRequestMsg"})"});  // introduces itself as nothing in particular
    stranger.Say({request, R"({"className":"ZPairMsg"})"});
    EXPECT_TRUE(m_log.WaitFor(3, "3:checkCompatibility is nobody's")) << m_log.All();
    EXPECT_EQ("ok: 1zz", TextOf(m_cart.Forward("PM-1", "upload", WriteOf("z"))));
}

TEST_F(Link, ADeviceWhosePinIsTakenAwayBeforeItIntroducesItselfStaysOut) {
    Stranger stranger;
    ASSERT_EQ("", m_cart.Pair(stranger.Key()));
    stranger.Connect(m_cart.Key(), m_port);
    stranger.Say({"rubbish"});
    ASSERT_TRUE(WaitUntil([&] { return m_log.All().find("is not whole JSON") != std::string::npos; }))
        << "it is let in";
    ASSERT_EQ("", m_cart.Pair(stranger.Key(), 0, true));
    Join(m_cart, m_port, m_palm);  // its pin came after the removal: the link's thread has both now
    stranger.Say({R"({"kind":"Hello"})", R"({"className":"ZPeerMsg"})"});
    EXPECT_TRUE(WaitUntil([&] {
        return m_log.All().find("nobody pinned its key " + stranger.Key()) != std::string::npos;
    })) << m_log.All();
    EXPECT_FALSE(m_cart.IsConnectedTo(stranger.Key()));
}

TEST_F(Link, BadPairingsAreRefusedAndNameWhatIsWrong) {
    const std::string key = m_palm.Key();
    EXPECT_THAT(m_cart.Pair("short"), testing::HasSubstr("\"short\" is no public key"));
    EXPECT_THAT(m_cart.Pair(std::string(10'000, 'x')), testing::HasSubstr("is no public key"));
    EXPECT_THAT(m_cart.Pair(m_cart.Key()), testing::HasSubstr("own key"));
    EXPECT_THAT(m_cart.Pair(key, 0, true), testing::HasSubstr("is not pinned"));
    EXPECT_EQ("", m_cart.Pair(key));
}

TEST(LinkSettings, AreRefusedByNameWhenTheyCanNotBeUsed) {
    const TemporaryFolder folder;
    const std::string key = (folder / "key.json").string();
    const std::string pins = folder.Write("pins.json", R"({"peers":[{"publicKey":"none"}]})").string();
    const std::pair<std::string, std::string> rows[]{
        {"", R"("keyFile" is ""; it must be an absolute path whose variables are set)"},
        {R"("keyFile":"/tmp/a","pinsFile":"b")", R"("pinsFile" is "b"; it must be an absolute path)"},
        {R"("listen":"udp://*:1")", R"("listen" is "udp://*:1"; it must be an address such as tcp://*:5700)"},
        {R"("exports":["2:upload","upload"])", R"("exports" is "upload"; it must be a type and keyword)"},
        {R"("heartbeatMilliseconds":99)", R"("heartbeatMilliseconds" is 99; it must be a number from 100 to 60000)"},
        {R"("keyFile":")" + pins + R"(","pinsFile":"/b")", R"("keyFile": )" + pins},
        {R"("keyFile":")" + key + R"(","pinsFile":")" + pins + '"', R"("pinsFile": )" + pins},
    };
    for (const auto& [settings, said] : rows) {
        const LogCapture log;
        ZGraph graph(ZMakeShared<ZCoreConfigParams>());
        const auto record = ZMakeShared<ZNodePeerCfg>();
        ZJSONCommStream stream;
        ASSERT_TRUE(record->Load(std::string_view("{" + settings + "}"), stream)) << stream.Error();
        EXPECT_FALSE(graph.AddNode(ZNodePeer::kClassName, "Peer", record)) << settings;
        EXPECT_THAT(log.All(), testing::HasSubstr("Peer can't be set up: " + said)) << settings;
    }
}

/// What a link reports to when the system has nothing left for it.
class Exhausted : public LinkEvents {
public:
    ZResult<void> OnIntroduced(const std::string&, const Message&) override { return {}; }
    void OnArrived(const std::string&) override {}
    void OnGone(const std::string&) override {}
    void OnRefused(const std::string&) override {}
    void OnMessage(const std::string&, LinkMessage) override {}
    ZClock::time_point OnTime(ZClock::time_point) override { throw std::bad_alloc(); }
};

TEST(LinkLoop, StopsThoughItCanDoNothing) {
    const NothingLeftBehind nothing{};
    const LogCapture log;
    Exhausted events;
    LinkLoop loop({}, Z_MAKE(ZPeerMsg), events);
    ASSERT_TRUE(loop.Start());
    EXPECT_TRUE(log.WaitFor(4, "The link failed and is set up again: std::bad_alloc"));
    loop.Stop();
}

/// One that listens.
class ForeignListener : public ForeignDevice {
public:
    explicit ForeignListener(int port) : ForeignDevice(ZMQ_ROUTER) {
        const int on = 1;
        const int patience = 30'000;
        ::zmq_setsockopt(m_socket, ZMQ_CURVE_SERVER, &on, sizeof on);
        ::zmq_setsockopt(m_socket, ZMQ_RCVTIMEO, &patience, sizeof patience);
        // It probes as well, so that answers to probes are proved.
        ::zmq_setsockopt(m_socket, ZMQ_HEARTBEAT_IVL, &m_heartbeat, sizeof m_heartbeat);
        ::zmq_bind(m_socket, ("tcp://127.0.0.1:" + std::to_string(port)).c_str());
    }
    /// A message's frames; the first is the sender's number.
    std::vector<std::string> Take() {
        std::vector<std::string> frames;
        int more = 1;
        for (std::size_t size = sizeof more; more != 0; ::zmq_getsockopt(m_socket, ZMQ_RCVMORE, &more, &size)) {
            std::string frame(200'000, '\0');
            const int length = ::zmq_recv(m_socket, frame.data(), frame.size(), 0);
            frames.push_back(frame.substr(0, length < 0 ? 0 : static_cast<std::size_t>(length)));
        }
        return frames;
    }

private:
    const int m_heartbeat = 50;
};

TEST_F(Link, ADeviceOfAnotherMakeIsTalkedToAsWell) {
    const int port = FreePort();
    ForeignListener foreign(port);
    ASSERT_EQ("", m_palm.Pair(foreign.Key(), port));
    const auto hello = foreign.Take();
    ASSERT_EQ(3U, hello.size()) << m_log.All();
    EXPECT_THAT(hello[2], testing::HasSubstr("PM-1"));
    foreign.Say({hello[0], R"({"kind":"Hello"})",
                 R"({"className":"ZPeerMsg","deviceType":"DEVICE_PALM","serialNumber":"F-1"})"});
    ASSERT_TRUE(WaitUntil([&] { return m_palm.IsConnectedTo(foreign.Key()); })) << m_log.All();
    const std::string data(150'000, 'd');
    auto answer =
        std::async(std::launch::async, [&] { return TextOf(m_palm.Forward("F-1", "upload", WriteOf(data))); });
    const auto request = foreign.Take();
    ASSERT_EQ(3U + 3U, request.size());
    EXPECT_EQ(data, request[3] + request[4] + request[5]);
    const std::string number = request[1].substr(request[1].find("\"request\":") + 10);
    foreign.Say({hello[0], R"({"kind":"Answer","request":)" + number.substr(0, number.find_first_of(",}")) + "}",
                 R"({"className":"ZGenericResponseMsg","bSuccess":true,"text":"taken"})"});
    EXPECT_THAT(answer.get(), testing::HasSubstr("taken"));
}

}  // namespace
