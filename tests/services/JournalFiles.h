#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>

#include "ZMessages/OperationMessages.h"

/// What another program, or another release of this one, does to the journal's file.
inline void ChangeDatabase(const std::filesystem::path& file, const char* statements) {
    sqlite3* database = nullptr;
    EXPECT_EQ(::sqlite3_open(file.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(::sqlite3_exec(database, statements, nullptr, nullptr, nullptr), SQLITE_OK);
    ::sqlite3_close(database);
}

inline std::shared_ptr<ZOperationMsg> Job(const std::string& id, ZOperationState state, std::int32_t process = 0) {
    auto message = ZMakeShared<ZOperationMsg>();
    message->m_Id = ToZString(id);
    message->m_State = state;
    message->m_ProcessId = process;
    return message;
}
