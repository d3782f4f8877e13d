#pragma once

#include "NodeBase/ZGraph.h"
#include "Scratch.h"
#include "ZNodeArborInstall.h"
#include "ZShared/ZPlatform.h"

/// What a node needs of its machine: identity, archive ("archive"), updates folder ("updates") and an installed system
/// in `scratch`.
struct InstallSettings {
    explicit InstallSettings(const Scratch& scratch);
    /// Makes this the machine; the newest settings' is it at first.
    void UseMachine() const { ZPlatform::Configure(platform); }

    ZPlatformSettings platform;

    std::shared_ptr<ZCoreConfigParams> core = ZMakeShared<ZCoreConfigParams>();
    std::shared_ptr<ZNodeArborInstallCfg> record = ZMakeShared<ZNodeArborInstallCfg>("ArborInstall");
};

/// The manifest of a version with three components.
std::string ManifestText(const std::string& version);

/// A node that is configured and not part of a graph. Throws std::runtime_error when it refuses its settings.
std::shared_ptr<ZNodeArborInstall> MakeInstallNode(const InstallSettings& settings);

/// Adds a node to a graph and returns it. Throws std::runtime_error when it can't be set up.
std::shared_ptr<ZNode> AddNode(ZGraph& graph, const char* className, const ZString& name,
                               const std::shared_ptr<ZConfig>& record = nullptr);

/// Tells a graph's nodes that it is complete. Throws std::runtime_error when one reports failure.
void StartGraph(ZGraph& graph);
