
#include "NodeFixture.h"

// Checks of package files: none waits for another, and what is offered can be installed.

namespace fs = std::filesystem;
using namespace testing;

namespace {

class Checks : public NodeFixture {
protected:
    std::shared_ptr<ZInventoryMsg> Inventory() {
        return cast_shared<ZInventoryMsg>(
            probe->Ask(ZEndpointType::GraphService, "inventory", Z_MAKE(ZGenericRequestMsg)));
    }
    /// A package whose check never ends by itself, unless `script` ends it first; each one notes its process.
    fs::path Hanging(const std::string& name, const std::string& script = "") const {
        const std::string noted = (folder / "hanging").string();
        return folder.Write(name, "#!/bin/sh\n" + script + "\necho $$ >> " + noted + "\nsleep 600 & wait\n", 0755);
    }
    std::vector<pid_t> HangingProcesses() const {
        std::vector<pid_t> alive;
        std::istringstream noted(ReadText(folder / "hanging"));
        for (pid_t process = 0; noted >> process;) {
            if (FindProcess(process)) {
                alive.push_back(process);
            }
        }
        return alive;
    }
};

TEST_F(Checks, OfOthersGoOnWhileOneHangsAndAreOfferedAtOnce) {
    Start();
    Hanging("drive/a hangs.pkg");
    Package("b.pkg", "3.045");
    Package("c.pkg", "3.046");
    TellDrives({Drive()}, {});
    EXPECT_TRUE(WaitForJob("Check c.pkg Succeeded") && WaitForJob("Check b.pkg Succeeded"));
    EXPECT_THAT(Offered(), ElementsAre("3.046 System", "3.045 System"));
    EXPECT_TRUE(WaitForJob("Check a hangs.pkg Running"));
    EXPECT_TRUE(WaitUntil([&] {
        return std::ranges::any_of(Jobs(), [](const auto& job) {
            return job->m_Kind == ZOperationKind::Scan && job->m_Message == "checking 3 of 3";
        });
    }));
    TellDrives({}, {Drive()});
    EXPECT_TRUE(WaitForJob("Check a hangs.pkg Cancelled: cancelled because its drive was removed"));
    EXPECT_TRUE(WaitForJob("Scan drive Cancelled: cancelled because its drive was removed"));
    EXPECT_TRUE(WaitUntil([&] { return Offered().empty() && HangingProcesses().empty(); }));
}

TEST_F(Checks, EndAfterALimitOfTheirOwnAndByCancelling) {
    Start(R"("CheckTimeoutSeconds":1)");
    const fs::path file = Hanging("drive/hangs.pkg");
    TellFile(file);
    EXPECT_TRUE(WaitForJob("Check hangs.pkg Failed: it does not tell its version: The command was ended after 1 s"));
    ASSERT_TRUE(WaitUntil([&] { return Inventory()->m_Refused.size() == 1; }));
    const auto refused = Inventory()->m_Refused.front();
    EXPECT_EQ(refused->m_File, ToZString(file.string()));
    EXPECT_THAT(ToStdString(refused->m_Reason), HasSubstr("ended after 1 s"));
    TellFile(Hanging("drive/late.pkg", "[ $1 = --version ] && echo 3.1 && exit"));
    EXPECT_TRUE(WaitForJobLike("Check late.pkg Failed: ")) << "its second step";
    EXPECT_THAT(log.All(), HasSubstr(": The command was ended after 1 s"));
    EXPECT_TRUE(WaitUntil([&] { return HangingProcesses().empty(); }));
    Restart();
    Start();
    TellFile(file);
    ASSERT_TRUE(WaitForJob("Check hangs.pkg Running"));
    Cancel(Jobs().back()->m_Id);
    EXPECT_TRUE(WaitForJob("Check hangs.pkg Cancelled: cancelled by the device itself"));
    EXPECT_TRUE(Inventory()->m_Refused.empty()) << "nothing was found out about the file";
}

TEST_F(Checks, OfADriveThatComesAndGoesLeaveNothingBehind) {
    Start();
    Hanging("drive/hangs.pkg");
    const auto threads = [] {
        return std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator());
    };
    const auto before = threads();
    std::ptrdiff_t most = 0;
    for (int round = 0; round < 100; ++round) {
        TellDrives({Drive()}, {});
        if (round % 10 == 9) {  // the others are gone before anybody looked
            EXPECT_TRUE(WaitUntil([&] { return !HangingProcesses().empty(); }));
        }
        most = std::max(most, threads());
        TellDrives({}, {Drive()});
    }
    EXPECT_TRUE(WaitUntil([&] { return HangingProcesses().empty(); }));
    EXPECT_TRUE(WaitUntil([&] {
        const auto all = Jobs();
        return std::ranges::none_of(all, [](const auto& job) { return job->IsOpen(); });
    })) << PrintToString(JobLines());
    EXPECT_LE(most - before, 12) << "four checks, four actions, and what reaps and logs";
    EXPECT_THAT(Offered(), IsEmpty());
}

TEST_F(Checks, KnowEveryPlaceOfAVersion) {
    Start();
    const fs::path first = Package("a.pkg", "3.045");
    const fs::path second = folder.Write("other/b.pkg", ReadText(first), 0755);
    TellDrives({Drive()}, {});
    ASSERT_TRUE(WaitForJob("Scan drive Succeeded"));
    TellDrives({folder / "other"}, {});
    ASSERT_TRUE(WaitForJob("Scan other Succeeded"));
    const auto files = [&] {
        std::vector<std::string> found;
        const auto inventory = Inventory();
        for (const auto& package : inventory->m_Packages) {
            found.push_back(ToStdString(package->m_File));
        }
        return found;
    };
    EXPECT_THAT(files(), ElementsAre(second.string(), first.string())) << "the one checked last counts first";
    TellDrives({}, {folder / "other"});
    EXPECT_TRUE(WaitUntil([&] { return files() == std::vector{first.string()}; }));
    EXPECT_THAT(Offered(), ElementsAre("3.045 System"));
    fs::path package;
    EXPECT_TRUE(node->FindPackage("3.045", package));
    EXPECT_EQ(package, first);
    TellDrives({}, {Drive()});
    EXPECT_TRUE(WaitUntil([&] { return Offered().empty(); }));
}

TEST_F(Checks, OfUploadsTakeAwayWhatWasRefusedOrRemoved) {
    InstallSystem("3.044");
    probe->Listen(ZEndpointType::GraphService, "updateavailable");
    Start();
    const fs::path good = folder.Write("updates/good.pkg", ReadText(Package("g.pkg", "3.045")), 0755);
    TellFile(good);
    ASSERT_TRUE(WaitForJob("Check good.pkg Succeeded"));
    const fs::path bad = folder.Write("updates/bad.pkg", ReadText(Package("b.pkg", "3.046", 1)), 0755);
    TellFile(bad);
    ASSERT_TRUE(WaitForJob("Check bad.pkg Failed: board:verdin-imx8mm"));
    EXPECT_TRUE(WaitUntil([&] { return !fs::exists(bad); })) << "it only takes space";
    const auto announces = [&](const std::vector<std::string>& records) {
        return WaitUntil([&] { return Records(cast_shared<ZMessageArray>(probe->Received().back())) == records; });
    };
    EXPECT_TRUE(announces({"3.046 " + bad.string() + " rejected 7", "3.045 System"}));
    // What replaces a good one and is refused takes its entry away.
    folder.Write("updates/good.pkg", ReadText(Package("b.pkg", "3.046", 1)), 0755);
    TellFile(good);
    EXPECT_TRUE(WaitUntil([&] { return Offered().empty() && !fs::exists(good); }));
    folder.Write("updates/good.pkg", ReadText(Package("g.pkg", "3.045")), 0755);
    TellFile(good);
    ASSERT_TRUE(announces({"3.045 System"}));
    TellFile(good, true);
    EXPECT_TRUE(announces({})) << "its folder tells that it is gone";
    EXPECT_TRUE(log.Has(2, "Removing package " + good.string()));
    TellFile(good);
    ASSERT_TRUE(announces({"3.045 System"}));
    fs::remove(good);
    TellFile(good);
    EXPECT_TRUE(WaitUntil([&] { return Offered().empty(); }));
    // One that is replaced while it hangs in its check: what becomes of the old one does not touch the new one.
    const fs::path replaced = Hanging("updates/replaced.pkg");
    TellFile(replaced);
    ASSERT_TRUE(WaitUntil([&] { return !HangingProcesses().empty(); }));
    fs::remove(replaced);
    folder.Write("updates/replaced.pkg", ReadText(Package("g.pkg", "3.048")), 0755);
    TellFile(replaced);
    EXPECT_TRUE(WaitForJob("Check replaced.pkg Cancelled: cancelled because the file is checked again"));
    EXPECT_TRUE(WaitForJob("Check replaced.pkg Succeeded"));
    EXPECT_THAT(Offered(), ElementsAre("3.048 System"));
    EXPECT_TRUE(fs::exists(replaced));
    fs::permissions(replaced, fs::perms::owner_read);
    TellFile(replaced);
    EXPECT_TRUE(WaitUntil([&] { return Offered().empty(); })) << "it may not be run any more";
    const fs::path onDrive = Package("refused.pkg", "3.047", 1);
    TellFile(onDrive);
    ASSERT_TRUE(WaitForJob("Check refused.pkg Failed: board:verdin-imx8mm"));
    EXPECT_TRUE(fs::exists(onDrive)) << "what lies on a stick is its owner's";
}

TEST_F(Checks, OfUploadsLeaveWhatTookTheNameOfARefusedOne) {
    Start();
    const fs::path upload = folder / "updates/arbor.pkg";
    const fs::path corrected = folder.Write("corrected.pkg", ReadText(Package("g.pkg", "3.045")), 0755);
    // The corrected one comes while the first is checked, and nobody has told of it yet.
    folder.Write(
        "updates/arbor.pkg",
        "#!/bin/sh\n[ \"$1\" = --version ] && echo 3.045 && exit\nmv " + corrected.string() + " \"$0\"\nexit 1\n",
        0755);
    TellFile(upload);
    ASSERT_TRUE(WaitForJobLike("Check arbor.pkg Failed"));
    const fs::path other = folder.Write("updates/other.pkg", ReadText(Package("b.pkg", "3.046", 1)), 0755);
    TellFile(other);
    ASSERT_TRUE(WaitUntil([&] { return !fs::exists(other); })) << "what was refused is let go";
    ASSERT_TRUE(fs::exists(upload));
    TellFile(upload);
    EXPECT_TRUE(WaitForJob("Check arbor.pkg Succeeded"));
}

TEST_F(Checks, AreDoneAgainOnceItIsSaidWhatWasTakenBack) {
    Start();
    const fs::path upload = folder.Write("updates/arbor.pkg", ReadText(Package("g.pkg", "3.045")), 0755);
    TellFile(upload);
    ASSERT_TRUE(WaitForJob("Check arbor.pkg Succeeded")) << "nobody judges here yet";
    const auto stands = Z_MAKE(ZSlotsMsg);
    const auto entry = Z_MAKE(ZTakenBackMsg);
    entry->m_Version = "3.045";
    entry->m_Reason = "no signal";
    stands->m_TakenBack.push_back(entry);
    const auto answer = std::make_shared<ZGuarded<std::shared_ptr<ZMessage>>>();  // none: the judge is busy
    probe->Listen(ZEndpointType::GraphService, "slots", [answer](const auto&) { return answer->Copy(); });
    answer->Exchange(ZNodeComm::CloneMessage(stands));
    probe->Tell("trial", ZNodeComm::CloneMessage(stands));
    EXPECT_TRUE(WaitForJobLike("Check arbor.pkg Failed: version 3.045 was taken back (no signal)"));
    EXPECT_THAT(Offered(), IsEmpty());

    answer->Exchange(nullptr);
    const fs::path later = folder.Write("updates/later.pkg", ReadText(Package("l.pkg", "3.046")), 0755);
    TellFile(later);
    ASSERT_TRUE(WaitForJobLike("Check later.pkg Failed: it is not known which versions were taken back"));
    answer->Exchange(ZNodeComm::CloneMessage(stands));
    const fs::path bad = folder.Write("updates/bad.pkg", ReadText(Package("b.pkg", "3.047", 1)), 0755);
    TellFile(bad);
    ASSERT_TRUE(WaitUntil([&] { return !fs::exists(bad); })) << "what was refused is let go";
    EXPECT_TRUE(fs::exists(later)) << "it may be a good one";
    probe->Tell("trial", ZNodeComm::CloneMessage(stands));
    EXPECT_TRUE(WaitForJob("Check later.pkg Succeeded"));
    EXPECT_THAT(Offered(), ElementsAre("3.046 System"));
}

TEST_F(Checks, ForgetUploadsButNothingElse) {
    Start();
    const fs::path good = folder.Write("updates/good.pkg", ReadText(Package("g.pkg", "3.045")), 0755);
    folder.Write("updates/folder/inner.pkg", "x");
    folder.Write("outside.pkg", "x");
    fs::create_symlink(folder / "outside.pkg", folder / "updates/link.pkg");
    TellFile(good);
    ASSERT_TRUE(WaitForJob("Check good.pkg Succeeded"));
    const auto forget = [&](const std::string& file) {
        const auto request = Z_MAKE(ZForgetMsg);
        request->m_File = ToZString(file);
        const auto answer = cast_shared<ZGenericResponseMsg>(AskClient("forget", request));
        return answer ? answer->m_bSuccess : false;
    };
    for (const std::string& file :
         {std::string("../outside.pkg"), (folder / "outside.pkg").string(), std::string("folder"), std::string(""),
          std::string("."), std::string("folder/inner.pkg"), (Drive() / "g.pkg").string(),
          std::string("missing.pkg")}) {
        EXPECT_FALSE(forget(file)) << file;
    }
    EXPECT_TRUE(forget("link.pkg")) << "the link, and not what it leads to";
    EXPECT_TRUE(fs::exists(folder / "outside.pkg") && fs::exists(folder / "updates/folder/inner.pkg") &&
                fs::exists(Drive() / "g.pkg"));
    EXPECT_TRUE(forget("good.pkg"));
    EXPECT_FALSE(fs::exists(good));
    EXPECT_THAT(Offered(), IsEmpty());
}

}  // namespace
