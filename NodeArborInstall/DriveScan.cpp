#include <algorithm>

#include "PackageFiles.h"
#include "ZNodeArborInstall.h"

namespace fs = std::filesystem;

namespace {

// The checks of one drive come one after the other; one that takes longer goes on while the next begins.
constexpr auto kPatience = std::chrono::seconds(2);
// So many checks of one drive may be unfinished: others' need places in the queue, too.
constexpr std::ptrdiff_t kMostUnfinished = 2;
// Candidates on one drive: far more than anybody carries.
constexpr std::size_t kMostCandidates = 1000;

}  // namespace

/// The checks of one drive. Each collects into an array of its own: put together they are in the drive's order.
struct ZNodeArborInstall::DriveChecks {
    struct Check {
        std::shared_future<bool> done;
        std::shared_ptr<ZMessageArray> results;
    };
    std::shared_ptr<ZOperation> scan;
    ZString drive;
    std::vector<Check> checks;
    std::size_t tooMany = 0;

    static bool IsDone(const Check& check) {
        return check.done.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }
    /// Waits for the last one a moment, and for earlier ones while too many are unfinished.
    void Await() const {
        checks.back().done.wait_for(kPatience);
        while (std::ranges::count_if(checks, [](const Check& check) { return !IsDone(check); }) >= kMostUnfinished) {
            std::ranges::find_if_not(checks, IsDone)->done.wait();
        }
    }
    void Tell() const {
        const auto count = [](std::size_t number) { return ToZString(std::to_string(number)); };
        const auto ended = static_cast<std::size_t>(std::ranges::count_if(checks, IsDone));
        const std::size_t current = std::min(ended + 1, checks.size());
        scan->Tell("Looking at " + drive, "checking " + count(current) + " of " + count(checks.size()),
                   static_cast<std::int32_t>(ended * 100 / std::max<std::size_t>(checks.size(), 1)));
    }
};

bool ZNodeArborInstall::ProcessStorageDevices(const ZVector<ZString>& drives, std::shared_ptr<ZMessageArray>& results) {
    return ScanDrives(drives, results, nullptr);
}

bool ZNodeArborInstall::ScanDrives(const ZVector<ZString>& drives, std::shared_ptr<ZMessageArray>& results,
                                   const ZMessage* request) {
    Z_LOG(2, "Processing Storage devices ");
    bool any = false;
    for (const ZString& drive : drives) {
        Z_LOG(2, "Checking drive %s", drive);
        any = ScanDriveFor(fs::path(drive), results, request) || any;
    }
    return any;
}

bool ZNodeArborInstall::ScanDrive(const fs::path& drive, std::shared_ptr<ZMessageArray>& results) {
    return ScanDriveFor(drive, results, nullptr);
}

bool ZNodeArborInstall::ScanDriveFor(const fs::path& drive, std::shared_ptr<ZMessageArray>& results,
                                     const ZMessage* request) {
    DriveChecks checks;
    checks.drive = ToZString(drive.string());
    checks.scan = TakeJob(request, {.kind = ZOperationKind::Scan, .file = checks.drive});
    std::error_code error;
    fs::directory_iterator entry;
    if (!checks.scan->CancelReason()) {  // one that has left is not touched: that might block
        FollowFile(drive / kTrustFileName,
                   {.kind = ZOperationKind::Trust,
                    .file = ToZString((drive / kTrustFileName).string()),
                    .parent = checks.scan->Id(),
                    .asker = "drive " + checks.drive},
                   nullptr);
        entry = fs::directory_iterator(drive, error);
    }
    while (!error && !checks.scan->CancelReason() && entry != fs::directory_iterator()) {
        CheckDriveEntry(entry->path(), checks);
        entry.increment(error);
    }
    if (error) {
        Z_LOG(4, "Error reading drive %s: %s", drive, error.message());
    }
    const bool any = FinishScan(checks, results);
    if (const auto why = checks.scan->CancelReason()) {
        checks.scan->Cancel(ToZString("cancelled " + *why));
    } else if (error) {
        checks.scan->Fail(ToZString(error.message()));
    } else if (checks.tooMany > 0) {
        checks.scan->Fail("it holds " + ToZString(std::to_string(checks.tooMany)) + " packages too many");
    } else {
        checks.scan->Succeed();
    }
    return any;
}

bool ZNodeArborInstall::FinishScan(DriveChecks& checks, std::shared_ptr<ZMessageArray>& results) {
    bool any = false;
    for (auto& check : checks.checks) {
        checks.Tell();
        try {
            any = check.done.get() || any;
        } catch (const std::exception& failure) {
            Z_LOG(4, "A check ended: %s", failure.what());  // its job has failed; the others count
        }
        for (const auto& message : check.results->m_Messages) {
            results->Add(message);
        }
    }
    return any;
}

bool ZNodeArborInstall::MayBePackage(const fs::path& file, fs::perms permissions) const {
    return IsExecutable(permissions) || (m_trust.IsOn() && file.extension() == ".pkg");
}

void ZNodeArborInstall::CheckDriveEntry(const fs::path& file, DriveChecks& checks) {
    Z_LOG(2, "Checking file %s", file);
    std::error_code error;
    // What is read, and runs from a copy, is the drive's own: a link may lead anywhere.
    const fs::file_status status = m_trust.IsOn() ? fs::symlink_status(file, error) : fs::status(file, error);
    if (error) {
        Z_LOG(4, "Error getting file permissions %d", error.value());
    }
    const bool known = !error && status.permissions() != fs::perms::unknown;
    const bool executable = known && IsExecutable(status.permissions());
    const bool regular = fs::is_regular_file(status);
    if (!known || !MayBePackage(file, status.permissions()) || !regular) {
        Z_LOG(2, "File %s %s and %s", file.c_str(), executable ? "is executable" : "Not Executable",
              regular ? "is regular file" : "Is NOT a regular file");
        return;
    }
    if (file.extension() != ".pkg") {
        return;
    }
    Z_LOG(2, "Found package file %s", file);
    if (checks.checks.size() >= kMostCandidates) {
        Z_LOG(3, "%s is not checked: there are more than %zu on its drive", file, kMostCandidates);
        ++checks.tooMany;
        return;
    }
    const auto results = Z_MAKE(ZMessageArray);
    const ZOperationSubject subject{.kind = ZOperationKind::Check,
                                    .file = ToZString(file.string()),
                                    .parent = checks.scan->Id(),
                                    .asker = "drive " + checks.drive};
    auto check = QueueCheck(file, results, subject, nullptr);
    if (const auto why = checks.scan->CancelReason()) {
        check.operation->AskToCancel(*why);  // whoever ended the scan may not have seen this one
    }
    checks.checks.push_back({std::move(check.done), results});
    checks.Tell();
    checks.Await();
}

bool ZNodeArborInstall::RemoveStorageDevices(const ZVector<ZString>& drives) {
    for (const ZString& drive : drives) {
        const fs::path root = fs::path(drive).lexically_normal();
        if (root.empty()) {
            continue;  // would be the beginning of every path
        }
        for (const fs::path& package : m_tables.RemoveDrive(root)) {
            Z_LOG(2, "Removing package %s", package);
        }
        std::erase_if(*m_refused.Lock(), [&](const auto& entry) {
            return VersionTables::IsOnDrive(fs::path(entry.told->m_File).lexically_normal(), root);
        });
    }
    return true;
}
