#include "ZBoot/ZBootControl.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "ZBoot/ZLoaderEntries.h"
#include "ZShared/ZFileDescriptor.h"
#include "ZShared/ZPlatform.h"

namespace fs = std::filesystem;

namespace {

constexpr std::array<const char*, 2> kNames{"A", "B"};
constexpr std::string_view kWord = "arbor.slot=";
constexpr std::size_t kLongestText = 4096;
constexpr std::chrono::seconds kPatience{10};

/// What a small file says, without the blanks around it; empty when it can't be read.
std::string ReadText(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    std::string text(kLongestText, '\0');
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(std::max<std::streamsize>(stream.gcount(), 0)));
    constexpr const char* kBlanks = " \t\r\n";
    const auto begin = text.find_first_not_of(kBlanks);
    return begin == std::string::npos ? std::string() : text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

struct Answer {
    std::string text;
};

ZResult<Answer> Run(const std::string& command) {
    Answer answer;
    if (!ZPlatform::ExecuteCommand(OutsideSandbox(command), answer.text, kPatience, command)) {
        return ZError("'" + command + "' failed" + (answer.text.empty() ? "" : ": " + answer.text.substr(0, 200)));
    }
    return answer;
}

ZResult<void> RunOnly(const std::string& command) {
    const auto done = Run(command);
    return done ? ZResult<void>() : done.error();
}

fs::path LinkOf(const fs::path& slots) {
    return slots / "active";
}

/// The slot that the link leads to.
ZResult<Answer> LinkedSlot(const fs::path& slots) {
    std::error_code error;
    const fs::path target = fs::read_symlink(LinkOf(slots), error);
    if (error) {
        return ZError(LinkOf(slots).string() + ": " + error.message());
    }
    return Answer{(target.filename().empty() ? target.parent_path() : target).filename().string()};
}

bool SyncFolder(const fs::path& folder) {
    const ZFileDescriptor descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return descriptor && ::fsync(descriptor.Get()) == 0;
}

/// A link beside the slots leads to the one that starts next. Nobody but the start of the boot counts.
class LinkControl : public ZBootControl {
public:
    using ZBootControl::ZBootControl;

    ZResult<ZSlotVersion> Next() const override {
        const auto slot = LinkedSlot(Settings().slots);
        return slot ? Named(LinkOf(Settings().slots).string(), slot->text) : slot.error();
    }
    ZResult<void> Activate(const std::string& slot, bool /*onTrial*/) override { return TurnLink(slot); }
};

/// Variables that the boot loader reads: the slot, "upgrade_available" while its starts are counted, "bootcount".
class EnvironmentControl : public ZBootControl {
public:
    using ZBootControl::ZBootControl;

    ZResult<ZSlotVersion> Next() const override {
        const auto text = Run(Settings().printEnvironment + " -n " + Settings().slotVariable);
        return text ? Named("the boot environment", text->text) : text.error();
    }
    ZResult<void> Activate(const std::string& slot, bool onTrial) override {
        return Set({{Settings().slotVariable, slot}, {"bootcount", "0"}, {"upgrade_available", onTrial ? "1" : "0"}});
    }
    ZResult<void> MarkGood() override { return Set({{"bootcount", "0"}, {"upgrade_available", "0"}}); }
    ZResult<void> Uncount() override { return Set({{"bootcount", "0"}}); }
    bool FallsBack() const override { return true; }
    bool Counts() const override {
        const auto text = Run(Settings().printEnvironment + " -n upgrade_available");
        return text && text->text == "1";
    }

private:
    using Variables = std::vector<std::pair<std::string, std::string>>;

    /// All in one write, so that a power cut leaves all of them or none.
    ZResult<void> Set(const Variables& variables) const {
        std::string script;
        for (const auto& [name, value] : variables) {
            script.append(name).append("=").append(value).append("\\n");
        }
        return RunOnly("printf '" + script + "' | " + Settings().setEnvironment + " -s -");
    }
};

/// A program of the device's builder.
class CommandControl : public ZBootControl {
public:
    using ZBootControl::ZBootControl;

    ZResult<ZSlotVersion> Running() const override { return Asked("running"); }
    ZResult<ZSlotVersion> Next() const override { return Asked("next"); }
    ZResult<void> Activate(const std::string& slot, bool /*onTrial*/) override {
        return RunOnly(Settings().command + " activate " + slot);
    }
    ZResult<void> MarkGood() override { return RunOnly(Settings().command + " good"); }

private:
    ZResult<ZSlotVersion> Asked(const char* what) const {
        const auto text = Run(Settings().command + " " + what);
        return text ? Named("'" + Settings().command + "'", text->text) : text.error();
    }
};

}  // namespace

ZResult<std::unique_ptr<ZBootControl>> ZBootControl::Make(const ZBootSettings& settings) {
    if (settings.control == "link") {
        return std::unique_ptr<ZBootControl>(std::make_unique<LinkControl>(settings));
    }
    if (settings.control == "uboot-env") {
        return std::unique_ptr<ZBootControl>(std::make_unique<EnvironmentControl>(settings));
    }
    if (settings.control == "systemd-boot") {
        return MakeLoaderEntries(settings);
    }
    if (settings.control == "command" && !settings.command.empty()) {
        return std::unique_ptr<ZBootControl>(std::make_unique<CommandControl>(settings));
    }
    return ZError("there is no boot control '" + settings.control + "', or its command is missing");
}

ZResult<ZSlotVersion> ZBootControl::Running() const {
    std::istringstream words(ReadText(m_settings.kernelCommandLine));
    std::string told;
    for (std::string word; words >> word;) {
        if (word.starts_with(kWord)) {
            told = word.substr(kWord.size());
        }
    }
    if (!told.empty()) {
        return Named(m_settings.kernelCommandLine, told);
    }
    return Named(m_settings.runningSlotFile, ReadText(m_settings.runningSlotFile));
}

ZResult<ZSlotVersion> ZBootControl::Named(const std::string& source, const std::string& slot) const {
    if (std::ranges::find(kNames, slot) == kNames.end()) {
        return ZError(source + " names '" + slot.substr(0, 40) + "' as a slot, not A or B");
    }
    return At(slot);
}

ZResult<void> ZBootControl::TurnLink(const std::string& slot) const {
    const fs::path link = LinkOf(m_settings.slots);
    const auto before = LinkedSlot(m_settings.slots);
    if (before && before->text == slot) {
        return {};
    }
    const fs::path fresh = fs::path(m_settings.slots) / ".active.new";
    std::error_code error;
    fs::remove(fresh, error);
    fs::create_symlink(slot, fresh, error);
    if (!error) {
        fs::rename(fresh, link, error);
    }
    if (error) {
        return ZError(link.string() + ": " + error.message());
    }
    return SyncFolder(m_settings.slots) ? ZResult<void>() : ZError::OfSystem(m_settings.slots, errno);
}

std::vector<ZSlotVersion> ZBootControl::Slots() const {
    std::vector<ZSlotVersion> found;
    for (const char* const name : kNames) {
        if (ZSlotVersion version = At(name); version.IsKnown()) {
            found.push_back(std::move(version));
        }
    }
    return found;
}

ZSlotVersion ZBootControl::At(const std::string& slot) const {
    const fs::path folder = fs::path(m_settings.slots) / slot;
    return {.slot = slot, .version = ReadText(folder / "version"), .digest = ReadText(folder / "digest")};
}

bool ZBootControl::IsWhole(const ZSlotVersion& version) const {
    return version.IsKnown() && At(version.slot).SameAs(version);
}

std::string OutsideSandbox(const std::string& command) {
    if (!ZPlatform::HasUnits()) {
        return command;
    }
    std::string quoted;
    for (const char letter : command) {
        // The service manager reads dollar signs before the shell does.
        quoted += letter == '\'' ? "'\\''" : letter == '$' ? "$$" : std::string(1, letter);
    }
    return "exec systemd-run --quiet --collect --wait --pipe --description='Arbor boot and health' -- /bin/sh -c '" +
           quoted + "'";
}
