#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ZBoot/ZBootSettings.h"
#include "ZBoot/ZTrialState.h"

/// The boot loader, as far as updates have to do with it: which slot runs, which one starts next, and what the loader
/// has to know about a version that is on trial. Calls may run programs and wait up to ten seconds for them. One thread
/// uses an object at a time.
class ZBootControl {
public:
    explicit ZBootControl(const ZBootSettings& settings) : m_settings(settings) {}
    virtual ~ZBootControl() = default;
    ZBootControl(const ZBootControl&) = delete;
    ZBootControl& operator=(const ZBootControl&) = delete;

    /// The one that the settings name; an error when there is no such one.
    static ZResult<std::unique_ptr<ZBootControl>> Make(const ZBootSettings& settings);

    /// The slot that the system runs from, and what stands there.
    virtual ZResult<ZSlotVersion> Running() const;
    /// The slot that starts next, and what stands there.
    virtual ZResult<ZSlotVersion> Next() const = 0;
    /// Makes `slot` start next. Where the loader counts starts, it counts those of a version `onTrial`.
    virtual ZResult<void> Activate(const std::string& slot, bool onTrial) = 0;
    /// What runs has proved itself: the loader need not count any more.
    virtual ZResult<void> MarkGood() { return {}; }
    /// The start that the loader has counted was an orderly one.
    virtual ZResult<void> Uncount() { return {}; }
    /// Whether the loader counts starts, and leaves a slot that does not come up.
    virtual bool FallsBack() const { return false; }
    /// Whether it counts now.
    virtual bool Counts() const { return false; }

    /// Has the link "active" beside the slots lead to `slot`: whoever asks what starts next, and knows nothing of boot
    /// loaders, looks there.
    ZResult<void> TurnLink(const std::string& slot) const;

    /// The slots that hold anything, in order, and what stands in each as far as it is known.
    std::vector<ZSlotVersion> Slots() const;
    ZSlotVersion At(const std::string& slot) const;
    /// Whether that version stands whole in its slot, as far as its version and digest tell.
    bool IsWhole(const ZSlotVersion& version) const;

protected:
    const ZBootSettings& Settings() const { return m_settings; }
    /// What stands in the slot that `source` names; an error when that is none.
    ZResult<ZSlotVersion> Named(const std::string& source, const std::string& slot) const;

private:
    const ZBootSettings m_settings;
};

/// A shell command line that runs `command` outside of what this process is confined to, as a unit of the service
/// manager that ends with it; the same where the platform has no units.
std::string OutsideSandbox(const std::string& command);
