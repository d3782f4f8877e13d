#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// A version that stands in a slot. Two are the same by slot and by digest, or by version where a digest is not known.
struct ZSlotVersion {
    std::string slot;     ///< the slot's name; empty: none
    std::string version;  ///< empty: not known
    std::string digest;   ///< SHA-256 of its image, 64 hexadecimal digits; empty: not known

    bool IsKnown() const { return !slot.empty() && !(version.empty() && digest.empty()); }
    bool SameAs(const ZSlotVersion& other) const;
};

/// Where a version that was installed stands on its way.
enum class ZTrialStage : std::uint8_t {
    Installed,  ///< the device starts from it next
    Trial,      ///< it runs, and has not proved itself yet
    Reverting,  ///< it failed: the device goes back to the version before
};

/// Of what kind the reason is for which a version is taken back.
enum class ZTrialCause : std::uint8_t {
    Said,     ///< a node or a person said that it does not work
    Check,    ///< a health check did not pass in time
    Late,     ///< nothing told in time that it works
    Starts,   ///< its starts were used up
    NeverUp,  ///< the boot loader, or somebody, started the version before
};

/// Why a version failed.
struct ZTrialFault {
    std::string reason;  ///< a sentence
    ZTrialCause cause = ZTrialCause::Said;
    std::string failedCheck{};  ///< the health check that failed; empty: it was something else
};

/// A version on its way to being confirmed.
struct ZTrial {
    ZSlotVersion version;
    ZTrialStage stage = ZTrialStage::Installed;
    std::uint32_t attempts = 0;  ///< starts that nobody had asked for: after a power cut, a crash, a watchdog
    std::uint32_t restarts = 0;  ///< orderly ones
    std::int64_t since = 0;      ///< milliseconds since 1970, of its first start
    std::uint32_t goneBack = 0;  ///< how often the boot loader was told to leave it
    ZTrialFault fault{};         ///< why it failed, once it has
    std::string bootId{};        ///< of the boot in which it was installed
};

/// How the last trial ended.
struct ZTrialEnd {
    ZSlotVersion version;
    bool bConfirmed = false;
    std::string reason{};       ///< why it was taken back; or by whom it was confirmed
    std::string failedCheck{};  ///< as in ZTrial
    std::int64_t since = 0;     ///< milliseconds since 1970: the trial's beginning, and its end
    std::int64_t at = 0;
    bool bTold = false;    ///< the journal has it
    bool bJudged = false;  ///< the version before was asked what this one failed
    bool bAlike = false;   ///< and failed it too, so it is not this one's fault
};

/// A version that was taken back: it is not offered again until somebody allows it.
struct ZTakenBack {
    std::string version;
    std::string digest;
    std::string reason;
    std::int64_t at = 0;
};

/// How many trials this device has seen, since its state was begun.
struct ZTrialCounts {
    std::uint64_t begun = 0;
    std::uint64_t confirmed = 0;
    std::array<std::uint64_t, 5> takenBack{};  ///< by cause
};

/// What the boot is about to do with the device.
enum class ZBootAction : std::uint8_t {
    GoOn,
    GoBack,  ///< make the confirmed version start next, and restart
};

/// What is known at the start of a boot.
struct ZBootFacts {
    ZSlotVersion running;
    std::string next;  ///< the slot that starts next; empty: not known
    std::string bootId;
    std::int64_t now = 0;           ///< milliseconds since 1970
    std::int64_t clock = 0;         ///< milliseconds by the boot's own clock
    bool bLoaderFallsBack = false;  ///< the boot loader counts for itself, and leaves a version that does not start
    bool bCanGoBack = false;        ///< the confirmed version stands whole in its slot
    std::uint32_t attempts = 3;     ///< so many starts are a trial's budget
    ZSlotVersion wayBack{};         ///< whole, while the loader counts the starts of what runs; else none
};

/// The life of installed versions: which one is confirmed, which one is on trial, what was taken back. Pure: it knows
/// no file and no clock. Every text in it is cut to a length, so that the whole stays below `kLargest` bytes.
struct ZTrialState {
    static constexpr std::size_t kLargest = 16 * 1024 - 128;
    static constexpr std::size_t kMostTakenBack = 16;
    /// Whoever comes up again in a version that it was told to leave so often stays there: one that goes round in
    /// circles serves nobody.
    static constexpr std::uint32_t kMostGoneBack = 2;
    /// A version that restarts in order, and never proves itself, is taken back after so many.
    static constexpr std::uint32_t kMostRestarts = 20;

    std::uint64_t sequence = 0;  ///< counted up by every change that is kept
    ZSlotVersion confirmed;
    std::optional<ZTrial> trial;
    std::optional<ZTrialEnd> last;
    std::vector<ZTakenBack> takenBack;  ///< the newest last
    ZTrialCounts counts{};
    std::string bootId{};        ///< of the last boot that was counted
    std::int64_t bootClock = 0;  ///< milliseconds by that boot's own clock, when it was counted
    bool bOrderly = false;       ///< that boot has ended, or is about to end, in order

    /// Counts a boot, once. What it must do next.
    ZBootAction Begin(const ZBootFacts& facts);
    /// In the boot `inBoot`, another version starts next. Nothing when that is the confirmed one, but for a trial that
    /// had not begun.
    void Install(const ZSlotVersion& next, const std::string& inBoot);
    /// The version on trial has proved itself, or somebody wants it all the same; `by` says how.
    void Confirm(const std::string& by, std::int64_t now);
    /// The version on trial has failed; the device is about to be restarted.
    void Fail(const ZTrialFault& fault);
    /// A person wants the version offered again. False when it was not taken back.
    bool Allow(std::string_view version);
    /// Whether `running` has to prove itself, or failed to and was not left yet.
    bool IsOnTrial(const ZSlotVersion& running) const {
        return trial && trial->stage != ZTrialStage::Installed && trial->version.SameAs(running);
    }
    /// Whether it failed, and is to be left.
    bool IsLeaving() const {
        return trial && trial->stage == ZTrialStage::Reverting && trial->goneBack < kMostGoneBack;
    }
    /// The entry of a version that was taken back; nullptr when it was not. Digests decide where both are known.
    const ZTakenBack* FindTakenBack(std::string_view version, std::string_view digest) const;

    /// As one JSON object.
    std::string ToText() const;
    /// None when it is no such text.
    static std::optional<ZTrialState> Parse(std::string_view text);

private:
    ZBootAction BeginTrial(const ZBootFacts& facts);
    void End(const ZTrialFault& why, std::int64_t now);
};

/// "installed", "trial", "reverting".
const char* ToText(ZTrialStage stage);
/// "said", "check", "late", "starts", "neverUp".
const char* ToText(ZTrialCause cause);
