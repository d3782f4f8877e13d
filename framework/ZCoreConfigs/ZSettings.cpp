#include "ZCoreConfigs/ZSettings.h"

namespace {

std::string Complaint(const char* key, const std::string& value, const std::string& wanted) {
    return '"' + std::string(key) + "\" is " + value + "; it must be " + wanted;
}

/// Collects what is wrong with a record's values.
class SettingsCheck {
public:
    explicit SettingsCheck(const ZEnvironment* environment) : m_environment(environment) {}

    void Visit(const ZFieldInfo& field, const ZFieldValue& value) {
        const ZFieldRule& rule = field.rule;
        if (const auto* const number = std::get_if<std::int64_t>(&value); number != nullptr) {
            if (rule.kind == ZFieldRule::Kind::Range && (*number < rule.least || *number > rule.most)) {
                Add(field, std::to_string(*number),
                    "a number from " + std::to_string(rule.least) + " to " + std::to_string(rule.most));
            }
        } else if (auto* const* const text = std::get_if<ZString*>(&value)) {
            CheckText(field, **text);
        } else if (auto* const* const list = std::get_if<ZVector<ZString>*>(&value)) {
            for (ZString& element : **list) {
                CheckText(field, element);
            }
        }
    }
    std::vector<ZSettingError> Take() { return std::move(m_errors); }

private:
    void Add(const ZFieldInfo& field, const std::string& value, const std::string& wanted) {
        const std::string key(field.key);
        m_errors.push_back({key, Complaint(key.c_str(), value, wanted)});
    }

    void CheckText(const ZFieldInfo& field, ZString& text) {
        const ZFieldRule& rule = field.rule;
        if (text.empty() && rule.bMayBeEmpty) {
            return;
        }
        const std::string given = '"' + ToStdString(text) + '"';
        if (rule.kind == ZFieldRule::Kind::Path && !ResolvePath(text)) {
            Add(field, given, "an absolute path whose variables are set");
        } else if (rule.fits != nullptr && !rule.fits(text)) {
            Add(field, given, rule.wanted);
        }
    }

    bool ResolvePath(ZString& text) const {
        std::filesystem::path path(text);
        if (m_environment != nullptr && !m_environment->ResolveEnvVarsInPath(std::filesystem::path(text), path)) {
            return false;
        }
        path = path.lexically_normal();
        if (!path.is_absolute()) {
            return false;
        }
        text = ToZString((path.has_filename() || path == path.root_path() ? path : path.parent_path()).string());
        return true;
    }

    const ZEnvironment* m_environment;
    std::vector<ZSettingError> m_errors;
};

}  // namespace

std::vector<ZSettingError> CheckSettings(ZConfig& record) {
    if (record.m_bChecked) {
        return {};
    }
    SettingsCheck check(record.Environment().get());
    record.VisitFields([&check](const ZFieldInfo& field, const ZFieldValue& value) { check.Visit(field, value); });
    auto errors = check.Take();
    if (errors.empty()) {
        errors = record.Conflicts();
    }
    record.m_bChecked = errors.empty();
    return errors;
}
