#pragma once

#include <set>
#include <string>

#include "Database.h"
#include "ZMessages/ZFields.h"

namespace journal {

/// Rows of a table that has a column for each field of a message, named by the field's key. A field that is new finds
/// its column added when an older file is opened.
template <typename Message>
class MessageRows {
public:
    /// The columns as they stand behind SELECT and INSERT.
    static std::string Columns() { return Joined(Quoted); }
    /// A "?" for each.
    static std::string Places() {
        return Joined([](std::string_view) { return std::string("?"); });
    }
    /// "key"=excluded."key" for each but the id: what a newer row changes in an older one.
    static std::string Changes() {
        return Joined([](std::string_view key) {
            return key == "id" ? std::string() : Quoted(key) + "=excluded." + Quoted(key);
        });
    }

    /// Adds the columns that the table lacks.
    static ZResult<void> AddColumns(Database& database, const std::string& table) {
        std::set<std::string> present;
        Statement columns(database, "SELECT name FROM pragma_table_info('" + table + "')");
        columns.Start();
        while (columns.Next()) {
            present.insert(ToStdString(columns.Text(0)));
        }
        ZResult<void> outcome = columns.End();
        ForEachField([&](const auto& field) {
            if (outcome && !present.contains(std::string(field.key))) {
                outcome = database.Run(("ALTER TABLE " + table + " ADD COLUMN " + Quoted(field.key) +
                                        (kIsText<std::decay_t<decltype(field)>> ? " TEXT NOT NULL DEFAULT ''"
                                                                                : " INTEGER NOT NULL DEFAULT 0"))
                                           .c_str());
            }
        });
        return outcome;
    }

    static void Bind(Statement& statement, const Message& message) {
        ForEachField([&](const auto& field) {
            if constexpr (kIsText<std::decay_t<decltype(field)>>) {
                statement.Bind(std::string_view(message.*field.member));
            } else {
                statement.Bind(static_cast<std::int64_t>(message.*field.member));
            }
        });
    }

    /// Reads the columns, the first of which is `first`.
    static std::shared_ptr<Message> Read(const Statement& statement, int first) {
        auto message = ZMakeShared<Message>();
        int column = first;
        ForEachField([&](const auto& field) {
            auto& member = (*message).*field.member;
            if constexpr (kIsText<std::decay_t<decltype(field)>>) {
                member = statement.Text(column);
            } else {
                member = static_cast<std::decay_t<decltype(member)>>(statement.Number(column));
            }
            ++column;
        });
        return message;
    }

    /// The message with texts that are not longer than so many bytes: itself, or a copy.
    static std::shared_ptr<Message> Bounded(const std::shared_ptr<Message>& message, std::size_t longest) {
        std::shared_ptr<Message> copy;
        ForEachField([&](const auto& field) {
            if constexpr (kIsText<std::decay_t<decltype(field)>>) {
                const ZString& text = (*message).*field.member;
                if (text.size() <= longest) {
                    return;
                }
                if (!copy) {
                    copy = ZMakeShared<Message>();
                    copy->CloneDataMembers(*message);
                }
                ((*copy).*field.member).resize(CutAt(text, longest));
            }
        });
        return copy ? copy : message;
    }

private:
    template <typename Field>
    static constexpr bool kIsText =
        std::is_same_v<std::decay_t<decltype(std::declval<Message>().*(std::declval<Field>().member))>, ZString>;

    template <typename Work>
    static void ForEachField(const Work& work) {
        std::apply([&](const auto&... field) { (work(field), ...); }, Message::Fields());
    }

    static std::string Quoted(std::string_view key) { return '"' + std::string(key) + '"'; }

    /// What `part` makes of each key, with commas between.
    template <typename Part>
    static std::string Joined(const Part& part) {
        std::string text;
        ForEachField([&](const auto& field) {
            const std::string next = part(field.key);
            text += (text.empty() || next.empty() ? "" : ",") + next;
        });
        return text;
    }

    /// The longest beginning that fits and does not end within a character.
    static std::size_t CutAt(std::string_view text, std::size_t size) {
        while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xC0U) == 0x80U) {
            --size;
        }
        return size;
    }
};

}  // namespace journal
