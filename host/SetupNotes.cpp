#include "SetupNotes.h"

#include <algorithm>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

bool IsThere(const std::string& path) {
    std::error_code error;
    return fs::exists(path, error);
}

/// Whether the folder has anything that says who is trusted.
bool TrustsAnybody(const std::string& folder) {
    std::error_code error;
    return std::ranges::any_of(fs::directory_iterator(folder, error), [](const fs::directory_entry& file) {
        const fs::path end = file.path().extension();
        return end == ".json" || end == ".pem" || end == ".crt";
    });
}

/// Looks at one graph, and collects what it lacks.
class SetupReader {
public:
    SetupReader(const GraphFile& file, const std::vector<std::shared_ptr<ZConfig>>& records, const GraphErrors& read)
        : m_file(file), m_records(records), m_notes(read) {}

    std::vector<std::string> Read() {
        LookAtPlatform();
        LookAtNodes();
        LookAtUpdates();
        LookAtTrial();
        LookAtGateway();
        return m_notes.All();
    }

private:
    void LookAtPlatform() {
        const GraphPlace platform = GraphPlace().Member("platform");
        const std::string& eeprom = m_file.platform.eepromPath;
        if (m_file.platform.identity) {
            m_notes.Add(platform, "identity", "the identity is simulated: take \"identity\" out, and set \"eeprom\"");
        } else if (eeprom.empty()) {
            m_notes.Add(platform, "without \"eeprom\" the device knows no board, and no package is for it");
        } else if (!IsThere(eeprom)) {
            m_notes.Add(platform, "eeprom", "\"eeprom\": there is no " + eeprom);
        }
        if (!m_file.platform.mounts.empty()) {
            m_notes.Add(platform, "mounts", "mounts are simulated: take \"mounts\" out");
        }
        if (m_file.core->UpdatesFolder().empty()) {
            m_notes.Add(GraphPlace().Member("core"), "without \"updatesFolder\" nothing can be uploaded");
        }
    }

    void LookAtNodes() {
        for (const auto& [name, lack] :
             {std::pair{"ZNodeArborInstall", "nothing is installed"}, std::pair{"ZNodeStorage", "no stick is seen"},
              std::pair{"ZNodeDeviceProps", "nobody tells what device it is"},
              std::pair{"ZNodeJournal", "nobody keeps what was done, and by whom"},
              std::pair{"ZNodeTrial", "a version that does not work is not taken back"},
              std::pair{"ZNodeGateway", "nobody can ask it anything"}}) {
            if (Find(name) == nullptr) {
                m_notes.Add(GraphPlace().Member("nodes"), std::string("without a ") + name + ' ' + lack);
            }
        }
    }

    void LookAtUpdates() {
        const GraphNode* const node = Find("ZNodeArborInstall");
        if (node == nullptr) {
            return;
        }
        const std::string device = Setting(*node, "ArchiveDevice");
        const std::string manifest = Setting(*node, "SystemInfoFilePath");
        const std::string signers = Setting(*node, "TrustedSigners");
        if (device.empty()) {
            Note(*node, "ArchiveDevice", "is not set: there is nowhere to install to");
        } else if (ZPlatform::GetMountPointFromDevice(device).empty()) {
            Note(*node, "ArchiveDevice", device + " is not mounted here");
        }
        if (manifest.empty() || !IsThere(manifest)) {
            Note(*node, "SystemInfoFilePath",
                 manifest.empty() ? "is not set: the installed version is not known"
                                  : "there is no " + manifest + ": the installed version is not known");
        }
        if (signers.empty()) {
            Note(*node, "TrustedSigners", "is not set: everybody's packages run");
        } else if (!TrustsAnybody(signers)) {
            Note(*node, "TrustedSigners", "nobody is named in " + signers + ": no package is accepted");
        }
    }

    void LookAtTrial() {
        const GraphNode* const node = Find("ZNodeTrial");
        if (node != nullptr) {
            const std::string settings = Setting(*node, "bootSettings");
            const std::string file = settings.empty() ? "/etc/arbor/boot.json" : settings;
            if (!IsThere(file)) {
                Note(*node, "bootSettings", "there is no " + file + ": versions are not judged");
            }
        }
    }

    void LookAtGateway() {
        const GraphNode* const node = Find("ZNodeGateway");
        if (node != nullptr && Setting(*node, "developerMode") == "true") {
            Note(*node, "developerMode", "is on: whoever may administer can have any file run");
        }
    }

    const GraphNode* Find(const std::string& className) const {
        const auto found = std::ranges::find(m_file.nodes, className, &GraphNode::className);
        return found == m_file.nodes.end() ? nullptr : &*found;
    }

    /// A text or a flag of the node's record, as it was read; empty when it has none.
    std::string Setting(const GraphNode& node, std::string_view key) const {
        const auto& record = m_records[static_cast<std::size_t>(&node - m_file.nodes.data())];
        std::string setting;
        if (record) {
            record->VisitFields([&](const ZFieldInfo& field, const ZFieldValue& value) {
                if (std::string_view(field.key) != key) {
                    return;
                }
                if (const auto* const text = std::get_if<ZString*>(&value)) {
                    setting = ToStdString(**text);
                } else if (const auto* const flag = std::get_if<bool>(&value)) {
                    setting = *flag ? "true" : "false";
                }
            });
        }
        return setting;
    }

    void Note(const GraphNode& node, const std::string& key, const std::string& text) {
        const bool isSet = node.config && node.config->contains(key);
        const GraphPlace config = isSet ? node.place.Member("config") : node.place;
        const std::string what = '"' + key + "\" " + text;
        isSet ? m_notes.Add(config, key, what) : m_notes.Add(config, what);
    }

    const GraphFile& m_file;
    const std::vector<std::shared_ptr<ZConfig>>& m_records;
    GraphErrors m_notes;
};

}  // namespace

std::vector<std::string> NotesOnSetup(const GraphFile& file, const std::vector<std::shared_ptr<ZConfig>>& records,
                                      const GraphErrors& read) {
    return SetupReader(file, records, read).Read();
}
