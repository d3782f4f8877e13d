#include "ZBoot/ZBootSettings.h"

#include <algorithm>
#include <array>
#include <boost/json.hpp>
#include <fstream>

namespace json = boost::json;

namespace {

constexpr std::size_t kLargest = std::size_t{64} * 1024;
constexpr std::int64_t kMostAttempts = 100;

struct TextSetting {
    const char* key;
    std::string ZBootSettings::*member;
};
constexpr std::array kTexts{TextSetting{"control", &ZBootSettings::control},
                            TextSetting{"slots", &ZBootSettings::slots},
                            TextSetting{"state", &ZBootSettings::state},
                            TextSetting{"runningSlotFile", &ZBootSettings::runningSlotFile},
                            TextSetting{"kernelCommandLine", &ZBootSettings::kernelCommandLine},
                            TextSetting{"bootIdFile", &ZBootSettings::bootIdFile},
                            TextSetting{"command", &ZBootSettings::command},
                            TextSetting{"slotVariable", &ZBootSettings::slotVariable},
                            TextSetting{"printEnvironment", &ZBootSettings::printEnvironment},
                            TextSetting{"setEnvironment", &ZBootSettings::setEnvironment},
                            TextSetting{"entries", &ZBootSettings::entries},
                            TextSetting{"restart", &ZBootSettings::restart}};

/// What is wrong with the setting; empty when it was taken.
std::string Take(ZBootSettings& settings, std::string_view key, const json::value& value) {
    if (key == "attempts") {
        boost::system::error_code error;
        const auto number = value.to_number<std::int64_t>(error);
        if (error || number < 1 || number > kMostAttempts) {
            return "it must be a number from 1 to " + std::to_string(kMostAttempts);
        }
        settings.attempts = static_cast<std::uint32_t>(number);
        return {};
    }
    const auto setting = std::ranges::find_if(kTexts, [&](const TextSetting& each) { return key == each.key; });
    if (setting == kTexts.end()) {
        return "there is no such setting";
    }
    if (!value.is_string() || value.get_string().empty()) {
        return "it must be a text";
    }
    settings.*(setting->member) = value.get_string();
    return {};
}

}  // namespace

ZResult<ZBootSettings> ZBootSettings::Load(const std::string& file) {
    ZBootSettings settings;
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        return errno == ENOENT ? ZResult<ZBootSettings>(settings) : ZError::OfSystem(file, errno);
    }
    std::string text(kLargest, '\0');
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(stream.gcount()));
    boost::system::error_code error;
    const json::value from = json::parse(text, error);
    if (error || !from.is_object()) {
        return ZError(file + ": it is no JSON object");
    }
    for (const auto& [key, value] : from.get_object()) {
        if (const std::string wrong = Take(settings, key, value); !wrong.empty()) {
            return ZError(wrong).In(std::string(key)).In(file);
        }
    }
    return settings;
}
