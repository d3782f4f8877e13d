// What strangers, and paired devices that mean harm, can make a device do.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <csignal>
#include <fstream>
#include <thread>

#include "LinkDevice.h"
#include "NodeLink/LinkKeys.h"
#include "ZShared/ZFileDescriptor.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryTells = false;  // a checker keeps what was freed
#else
constexpr bool kMemoryTells = true;
#endif
constexpr std::size_t kMebi = std::size_t{1} << 20U;
constexpr std::size_t kMostAboveIdle = 32 * kMebi;

/// How far this process's memory has grown, at its peak, since the object was made.
class MemoryGrowth {
public:
    MemoryGrowth() { std::ofstream("/proc/self/clear_refs") << 5; }  // the peak starts anew
    std::size_t Bytes() const { return kMemoryTells ? Row("VmHWM:") - std::min(m_before, Row("VmHWM:")) : 0; }

private:
    static std::size_t Row(const std::string& name) {
        std::ifstream status("/proc/self/status");
        for (std::string word; status >> word;) {
            std::size_t kibi = 0;
            if (word == name && status >> kibi) {
                return kibi * 1024;
            }
        }
        return 0;
    }
    const std::size_t m_before = Row("VmRSS:");
};

/// Many connections at once, each of which greets as the protocol wants it, announces a long frame and sends it.
class Strangers {
public:
    Strangers(int port, std::size_t count) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        for (std::size_t index = 0; index < count; ++index) {
            ZFileDescriptor one(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
            if (::connect(one.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
                ::fcntl(one.Get(), F_SETFL, O_NONBLOCK);
                static_cast<void>(::send(one.Get(), m_beginning.data(), m_beginning.size(), MSG_NOSIGNAL));
                m_all.push_back(std::move(one));
            }
        }
    }
    /// Sends on every connection what it takes now. Whether all have been cut off.
    bool SendOn() {
        std::erase_if(m_all, [this](const ZFileDescriptor& one) {
            const ssize_t sent = ::send(one.Get(), m_more.data(), m_more.size(), MSG_NOSIGNAL);
            return sent < 0 && errno != EAGAIN;
        });
        return m_all.empty();
    }

private:
    static std::string Beginning() {
        std::string text(64, '\0');
        text[0] = '\xFF';
        text[9] = '\x7F';
        text[10] = 3;
        text.replace(12, 5, "CURVE");
        return text + std::string("\x06\0\0\0\0\0\x1F\xFF\xFF", 9);  // a command of nearly 2 MiB
    }
    const std::string m_beginning = Beginning();
    const std::string m_more = std::string(65536, 'x');
    std::vector<ZFileDescriptor> m_all;
};

/// The program beside this one, as a process of its own.
class Attacker {
public:
    Attacker(int port, const std::string& serverKey, const std::filesystem::path& keyFile, const std::string& what) {
        int ends[2]{};
        EXPECT_EQ(0, ::pipe2(ends, O_CLOEXEC));
        m_output.Reset(ends[0]);
        const ZFileDescriptor output(ends[1]);
        const std::string program = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "link_attacker";
        const std::string portText = std::to_string(port);
        m_process = ::fork();
        if (m_process == 0) {
            ::dup2(output.Get(), STDOUT_FILENO);
            ::execl(program.c_str(), program.c_str(), portText.c_str(), serverKey.c_str(), keyFile.c_str(),
                    what.c_str(), nullptr);
            ::_exit(127);
        }
    }
    ~Attacker() {
        if (m_process > 0) {
            ::kill(m_process, SIGKILL);
            ::waitpid(m_process, nullptr, 0);
        }
    }
    Attacker(const Attacker&) = delete;
    Attacker& operator=(const Attacker&) = delete;

    /// Waits until it was let in.
    bool IsConnected() {
        pollfd entry{m_output.Get(), POLLIN, 0};
        return ::poll(&entry, 1, 30'000) == 1 && (entry.revents & POLLIN) != 0;
    }
    /// Waits until it was cut off.
    bool IsCutOff() {
        int status = -1;
        const bool ended = WaitUntil([&] { return ::waitpid(m_process, &status, WNOHANG) == m_process; });
        m_process = ended ? -1 : m_process;
        return ended && status == 0;
    }

private:
    ZFileDescriptor m_output;
    pid_t m_process = -1;
};

class LinkBounds : public testing::Test {
protected:
    TemporaryFolder m_folder;
    const std::filesystem::path m_attackerKey = m_folder / "attacker.json";
    const int m_port = FreePort();
    LogCapture m_log;
    LinkDevice m_cart{"CT-1", DEVICE_CART, m_port, {"3:checkCompatibility"}};
    LinkDevice m_palm{"PM-1", DEVICE_PALM, 0, {"2:upload"}};
};

TEST_F(LinkBounds, StrangersCostLittleAreToldOfOnceAndKeepNobodyOut) {
    const MemoryGrowth growth;
    Strangers strangers(m_port, 400);
    std::thread joining([this] { Join(m_cart, m_port, m_palm); });
    EXPECT_TRUE(WaitUntil([&] { return strangers.SendOn(); }));
    joining.join();
    EXPECT_LT(growth.Bytes(), kMostAboveIdle);
    const auto told = m_log.Count("127.0.0.1");
    // Each kind once, and once more after the pins have changed; and where the device listens.
    EXPECT_TRUE(told >= 1 && told <= 10) << m_log.All();
}

TEST_F(LinkBounds, APairedDeviceThatNeverEndsAMessageIsCutOffAndToldOfOnce) {
    const auto keys = LoadOrMakeLinkKeys(m_attackerKey);
    ASSERT_TRUE(keys);
    ASSERT_EQ("", m_cart.Pair(keys->publicKey));
    Join(m_cart, m_port, m_palm);
    const MemoryGrowth growth;
    for (int round = 0; round < 3; ++round) {
        Attacker attacker(m_port, m_cart.Key(), m_attackerKey, "endless");
        ASSERT_TRUE(attacker.IsConnected());
        EXPECT_TRUE(attacker.IsCutOff()) << m_log.All();
        EXPECT_LT(growth.Bytes(), kMostAboveIdle);
    }
    EXPECT_EQ(1, m_log.Count("a message is too long")) << m_log.All();
    EXPECT_TRUE(m_cart.IsConnectedTo(m_palm.Key()));
}

TEST_F(LinkBounds, APairedDeviceThatFloodsDoesNotFillTheLog) {
    const auto keys = LoadOrMakeLinkKeys(m_attackerKey);
    ASSERT_TRUE(keys);
    ASSERT_EQ("", m_cart.Pair(keys->publicKey));
    Attacker attacker(m_port, m_cart.Key(), m_attackerKey, "rubbish");
    ASSERT_TRUE(attacker.IsConnected());
    EXPECT_TRUE(WaitUntil([&] { return m_log.Count("is dropped") >= 1; })) << m_log.All();
    Join(m_cart, m_port, m_palm);
    for (int round = 0; round < 50; ++round) {
        EXPECT_TRUE(m_cart.IsConnectedTo(m_palm.Key()));
    }
    EXPECT_EQ(1, m_log.Count("is dropped"));
}

}  // namespace
