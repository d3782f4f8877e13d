#include "doctor/MountTable.h"

#include <fstream>
#include <sstream>

namespace arborctl::doctor {
namespace {

/// "\040" and the like, as the kernel writes what would break a line.
std::string Unescaped(std::string_view text) {
    constexpr std::size_t kDigits = 3;
    const auto isOctal = [](char letter) { return letter >= '0' && letter <= '7'; };
    std::string plain;
    for (std::size_t place = 0; place < text.size(); ++place) {
        if (text[place] == '\\' && place + kDigits < text.size() && isOctal(text[place + 1]) &&
            isOctal(text[place + 2]) && isOctal(text[place + 3])) {
            plain +=
                static_cast<char>((text[place + 1] - '0') * 64 + (text[place + 2] - '0') * 8 + text[place + 3] - '0');
            place += kDigits;
        } else {
            plain += text[place];
        }
    }
    return plain;
}

bool HasOption(const std::string& options, const std::string& wanted) {
    return ("," + options + ",").find("," + wanted + ",") != std::string::npos;
}

}  // namespace

Mount ParseMount(std::string_view line) {
    std::istringstream words{std::string(line)};
    std::string skipped;
    std::string path;
    std::string options;
    std::string word;
    Mount mount;
    words >> skipped >> skipped >> skipped >> skipped >> path >> options;
    while (words >> word && word != "-") {
        mount.hears = mount.hears || word.starts_with("shared:") || word.starts_with("master:");
    }
    std::string device;
    std::string ofDevice;
    if (!(words >> mount.type >> device)) {
        return {};
    }
    words >> ofDevice;
    mount.path = Unescaped(path);
    mount.device = Unescaped(device);
    mount.isReadOnly = HasOption(options, "ro") || HasOption(ofDevice, "ro");
    mount.isNoExec = HasOption(options, "noexec");
    return mount;
}

std::vector<Mount> OwnMounts() {
    std::vector<Mount> mounts;
    std::ifstream table("/proc/self/mountinfo");
    for (std::string line; std::getline(table, line);) {
        if (Mount mount = ParseMount(line); !mount.path.empty()) {
            mounts.push_back(std::move(mount));
        }
    }
    return mounts;
}

bool LiesIn(const std::string& path, const std::string& folder) {
    return folder == "/" || path == folder || path.starts_with(folder + "/");
}

const Mount* MountOf(const std::vector<Mount>& mounts, const std::string& path) {
    const Mount* found = nullptr;
    for (const Mount& each : mounts) {
        if (LiesIn(path, each.path) && (found == nullptr || each.path.size() >= found->path.size())) {
            found = &each;
        }
    }
    return found;
}

const Mount* MountAt(const std::vector<Mount>& mounts, const std::string& path) {
    const Mount* const found = MountOf(mounts, path);
    return found != nullptr && found->path == path ? found : nullptr;
}

}  // namespace arborctl::doctor
