// The journal when processes are killed, files are damaged, and disks take nothing.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <fstream>

#include "Journal.h"
#include "JournalFiles.h"
#include "NodeBase/ZOperation.h"
#include "TestSupport.h"
#include "ZShared/ZFileDescriptor.h"

namespace fs = std::filesystem;
using namespace testing;
using journal::Journal;

namespace {

using enum ZOperationState;

/// The ids of all jobs of that state, newest first.
std::vector<std::string> Ids(Journal& journal, const char* state = "") {
    std::vector<std::string> ids;
    const auto request = ZMakeShared<ZOperationsRequestMsg>();
    request->m_State = state;
    request->m_Limit = 1000;
    do {
        const auto page = journal.Answer(*request);
        for (const auto& job : page->m_Operations) {
            ids.push_back(ToStdString(job->m_Id));
        }
        request->m_Before = page->m_Next;
    } while (!request->m_Before.empty());
    return ids;
}

class JournalFile : public Test {
protected:
    Journal Opened(std::int64_t rows = 100'000) {
        Journal journal(file, {rows, 0});
        EXPECT_EQ(ErrorOf(journal.Begin()), "");
        return journal;
    }
    void Keep(int from, int to) {
        Journal journal = Opened();
        for (int number = from; number < to; ++number) {
            journal.Take(Job("job " + std::to_string(number), Running));
            journal.Take(Job("job " + std::to_string(number), Succeeded));
        }
    }
    bool ToldOnce(const std::string& text) const { return log.Count(text, 4) == 1; }

    TemporaryFolder folder;
    const fs::path file = folder / "journal.sqlite";
    LogCapture log;
};

TEST_F(JournalFile, LosesNothingThatWasToldWhenItsProcessIsKilled) {
    std::vector<std::string> told;
    for (int life = 0; life < 25; ++life) {
        std::array<int, 2> ends{};
        ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        const ZFileDescriptor input(ends[0]);
        ZFileDescriptor output(ends[1]);
        const pid_t child = ::fork();
        if (child == 0) {
            Journal journal(file, {100'000, 0});
            if (!journal.Begin()) {
                ::_exit(1);
            }
            for (int number = 0;; ++number) {
                const std::string id = std::to_string(1'000'000 + life) + std::to_string(100'000'000 + number);
                journal.Take(Job(id, Running));
                journal.Take(Job(id, Succeeded));
                if (::write(output.Get(), id.c_str(), id.size()) < 0) {
                    ::_exit(2);
                }
            }
        }
        output.Reset();
        const auto readOne = [&] {
            std::array<char, 16> id{};
            const bool whole = ::read(input.Get(), id.data(), id.size()) == static_cast<ssize_t>(id.size());
            if (whole) {
                told.emplace_back(id.data(), id.size());
            }
            return whole;
        };
        // At once, after a few, after many: some in a checkpoint.
        const std::size_t wanted = told.size() + static_cast<std::size_t>(life * 4);
        while (told.size() < wanted && readOne()) {
        }
        ::kill(child, SIGKILL);
        int status = 0;
        ::waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << WEXITSTATUS(status);
        while (readOne()) {
        }
    }
    Journal journal = Opened();
    std::vector<std::string> kept = Ids(journal, "Succeeded");
    std::ranges::sort(kept);
    std::vector<std::string> missing;
    std::ranges::set_difference(told, kept, std::back_inserter(missing));
    EXPECT_THAT(missing, IsEmpty());
    EXPECT_LE(kept.size(), told.size() + 25) << "at most one a life was kept and not told";
    EXPECT_THAT(Ids(journal, "Open"), IsEmpty());
    EXPECT_FALSE(fs::exists(file.string() + ".damaged")) << log.All();
}

TEST_F(JournalFile, KeepsWhatWasWholeWhenTheEndOfItsLogIsTorn) {
    const fs::path wal = file.string() + "-wal";
    std::string bytes;
    {
        Journal journal = Opened();
        for (int number = 0; number < 10; ++number) {
            journal.Take(Job("job " + std::to_string(number), Succeeded));
        }
        bytes = ReadText(wal);
        fs::copy_file(file, folder / "copy");
    }
    ASSERT_GT(bytes.size(), 10U * 4096);
    std::size_t least = 11;
    for (std::size_t size = bytes.size(); size > 3000; size -= 3000) {
        fs::copy_file(folder / "copy", file, fs::copy_options::overwrite_existing);
        folder.Write("journal.sqlite-wal", bytes.substr(0, size));
        Journal journal = Opened();
        const auto ids = Ids(journal);
        EXPECT_LE(ids.size(), least);
        least = ids.size();
        for (std::size_t place = 0; place < ids.size(); ++place) {
            EXPECT_EQ(ids[place], "job " + std::to_string(ids.size() - 1 - place)) << "a hole";
        }
    }
    EXPECT_FALSE(fs::exists(file.string() + ".damaged")) << log.All();
}

TEST_F(JournalFile, PutsADamagedFileAsideAndBeginsAnew) {
    const std::pair<const char*, std::function<void()>> rows[]{
        {"another kind of file", [&] { folder.Write("journal.sqlite", std::string(10'000, 'x')); }},
        {"its first page",
         [&] { std::fstream(file, std::ios::in | std::ios::out).seekp(100) << std::string(900, 'x'); }},
        {"its end", [&] { fs::resize_file(file, fs::file_size(file) / 2); }},
        {"its middle",
         [&] {
             std::fstream bytes(file, std::ios::in | std::ios::out);
             bytes.seekp(8192) << std::string(fs::file_size(file) - 8192, 'x');
         }},
    };
    for (const auto& [name, damage] : rows) {
        SCOPED_TRACE(name);
        fs::remove(file);
        fs::remove(file.string() + ".damaged");
        Keep(0, 100);
        damage();
        const auto damaged = fs::file_size(file);
        log.Clear();
        Journal journal = Opened();
        journal.Take(Job("afterwards", Running));
        Ids(journal);  // finds what nobody has looked at until now
        EXPECT_EQ(fs::file_size(file.string() + ".damaged"), damaged);
        EXPECT_TRUE(ToldOnce(file.string() + ".damaged, and begun anew")) << log.All();
        EXPECT_THAT(Ids(journal), ElementsAre("afterwards"));
        journal.Take(Job("afterwards", Succeeded));
        EXPECT_THAT(Ids(journal, "Succeeded"), ElementsAre("afterwards"));
        EXPECT_FALSE(journal.HasRest());
    }
    fs::remove(file);
    Keep(0, 2000);
    {
        Journal journal = Opened();
        journal.Take(Job("open", Running));
        std::fstream bytes(file, std::ios::in | std::ios::out);  // while it is in use
        bytes.seekp(8192) << std::string(fs::file_size(file) - 8192, 'x') << std::flush;
        Ids(journal);
        EXPECT_THAT(Ids(journal), ElementsAre("open"));
    }
    Journal later = Opened();
    EXPECT_THAT(Ids(later), ElementsAre("open")) << "what is known goes into the new file";
}

TEST_F(JournalFile, KeepsTheNewestInMemoryWhileItsFolderCanNotBeMade) {
    folder.Write("state", "not a folder");
    Journal journal(folder / "state/deep/journal.sqlite", {100'000, 0});
    EXPECT_EQ(ErrorOf(journal.Begin()), "");
    journal.Take(Job("open", Running));
    for (int number = 0; number < 1500; ++number) {
        journal.Take(Job("job " + std::to_string(number), Succeeded));
    }
    journal.DoRest();
    EXPECT_TRUE(ToldOnce("the newest 1000 jobs are kept in memory")) << log.All();
    const auto kept = Ids(journal);
    ASSERT_EQ(kept.size(), 1000U);
    EXPECT_EQ(kept.front(), "job 1499");
    EXPECT_EQ(kept.back(), "open");
    journal.Take(Job("open", Failed));
    EXPECT_THAT(Ids(journal, "Failed"), ElementsAre("open"));

    fs::remove(folder / "state");
    EXPECT_TRUE(journal.HasRest());
    journal.DoRest();
    EXPECT_FALSE(journal.HasRest());
    EXPECT_TRUE(log.Has(2, "journal.sqlite is written again")) << log.All();
    EXPECT_EQ(Ids(journal), kept);
}

TEST_F(JournalFile, WritesAfterwardsWhatAFullDiskHadNoRoomFor) {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("arbor-test", folder.Path().c_str(), "tmpfs", 0, "size=1m") != 0) {
        GTEST_SKIP() << "this process may not mount a tmpfs";
    }
    {
        Journal journal = Opened();
        journal.Take(Job("before", Succeeded));
        journal.Take(Job("across", Running));
        {
            std::ofstream filler(folder / "filler");
            while (filler << std::string(4096, 'x') << std::flush) {
            }
        }
        for (int number = 0; number < 300; ++number) {
            journal.Take(Job("job " + std::to_string(number), Succeeded));
        }
        journal.Take(Job("across", Failed));
        EXPECT_TRUE(journal.IsFailing());
        EXPECT_TRUE(ToldOnce("are kept in memory")) << log.All();
        EXPECT_THAT(journal.Answer(ZOperationsRequestMsg())->m_Problem, HasSubstr("disk is full"));
        EXPECT_EQ(Ids(journal).size(), 302U);
        EXPECT_THAT(Ids(journal, "Failed"), ElementsAre("across")) << "the disk has it as running";
        EXPECT_THAT(Ids(journal, "Running"), IsEmpty());
        journal.DoRest();
        EXPECT_TRUE(journal.IsFailing());
        fs::remove(folder / "filler");
        journal.DoRest();
        EXPECT_FALSE(journal.IsFailing()) << log.All();
        EXPECT_EQ(journal.Answer(ZOperationsRequestMsg())->m_Problem, "");
    }
    {
        Journal journal = Opened();
        EXPECT_EQ(Ids(journal).size(), 302U);
        EXPECT_THAT(Ids(journal, "Failed"), ElementsAre("across"));
    }
    EXPECT_EQ(::umount(folder.Path().c_str()), 0);
}

TEST_F(JournalFile, TakesOverALateFileWithoutLosingWhatBeganBefore) {
    {
        Journal earlier = Opened();
        earlier.Take(Job("ended", Succeeded));
        earlier.Take(Job("left", Running));
        earlier.Take(Job("with process", Running, 77));
    }
    {
        // Two hosts on one file: the second one waits for it.
        auto owner = std::make_unique<Journal>(file, journal::Bounds{100'000, 0});
        EXPECT_EQ(ErrorOf(owner->Begin()), "");
        Journal second(file, {100'000, 0});
        EXPECT_EQ(ErrorOf(second.Begin()), "");
        EXPECT_TRUE(second.IsFailing());
        EXPECT_TRUE(ToldOnce("database is locked")) << log.All();
        second.Take(Job("early", Running));
        second.Take(Job("with process", Succeeded, 77));
        owner.reset();
        second.DoRest();
        EXPECT_FALSE(second.IsFailing());
        EXPECT_THAT(Ids(second), ElementsAre("early", "with process", "left", "ended"));
        EXPECT_THAT(Ids(second, "Lost"), ElementsAre("left"));
        EXPECT_THAT(Ids(second, "Open"), ElementsAre("early"));
    }
}

}  // namespace
