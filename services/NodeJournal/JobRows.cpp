#include "JobRows.h"

#include <set>

namespace journal {

namespace {

constexpr std::size_t kLongestText = 4096;

template <typename Work>
void ForEachField(const Work& work) {
    std::apply([&](const auto&... field) { (work(field), ...); }, ZOperationMsg::Fields());
}

std::string Quoted(std::string_view key) {
    return '"' + std::string(key) + '"';
}

/// What `part` makes of each key, with commas between.
template <typename Part>
std::string Joined(const Part& part) {
    std::string text;
    ForEachField([&](const auto& field) {
        const std::string next = part(field.key);
        text += (text.empty() || next.empty() ? "" : ",") + next;
    });
    return text;
}

template <typename Field>
constexpr bool IsText(const Field& field) {
    return std::is_same_v<std::decay_t<decltype(std::declval<ZOperationMsg>().*field.member)>, ZString>;
}

/// The longest beginning that fits and does not end within a character.
std::size_t CutAt(std::string_view text) {
    std::size_t size = kLongestText;
    while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xC0U) == 0x80U) {
        --size;
    }
    return size;
}

}  // namespace

std::string Columns() {
    return Joined(Quoted);
}

std::string Places() {
    return Joined([](std::string_view) { return std::string("?"); });
}

std::string Changes() {
    return Joined(
        [](std::string_view key) { return key == "id" ? std::string() : Quoted(key) + "=excluded." + Quoted(key); });
}

ZResult<void> AddColumns(Database& database) {
    std::set<std::string> present;
    Statement columns(database, "SELECT name FROM pragma_table_info('operations')");
    columns.Start();
    while (columns.Next()) {
        present.insert(ToStdString(columns.Text(0)));
    }
    ZResult<void> outcome = columns.End();
    ForEachField([&](const auto& field) {
        if (outcome && !present.contains(std::string(field.key))) {
            outcome = database.Run(("ALTER TABLE operations ADD COLUMN " + Quoted(field.key) +
                                    (IsText(field) ? " TEXT NOT NULL DEFAULT ''" : " INTEGER NOT NULL DEFAULT 0"))
                                       .c_str());
        }
    });
    return outcome;
}

void BindRow(Statement& statement, const ZOperationMsg& message) {
    ForEachField([&](const auto& field) {
        if constexpr (std::is_same_v<std::decay_t<decltype(message.*field.member)>, ZString>) {
            statement.Bind(std::string_view(message.*field.member));
        } else {
            statement.Bind(static_cast<std::int64_t>(message.*field.member));
        }
    });
}

std::shared_ptr<ZOperationMsg> ReadRow(const Statement& statement, int first) {
    auto message = Z_MAKE(ZOperationMsg);
    int column = first;
    ForEachField([&](const auto& field) {
        auto& member = (*message).*field.member;
        if constexpr (std::is_same_v<std::decay_t<decltype(member)>, ZString>) {
            member = statement.Text(column);
        } else {
            member = static_cast<std::decay_t<decltype(member)>>(statement.Number(column));
        }
        ++column;
    });
    return message;
}

std::shared_ptr<ZOperationMsg> Bounded(const std::shared_ptr<ZOperationMsg>& message) {
    std::shared_ptr<ZOperationMsg> copy;
    ForEachField([&](const auto& field) {
        if constexpr (std::is_same_v<std::decay_t<decltype((*message).*field.member)>, ZString>) {
            const ZString& text = (*message).*field.member;
            if (text.size() <= kLongestText) {
                return;
            }
            if (!copy) {
                copy = Z_MAKE(ZOperationMsg);
                copy->CloneDataMembers(*message);
            }
            ((*copy).*field.member).resize(CutAt(text));
        }
    });
    return copy ? copy : message;
}

}  // namespace journal
