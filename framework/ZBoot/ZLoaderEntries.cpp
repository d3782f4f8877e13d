#include "ZBoot/ZLoaderEntries.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string_view>
#include <tuple>

#include "ZShared/ZFileDescriptor.h"
#include "ZShared/ZReplaceFile.h"

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kPrefix = "arbor-";
constexpr std::string_view kEnding = ".conf";
constexpr std::size_t kLargest = std::size_t{64} * 1024;

/// One entry, as its file's name tells. FAT keeps the case of names, and does not tell it apart.
struct Entry {
    std::uint32_t number = 0;
    std::string slot{};
    bool bCounted = false;
    std::uint32_t left = 0;
    std::uint32_t done = 0;
    fs::path file{};

    bool IsBad() const { return bCounted && left == 0; }
    /// In the loader's order: what it starts is less than all others. Entries that were used up are its last choice.
    bool operator<(const Entry& other) const {
        const auto key = [](const Entry& entry) {
            return std::tuple(entry.IsBad(), ~entry.number, entry.slot != "B", entry.bCounted, ~entry.left);
        };
        return key(*this) < key(other);
    }
};

/// Takes a number off the front of the text.
bool TakeNumber(std::string_view& text, std::uint32_t& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isTaken = error == std::errc();
    text.remove_prefix(isTaken ? static_cast<std::size_t>(end - text.data()) : 0);
    return isTaken;
}

bool TakeText(std::string_view& text, std::string_view expected) {
    const bool isTaken = text.starts_with(expected);
    text.remove_prefix(isTaken ? expected.size() : 0);
    return isTaken;
}

/// None when the name is that of something else.
std::optional<Entry> ParseEntry(const fs::path& file) {
    std::string name = file.filename().string();
    std::ranges::transform(name, name.begin(),
                           [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    std::string_view rest = name;
    Entry entry;
    entry.file = file;
    if (!TakeText(rest, kPrefix) || !TakeNumber(rest, entry.number)) {
        return std::nullopt;
    }
    entry.slot = rest.starts_with("-a") ? "A" : rest.starts_with("-b") ? "B" : "";
    rest.remove_prefix(entry.slot.empty() ? 0 : 2);
    entry.bCounted = TakeText(rest, "+");
    const bool isRead =
        !entry.bCounted || (TakeNumber(rest, entry.left) && (!TakeText(rest, "-") || TakeNumber(rest, entry.done)));
    return isRead && !entry.slot.empty() && rest == kEnding ? std::optional(entry) : std::nullopt;
}

bool SyncFolder(const fs::path& folder) {
    const ZFileDescriptor descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return descriptor && ::fsync(descriptor.Get()) == 0;
}

class LoaderEntryControl : public ZBootControl {
public:
    using ZBootControl::ZBootControl;

    ZResult<ZSlotVersion> Next() const override {
        const auto entries = Entries();
        return entries ? Named(Settings().entries, entries->front().slot) : entries.error();
    }

    ZResult<void> Activate(const std::string& slot, bool onTrial) override {
        const auto entries = Entries();
        if (!entries) {
            return entries.error();
        }
        const Entry& next = entries->front();
        const auto model = Newest(*entries, slot);
        if (!model) {
            return model.error();
        }
        if (next.slot == slot && (onTrial ? IsFresh(next) : !next.bCounted)) {
            return RemoveOthers(next.file);
        }
        const auto greatest = std::ranges::max(*entries, {}, &Entry::number).number;
        return Write(*model, greatest + 1, onTrial);
    }

    ZResult<void> MarkGood() override { return Recount(false); }
    ZResult<void> Uncount() override { return Recount(true); }
    bool FallsBack() const override { return true; }
    bool Counts() const override {
        const auto entries = Entries();
        return entries && std::ranges::any_of(*entries, [&](const Entry& entry) {
                   return entry.bCounted && entry.slot == entries->front().slot;
               });
    }

private:
    bool IsFresh(const Entry& entry) const {
        return entry.bCounted && entry.done == 0 && entry.left == Settings().attempts;
    }

    /// In the loader's order; an error when there is none.
    ZResult<std::vector<Entry>> Entries() const {
        std::vector<Entry> entries;
        std::error_code error;
        for (fs::directory_iterator file(Settings().entries, error), end; !error && file != end;
             file.increment(error)) {
            if (auto entry = ParseEntry(file->path())) {
                entries.push_back(std::move(*entry));
            }
        }
        if (error || entries.empty()) {
            return ZError(Settings().entries + ": " +
                          (error ? error.message() : "no entry is called arbor-NUMBER-SLOT.conf"));
        }
        std::sort(entries.begin(), entries.end());
        return entries;
    }

    /// The slot's own entry. Of two, which a power cut has left, the one with the greater number.
    ZResult<Entry> Newest(const std::vector<Entry>& entries, const std::string& slot) const {
        const Entry* newest = nullptr;
        for (const Entry& entry : entries) {
            if (entry.slot == slot && (newest == nullptr || entry.number > newest->number)) {
                newest = &entry;
            }
        }
        return newest == nullptr ? ZResult<Entry>(ZError(Settings().entries + ": there is no entry for slot " + slot))
                                 : *newest;
    }

    /// The entry of the slot that runs, with all its starts or counted no more.
    ZResult<void> Recount(bool onTrial) {
        const auto running = Running();
        const auto entries = running ? Entries() : ZResult<std::vector<Entry>>(running.error());
        const auto model = entries ? Newest(*entries, running->slot) : ZResult<Entry>(entries.error());
        if (!model) {
            return model.error();
        }
        const bool isSo = onTrial ? !model->bCounted || IsFresh(*model) : !model->bCounted;
        return isSo ? RemoveOthers(model->file) : Write(*model, model->number, onTrial);
    }

    /// The new entry is whole and on the disk, under a name that nothing had, before an old one goes: a power cut
    /// leaves one of them or both. FAT would not promise that of a rename of the old one.
    ZResult<void> Write(const Entry& model, std::uint32_t number, bool onTrial) const {
        std::string text(kLargest, '\0');
        std::ifstream stream(model.file, std::ios::binary);
        stream.read(text.data(), static_cast<std::streamsize>(text.size()));
        text.resize(static_cast<std::size_t>(std::max<std::streamsize>(stream.gcount(), 0)));
        if (text.empty() || text.size() == kLargest) {
            return ZError(model.file.string() + ": it can't be read, or is no entry");
        }
        const std::string tries = onTrial ? "+" + std::to_string(Settings().attempts) : "";
        const std::string slot = model.slot == "A" ? "-a" : "-b";
        const fs::path file = fs::path(Settings().entries) /
                              (std::string(kPrefix) + std::to_string(number) + slot + tries + std::string(kEnding));
        if (const auto written = ReplaceFile(file, text, 0644); !written) {
            return written.error();
        }
        if (!SyncFolder(Settings().entries)) {
            return ZError::OfSystem(Settings().entries, errno);
        }
        return RemoveOthers(file);
    }

    /// Of the slot of the entry in `file`; and what was never finished.
    ZResult<void> RemoveOthers(const fs::path& file) const {
        const std::string slot = ParseEntry(file)->slot;
        std::vector<fs::path> others;
        std::error_code error;
        for (fs::directory_iterator each(Settings().entries, error), end; !error && each != end;
             each.increment(error)) {
            const fs::path name = each->path().filename();
            const auto entry = ParseEntry(name);
            const bool isUnfinished = name.string().starts_with(kPrefix) && name.extension() == ".new";
            if (isUnfinished || (entry && entry->slot == slot && name != file.filename())) {
                others.push_back(each->path());
            }
        }
        for (const fs::path& other : others) {
            if (!error) {
                fs::remove(other, error);
            }
        }
        if (error) {
            return ZError(Settings().entries + ": " + error.message());
        }
        return others.empty() || SyncFolder(Settings().entries) ? ZResult<void>()
                                                                : ZError::OfSystem(Settings().entries, errno);
    }
};

}  // namespace

std::unique_ptr<ZBootControl> MakeLoaderEntries(const ZBootSettings& settings) {
    return std::make_unique<LoaderEntryControl>(settings);
}
