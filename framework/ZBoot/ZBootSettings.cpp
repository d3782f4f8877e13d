#include "ZBoot/ZBootSettings.h"

#include <algorithm>
#include <array>
#include <boost/json.hpp>
#include <fstream>

namespace json = boost::json;

namespace {

constexpr std::size_t kLargest = std::size_t{64} * 1024;
constexpr std::int64_t kMostAttempts = 100;
constexpr const char* kAttempts = "attempts";

struct TextSetting {
    const char* key;
    std::string ZBootSettings::*member;
    const char* meaning;
};
constexpr std::array kTexts{
    TextSetting{"control", &ZBootSettings::control, "Who decides which slot starts next."},
    TextSetting{"slots", &ZBootSettings::slots,
                "The slots' folder: A and B, each with the files version and digest, and the link active."},
    TextSetting{"state", &ZBootSettings::state, "The file with the state of trials, on storage that an update keeps."},
    TextSetting{
        "runningSlotFile", &ZBootSettings::runningSlotFile,
        "Where the boot tells the slot that it started from, when the kernel's command line has no arbor.slot=."},
    TextSetting{"kernelCommandLine", &ZBootSettings::kernelCommandLine, "The file with the kernel's command line."},
    TextSetting{"bootIdFile", &ZBootSettings::bootIdFile, "The file that tells one boot from another."},
    TextSetting{"command", &ZBootSettings::command,
                "Of the control command: a shell command, which gets running, next, activate SLOT or good as further "
                "words; the first two print a slot."},
    TextSetting{"slotVariable", &ZBootSettings::slotVariable,
                "Of the control uboot-env: the variable with the slot that starts next."},
    TextSetting{"printEnvironment", &ZBootSettings::printEnvironment,
                "Of the control uboot-env: the command that prints a variable."},
    TextSetting{"setEnvironment", &ZBootSettings::setEnvironment,
                "Of the control uboot-env: the command that writes variables, all at once."},
    TextSetting{"entries", &ZBootSettings::entries,
                "Of the control systemd-boot: the folder with the loader's entries, on the EFI system partition."},
    TextSetting{"restart", &ZBootSettings::restart, "The shell command that restarts the device."}};
constexpr std::array kControls{"link", "uboot-env", "systemd-boot", "command"};

/// What is wrong with the setting; empty when it was taken.
std::string Take(ZBootSettings& settings, std::string_view key, const json::value& value) {
    if (key == kAttempts) {
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

json::object Described(const TextSetting& setting) {
    json::object schema{{"type", "string"}, {"minLength", 1}};
    if (setting.member == &ZBootSettings::control) {
        schema = {{"enum", json::array(kControls.begin(), kControls.end())}};
    }
    if (const std::string standard = ZBootSettings{}.*(setting.member); !standard.empty()) {
        schema["default"] = standard;
    }
    schema["description"] = setting.meaning;
    return schema;
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

std::string ZBootSettings::Schema() {
    json::object properties;
    for (const TextSetting& setting : kTexts) {
        properties[setting.key] = Described(setting);
    }
    properties[kAttempts] = {{"type", "integer"},
                             {"minimum", 1},
                             {"maximum", kMostAttempts},
                             {"default", ZBootSettings{}.attempts},
                             {"description", "Starts that a version has to prove itself."}};
    return json::serialize(json::object{{"$schema", "http://json-schema.org/draft-07/schema#"},
                                        {"title", "How the device boots"},
                                        {"type", "object"},
                                        {"additionalProperties", false},
                                        {"properties", std::move(properties)}});
}
