// The server as a whole: its socket, its documents, clients that stall, and its end.

#include <sys/stat.h>

#include <regex>
#include <sstream>

#include "GatewayFixture.h"
#include "ZShared/ZProcess.h"
#include "ZShared/ZUnixAddress.h"

using namespace testing;

namespace {

TEST_F(Gateway, GivesItsSocketTheConfiguredModeAndRemovesItAtTheEnd) {
    ASSERT_TRUE(Start(R"("socketMode":"0604")")) << error << log.All();
    struct stat made {};
    ASSERT_EQ(::stat(socket.c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 07777U, 0604U);
    EXPECT_EQ(graph->Stop(), ZGraphEnd::Agreed);
    EXPECT_FALSE(std::filesystem::exists(socket));
}

TEST_F(Gateway, ReplacesADeadServersSocketButNotALivingOnesNorAFile) {
    std::filesystem::create_directories(socket.parent_path());
    {
        const ZFileDescriptor dead(::socket(AF_UNIX, SOCK_STREAM, 0));
        const auto address = ZUnixAddress::Of(socket.string());
        ASSERT_EQ(::bind(dead.Get(), address->Get(), ZUnixAddress::Size()), 0);
    }
    ASSERT_TRUE(Start()) << error << log.All();
    const auto living = std::move(graph);
    EXPECT_FALSE(Start());
    EXPECT_THAT(log.All(), HasSubstr("another server listens there"));
    graph.reset();
    EXPECT_EQ(Get("/v1/log").status, 200) << "the living server lost its socket";
    socket = folder.Write("precious", "text");
    EXPECT_FALSE(Start());
    EXPECT_EQ(ReadText(socket), "text");
}

TEST_F(Gateway, NamesTheSettingThatCanNotBeUsed) {
    const std::pair<const char*, const char*> rows[]{
        {R"("socketMode":"10777")", "socketMode"},
        {R"("socketMode":"")", "socketMode"},
        {R"("socketGroup":"no such group")", "socketGroup"},
        {R"("operateGroup":"no such group")", "operateGroup"},
        {R"("socketPath":"")", "socketPath"},
        {R"("answerTimeoutSeconds":0)", "answerTimeoutSeconds"},
        {R"("maxEventClients":4097)", "maxEventClients"},
        {R"("eventBacklog":0)", "eventBacklog"},
    };
    for (const auto& [settings, key] : rows) {
        EXPECT_FALSE(Start(settings)) << settings;
        EXPECT_THAT(log.Lines().back().text, HasSubstr('"' + std::string(key) + '"'));
        EXPECT_EQ(log.Lines().back().level, 4);
    }
    socket = folder / std::string(120, 'x');
    EXPECT_FALSE(Start());
    EXPECT_THAT(log.Lines().back().text, HasSubstr("longer than 107 bytes"));
}

TEST_F(Gateway, ReportsWhatTheNodesTellAndNullWhereNobodyDoes) {
    ASSERT_TRUE(Start());
    EXPECT_THAT(Get("/v1/status").body,
                StartsWith(R"({"version":null,"hash":null,"installedVersion":null,"updateInProgress":null,)"
                           R"("device":null,"updates":null,"progress":null,"drives":null,"operations":null,)"
                           R"("runningSlot":null,"nextSlot":null,"nextVersion":null,"archive":null,)"
                           R"("refused":null,"updatesFree":null,"archiveFree":null,"trustedSigners":null,)"
                           R"("trustDocument":null,"trustProblem":null,"trial":null,"historyProblem":null,)"
                           R"("lastInstall":null,)"));
    EXPECT_THAT(Get("/v1/status").body, ContainsRegex(R"("you":\{"name":"user [^"]+","role":"administer"\})"));
    EXPECT_THAT(Get("/v1/status").body, HasSubstr(R"("bootId":")" + BootId() + '"'));
    const auto answer = [&](ZEndpointType type, const char* keyword, const char* className, const std::string& json) {
        probe->Listen(type, keyword, [=](const auto&) { return Made(className, json); });
    };
    answer(kClient, "getinstalledversioninfo", "ZVersionInfoMsg", R"({"version":"3.044"})");
    answer(kClient, "findupdates", "ZMessageArray",
           R"({"messages":[{"className":"ZVersionInfoMsg","version":"3.046"},)"
           R"({"className":"ZVersionInfoMsg","version":"9.9","bSuccess":false}]})");
    answer(kService, "getUpdateInProgress", "ZSystemUpdateInProgressMsg", R"({"updateInProgress":true})");
    answer(kService, "deviceProps", "ZDevicePropertiesMsg", R"({"model":"KiteQM","serialNumber":"7","board":"b"})");
    probe->Listen(kService, "getdevices", [](const auto&) {
        auto drives = ZMakeShared<StorageDevicesMsg>();
        drives->m_Devices = {"/media/M\xfcll"};
        return drives;
    });
    answer(
        kService, "slots", "ZSlotsMsg",
        R"({"state":"trial","attempt":2,"attempts":3,"counts":[{"className":"ZTrialCountMsg","what":"begun","count":4},)"
        R"({"className":"ZTrialCountMsg","what":"confirmed","count":1},)"
        R"({"className":"ZTrialCountMsg","what":"neverUp","count":2}]})");
    PublishProgress(35);
    std::string status;
    EXPECT_TRUE(WaitUntil([&] {  // a loaded machine's nodes may not have told it in time
        status = Get("/v1/status").body;
        const auto tells = [&status](const char* part) { return status.find(part) != std::string::npos; };
        return tells("\"percent\":35") && tells("Version\":\"") && tells("InProgress\":true") && tells("device\":{") &&
               tells("updates\":[") && tells("drives\":[");
    })) << status;
    EXPECT_THAT(
        status,
        MatchesRegex(
            R"re(.*"installedVersion":"3.044","updateInProgress":true,)re"
            R"re("device":\{"model":"KiteQM","serialNumber":"7","board":"b"\},"updates":\[\{"version":"3.046"\}\],)re"
            R"re("progress":\{[^}]*"percent":35[^}]*\},"drives":\["/media/M[^"]*ll"\],"operations":null,.*)re"));
    EXPECT_NE(status.find("M\xEF\xBF\xBDll"), std::string::npos)
        << "a name that is no UTF-8 must not break the document";
    Post("/v1/findupdates", "");
    Post("/v1/transfer", "");
    for (const char* sample : {R"(arbor_requests_total{keyword="findupdates",code="200"} 1)",
                               R"(arbor_requests_total{keyword="transfer",code="503"} 1)", "arbor_progress_percent 35",
                               "arbor_update_in_progress 1", "arbor_event_clients 0", "arbor_trials_begun_total 4",
                               "arbor_trials_confirmed_total 1", R"(arbor_trials_taken_back_total{cause="neverUp"} 2)",
                               "arbor_trial_starts_used 2", "arbor_trial_starts 3"}) {
        ExpectMetric(sample);
    }
    EXPECT_THAT(Get("/v1/metrics").body, AllOf(HasSubstr("\narbor_memory_bytes{state=\"in_use\"} "),
                                               HasSubstr("\nprocess_start_time_seconds 1")));
}

TEST_F(Gateway, TellsHowTheHostRunsAndWhatItSees) {
    ASSERT_TRUE(Start());
    const std::string setup = Get("/v1/setup").body;
    EXPECT_THAT(setup, HasSubstr("\"updatesFolder\":\"" + updatesFolder.string() + '"'));
    EXPECT_THAT(setup, HasSubstr("\"userId\":" + std::to_string(::geteuid()) + ','));
    EXPECT_THAT(setup, HasSubstr(ReadText("/proc/self/mountinfo").substr(0, 10))) << "the table's first line";
    EXPECT_EQ(Post("/v1/setup", "{}").status, 405);
}

TEST_F(Gateway, DescribesEveryKeywordWithSchemasThatExist) {
    ASSERT_TRUE(Start());
    const std::string text = Get("/v1/openapi.json").body;
    ZJSONCommStream stream;
    ASSERT_TRUE(stream.LoadText(text)) << stream.Error();
    std::istringstream paths(
        "updatesystem compareversions findupdates getinstalledversioninfo getUpdateInProgress scan "
        "deviceProps checkCompatibility upload "
        "transfer remoteinstall peers pair cancel forget inventory events status setup operations operations/{id} log "
        "metrics openapi.json");
    for (std::string path; paths >> path;) {
        EXPECT_THAT(text, HasSubstr("\"/v1/" + path + "\":{")) << path;
    }
    const std::regex reference("\"#/components/[a-z]+/([A-Za-z]+)\"");
    for (std::sregex_iterator found(text.begin(), text.end(), reference), end; found != end; ++found) {
        EXPECT_THAT(text, HasSubstr('"' + (*found)[1].str() + "\":{")) << (*found)[1] << " is not described";
    }
    // Inherited fields, enumerators and defaults come from the messages themselves.
    EXPECT_THAT(
        text,
        HasSubstr(R"("ZFileOpenMsg":{"type":"object","properties":{"className":{"const":"ZFileOpenMsg"},"filePath")"));
    EXPECT_THAT(text, HasSubstr("ERRCODE_SYSUPDATE_VERSION_NOT_ALLOWED"));
    EXPECT_THAT(text, HasSubstr(R"("reboot":{"type":"boolean","default":true})"));
    EXPECT_THAT(text, HasSubstr(R"("peers":{"type":"array","items":{"$ref":"#/components/schemas/ZPeerMsg"}})"));
}

}  // namespace
