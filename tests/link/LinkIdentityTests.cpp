// Who a device is: its keys, its pin and its serial number, and the files that keep them.
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <csignal>
#include <fstream>

#include "LinkDevice.h"
#include "NodeLink/LinkKeys.h"

namespace {

/// No file of this process may grow beyond a few bytes, as on a full disk, while it lives.
class NoRoomForFiles {
public:
    NoRoomForFiles() {
        ::getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit little{16, m_before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &little);
    }
    ~NoRoomForFiles() {
        ::setrlimit(RLIMIT_FSIZE, &m_before);
        std::signal(SIGXFSZ, m_handler);
    }

private:
    void (*m_handler)(int) = std::signal(SIGXFSZ, SIG_IGN);
    rlimit m_before{};
};

TEST(LinkKeys, AreMadeOnceThereIsRoomForThem) {
    const TemporaryFolder folder;
    {
        const NoRoomForFiles full;
        const auto failed = LoadOrMakeLinkKeys(folder / "key.json");
        ASSERT_FALSE(failed);
        EXPECT_EQ(failed.error().text, (folder / "key.json").string() + " could not be written: File too large");
    }
    EXPECT_TRUE(std::filesystem::is_empty(folder.Path())) << "half a file is left";
    folder.Write("key.json.new", "what a loss of power left");
    const auto made = LoadOrMakeLinkKeys(folder / "key.json");
    ASSERT_TRUE(made) << made.error().text;
    EXPECT_EQ(LoadOrMakeLinkKeys(folder / "key.json")->secretKey, made->secretKey);
    EXPECT_FALSE(std::filesystem::exists(folder / "key.json.new"));
}

TEST(LinkKeys, OfADamagedFileAreRefusedWithItsName) {
    const TemporaryFolder folder;
    ASSERT_TRUE(LoadOrMakeLinkKeys(folder / "whole.json"));
    const std::string whole = ReadText(folder / "whole.json");
    for (const std::string& text : {std::string(), whole.substr(0, 100), std::string("{}"), std::string(64, '\0')}) {
        const auto file = folder.Write("key.json", text, 0600);
        const auto keys = LoadOrMakeLinkKeys(file);
        ASSERT_FALSE(keys) << text;
        EXPECT_THAT(keys.error().text, testing::StartsWith(file.string() + ": "));
        EXPECT_EQ(text, ReadText(file)) << "it may yet be mended by hand";
    }
}

TEST(LinkKeys, ThatOthersThanTheirOwnerMayUseAreRefused) {
    const TemporaryFolder folder;
    const auto file = folder / "key.json";
    ASSERT_TRUE(LoadOrMakeLinkKeys(file));
    for (const auto open : {std::filesystem::perms::group_read, std::filesystem::perms::others_write}) {
        std::filesystem::permissions(file, std::filesystem::perms::owner_read | open);
        const auto keys = LoadOrMakeLinkKeys(file);
        ASSERT_FALSE(keys);
        EXPECT_THAT(keys.error().text, testing::StartsWith(file.string() + ": others than its owner may use it"));
    }
    std::filesystem::permissions(file, std::filesystem::perms::owner_read);
    EXPECT_TRUE(LoadOrMakeLinkKeys(file));
}

class Identity : public testing::Test {
protected:
    const int m_port = FreePort();
    LogCapture m_log;
    LinkDevice m_cart{"CT-1", DEVICE_CART, m_port};
    LinkDevice m_palm{"PM-1", DEVICE_PALM, 0};
};

TEST_F(Identity, APairingThatCanNotBeKeptIsAnsweredAsAFailure) {
    const std::string key = m_palm.Key();
    {
        const NoRoomForFiles full;
        EXPECT_THAT(m_cart.Pair(key), testing::HasSubstr("could not be written"));
    }
    EXPECT_EQ(nullptr, m_cart.Peer(key));
    EXPECT_EQ("", m_cart.Pair(key));
}

TEST_F(Identity, ASerialNumberBelongsToTheKeyThatSaidItFirst) {
    Join(m_cart, m_port, m_palm);
    ASSERT_TRUE(WaitUntil([&] { return ReadText(m_cart.PinsFile()).find("PM-1") != std::string::npos; }));
    m_palm.Stop();
    ASSERT_TRUE(m_log.WaitFor(3, "Device KiteQM-PM-1 is gone"));
    m_cart.Stop();
    m_cart.Start();
    EXPECT_EQ("PM-1", m_cart.Peer(m_palm.KnownKey())->m_SerialNumber) << "known before it comes";

    LinkDevice thief("PM-1", DEVICE_PALM, 0);
    ASSERT_EQ("", m_cart.Pair(thief.Key()));
    ASSERT_EQ("", thief.Pair(m_cart.Key(), m_port));
    const std::string said = "which is that of " + m_palm.KnownKey().substr(0, 8);
    EXPECT_TRUE(WaitUntil([&] { return m_log.All().find(said) != std::string::npos; })) << m_log.All();
    m_palm.Start();
    ASSERT_TRUE(WaitUntil([&] { return m_cart.IsConnectedTo(m_palm.KnownKey()); })) << m_log.All();
    EXPECT_FALSE(m_cart.IsConnectedTo(thief.Key()));
    EXPECT_EQ(m_log.All().find(said), m_log.All().rfind(said)) << "told once";
}

TEST_F(Identity, AKeyThatComesWithAnotherSerialNumberIsRefusedUntilItIsPairedAgain) {
    Join(m_cart, m_port, m_palm);
    m_palm.Stop();
    m_palm.SetSerialNumber("PM-2");
    m_palm.Start();
    EXPECT_TRUE(m_log.WaitFor(3, "it says that its serial number is PM-2, and was paired as PM-1")) << m_log.All();
    EXPECT_FALSE(m_cart.IsConnectedTo(m_palm.Key()));
    ASSERT_EQ("", m_cart.Pair(m_palm.Key()));
    EXPECT_FALSE(m_cart.IsConnectedTo(m_palm.Key())) << "pairing again changes name and address only";
    ASSERT_EQ("", m_cart.Pair(m_palm.Key(), 0, true));
    ASSERT_EQ("", m_cart.Pair(m_palm.Key()));
    EXPECT_TRUE(WaitUntil([&] { return m_cart.IsConnectedTo(m_palm.Key()); })) << m_log.All();
}

TEST_F(Identity, APinWithoutASerialNumberIsCompletedByTheFirstIntroduction) {
    Join(m_cart, m_port, m_palm);
    m_cart.Stop();
    std::ofstream(m_cart.PinsFile()) << R"({"peers":[{"name":"old","publicKey":")" + m_palm.Key() + R"("}]})";
    m_cart.Start();
    ASSERT_TRUE(WaitUntil([&] { return m_cart.IsConnectedTo(m_palm.Key()); })) << m_log.All();
    EXPECT_TRUE(WaitUntil([&] { return ReadText(m_cart.PinsFile()).find("PM-1") != std::string::npos; }));
}

}  // namespace
