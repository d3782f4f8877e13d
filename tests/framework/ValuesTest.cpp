#include <gmock/gmock.h>

#include <boost/json.hpp>

#include "NodeComm/ZNodeComm.h"
#include "TestSupport.h"
#include "ZCoreConfigs/ZCoreConfigParams.h"
#include "ZMessages/Messages.h"
#include "ZMessages/ZJSONCommStream.h"
#include "ZShared/ZLog.h"

namespace {

namespace json = boost::json;
using namespace testing;
using ZShared::ZClassRegistration;
using ZShared::ZFactory;

TEST(Factory, KnowsAKindWhoseBaseIsRegisteredLater) {
    const ZClassRegistration leaf("LateLeaf", "LateBase", nullptr);
    EXPECT_FALSE(leaf.Id().IsKindOf(ZMessage::m_cid));
    const ZClassRegistration base("LateBase", "ZMessage", nullptr);
    for (const auto& kind : {base.Id(), ZMessage::m_cid, ZShared::ZFactoryObject::m_cid, leaf.Id()}) {
        EXPECT_TRUE(leaf.Id().IsKindOf(kind)) << kind.Name();
        EXPECT_FALSE(ZShared::CID().IsKindOf(kind));
    }
    EXPECT_FALSE(base.Id().IsKindOf(leaf.Id()) || leaf.Id().IsKindOf(ZNodeComm::m_cid) || leaf.Id().IsKindOf({}));
}

TEST(Factory, KeepsAClassThatWasRegisteredTwiceUntilBothAreGone) {
    auto first = std::make_unique<ZClassRegistration>("Twice", "ZMessage", ZShared::MakeCreator<BatteryMsg>());
    auto second = std::make_unique<ZClassRegistration>("Twice", "ZMessage", ZShared::MakeCreator<TransferMsg>());
    const ZShared::CID id = first->Id();
    EXPECT_EQ(second->Id(), id);
    EXPECT_TRUE(ZCAST(BatteryMsg, ZFactory::Instance().CreateShared("Twice")));
    first.reset();
    EXPECT_TRUE(ZCAST(TransferMsg, ZFactory::Instance().CreateShared("Twice")));
    second.reset();
    EXPECT_FALSE(ZFactory::Instance().CreateShared("Twice"));
    EXPECT_EQ(ZFactory::Instance().Find("Twice"), id);
}

TEST(Factory, NamesTheClassThatCanNotBeMade) {
    const LogCapture log;
    for (const std::string name : {"NoSuchClass", "ZNodeComm", ""}) {
        EXPECT_FALSE(ZFactory::Instance().make_shared_direct(name, "Place", 7));
        EXPECT_TRUE(log.Has(4, " Place make_shared_direct:7 No class <" + name + "> is registered")) << log.All();
    }
}

void Log(const std::string& text) {
    ZLog::Instance().Log(3, "channel", "File", "Function", 1, "%s", text.c_str());
}

std::vector<std::string> Texts(const ZLogChoice& choice) {
    std::vector<std::string> texts;
    for (const ZLogLine& line : ZLog::Instance().Recent(choice)) {
        texts.emplace_back(line.Text());
    }
    return texts;
}

TEST(Log, LetsNoTextForgeASecondLineAndRemembersTheNewest) {
    const LogCapture log;
    Log("a\nb\tc\r\x1b[2J\x7f \xC3\xBC \xE2\x80\xAE\xFF");
    EXPECT_TRUE(log.Has(3, "channel File Function:1 a\\nb\\tc\\r\\x1b[2J\\x7f \xC3\xBC \\xe2\\x80\\xae\\xff"))
        << log.All();
    for (int line = 0; line < 1005; ++line) {
        Log(std::to_string(line));
    }
    EXPECT_THAT(Texts({.count = 2}), ElementsAre("1003", "1004"));
    EXPECT_THAT(Texts({.count = 5000}), SizeIs(AllOf(Ge(1000U), Le(1100U))));
}

TEST(Log, AnswersToQuestionsDoNotPushOutWhatHappened) {
    Log("it happened");
    const std::uint64_t first = ZLog::Instance().Recent({.count = 1}).back().number;
    for (int question = 0; question < 2000; ++question) {
        const ZAnswerLines answer;
        Log("asked");
    }
    Log("it went on");
    const auto lines = ZLog::Instance().Recent({.count = 1000});
    const auto texts = Texts({});
    EXPECT_EQ(std::ranges::count(texts, "asked"), 100);
    EXPECT_THAT(texts, Contains("it happened"));
    EXPECT_EQ(texts.back(), "it went on");
    EXPECT_EQ(lines.back().number, first + 2001) << "each line has a number of its own";
    EXPECT_TRUE(std::ranges::is_sorted(lines, {}, &ZLogLine::number));
}

TEST(Log, GivesTheLinesOfALevelAndFromATimeOn) {
    ZLog::Instance().Log(4, "A channel", "file", "Function", 1, "bad");
    Log("odd");
    const auto newest = ZLog::Instance().Recent({.count = 2});
    EXPECT_EQ(newest.front().Channel(), "A channel");
    EXPECT_EQ(newest.front().Text(), "bad");
    EXPECT_EQ(newest.front().line, "A channel file Function:1 bad");
    EXPECT_THAT(Texts({.count = 1, .level = 4}), ElementsAre("bad"));
    EXPECT_THAT(Texts({.since = newest.back().time + 3'600'000}), SizeIs(0));
}

std::string Saved(const ZMessage& message) {
    ZJSONCommStream stream;
    std::string text;
    return message.Save(text, stream) ? text : "not saved";
}

/// Another value than a field's first one.
json::value Changed(const ZFieldInfo& field, const ZFieldValue& first) {
    switch (field.type) {
        case ZFieldType::Bool:
            return !std::get<bool>(first);
        case ZFieldType::Integer:
            return std::get<std::int64_t>(first) + 1;
        case ZFieldType::Number:
            return std::get<double>(first) + 1;
        case ZFieldType::Enumeration:
            return 1;  // an enumerator may come as its number
        case ZFieldType::TextList:
            return json::array{"a", "b"};
        case ZFieldType::MessageList: {
            // Only an array of any messages needs to be told their class.
            json::object listed{{"present", true}, {"name", "boot"}, {"type", 1}};
            if (*field.className == '\0') {
                listed["className"] = "BatteryMsg";
            }
            return json::array{std::move(listed)};
        }
        default:
            return "text \"\n\xC3\xBC";
    }
}

TEST(Message, KeepsEveryFieldOnItsWayThroughTextAndCopy) {
    const auto names = ZFactory::Instance().ClassesOf(ZMessage::m_cid);
    EXPECT_GT(names.size(), 40u);
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const auto fresh = ZCAST(ZMessage, ZFactory::Instance().CreateShared(name));
        if (!fresh->IsCloneable()) {
            continue;  // it never leaves its graph
        }
        const json::value first = json::parse(Saved(*fresh));
        json::object changed{{"className", name}};
        fresh->VisitFields([&changed](const ZFieldInfo& field, const ZFieldValue& value) {
            changed[field.key] = Changed(field, value);
        });
        EXPECT_EQ(changed.size(), first.as_object().size()) << "what is shown is what travels";
        ZJSONCommStream stream;
        ASSERT_TRUE(stream.LoadText(json::serialize(changed)));
        const auto read = ZMessage::CreateFrom(stream);
        ASSERT_TRUE(read) << stream.Error();
        const std::string text = Saved(*read);
        const json::value second = json::parse(text);
        for (const auto& [key, value] : second.get_object()) {
            EXPECT_EQ(value == first.at(key), key == "className") << key << " was not read";
        }
        ASSERT_TRUE(stream.LoadText(text) && fresh->Deserialize(stream)) << stream.Error();
        EXPECT_EQ(Saved(*fresh), text);
        const auto copy = ZNodeComm::CloneMessage(read);
        EXPECT_TRUE(copy && copy != read && Saved(*copy) == text);
        if (const auto array = ZCAST(ZMessageArray, read)) {
            ZCAST(BatteryMsg, array->m_Messages[0])->m_PercentRemaining = 50;
            EXPECT_EQ(Saved(*copy), text);
        }
    }
}

TEST(Message, ReadsAValueOrNamesTheKeyThatItIsWrongFor) {
    const std::tuple<const char*, std::string, const char*, bool> cases[]{
        {"TransferMsg", R"("deviceModel":"QMSim")", R"("deviceModel":"QMSim")", true},
        {"TransferMsg", R"("deviceModel":7)", R"("deviceModel":"QMSim")", true},
        {"TransferMsg", R"("deviceModel":-99)", R"("deviceModel":-99)", true},
        {"TransferMsg", R"("deviceModel":"Kite")", "deviceModel", false},
        {"ZDevicePropertiesMsg", R"("deviceType":256)", "deviceType", false},
        {"BatteryMsg", R"("percentRemaining":1.0)", R"("percentRemaining":1})", true},
        {"BatteryMsg", R"("percentRemaining":1.5)", "percentRemaining", false},
        {"BatteryMsg", R"("present":1)", "present", false},
        {"ZFileReadMsg", R"("position":18446744073709551615)", R"("position":18446744073709551615)", true},
        {"ZShutdownMsg", R"("delaySeconds":-1)", "delaySeconds", false},
        {"StorageDevicesMsg", R"("devices":["a",1])", "devices", false},
        {"ZMessageArray", R"("messages":[{"className":"ZNode"}])", "className", false},
        {"ZMessageArray", R"("messages":[{"className":"BatteryMsg","present":3}])", "present", false},
        {"ZSystemManifestMsg", R"("components":[{"className":"BatteryMsg"}])", "components", false},
        {"NoSuchMsg", "\"a\":1", "className", false}};
    for (const auto& [name, members, expected, good] : cases) {
        ZJSONCommStream stream;
        ASSERT_TRUE(stream.LoadText(R"({"className":")" + std::string(name) + "\"," + members + "}"));
        const auto message = ZMessage::CreateFrom(stream);
        ASSERT_EQ(message != nullptr, good) << members;
        EXPECT_THAT(good ? Saved(*message) : stream.ErrorKey(), HasSubstr(expected)) << stream.Error();
    }
}

TEST(Message, TakesWholeDocumentsOnlyAndTheLaterOfSeveral) {
    ZJSONCommStream stream;
    InstallProgressMsg message;
    message.m_Header = "kept";
    ASSERT_TRUE(message.Load(
        std::string_view(R"( {"percent":1,"percent":2,"unknown":[{}]} {} {"done":true,"percent":3} )"), stream));
    EXPECT_THAT(Saved(message), HasSubstr(R"("header":"kept","message":"","percent":3,"error":false,"done":true)"));
    const std::string deep = "{\"a\":" + std::string(100'000, '[');
    for (const std::string text : {"", " ", "nonsense", "[]", R"({"percent":1)", R"({"percent":1}{"done":t)",
                                   R"({"percent":1}})", "{\"header\":\"\xff\"}", deep.c_str()}) {
        EXPECT_FALSE(message.Load(std::string_view(text), stream) || stream.Error().empty()) << text;
        EXPECT_EQ(stream.Text(), "{}");
    }
}

TEST(Environment, ReplacesVariablesInPaths) {
    ::setenv("A_TEST", "/process", 1);
    ::setenv("B_TEST", "/b", 1);
    ZEnvironment environment;
    environment.Set("A_TEST", "/own");
    for (const std::string text :
         {"$A_TEST/x=/own/x", "${B_TEST}x=/bx", "/a$$b=/a$b", "$B_TESTx=", "/$=", "/${A_TEST=", "${}="}) {
        const std::size_t split = text.find('=');
        std::filesystem::path out = "old";
        EXPECT_EQ(environment.ResolveEnvVarsInPath(text.substr(0, split), out), !text.ends_with('=')) << text;
        EXPECT_EQ(out, text.substr(split + 1));
    }
}

}  // namespace
