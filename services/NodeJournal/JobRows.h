#pragma once

#include <string>

#include "Database.h"
#include "ZMessages/OperationMessages.h"

namespace journal {

// A job's row has a column for each field of its message, named by the field's key. A field that is new finds its
// column added when an older file is opened.

/// The columns as they stand behind SELECT and INSERT.
std::string Columns();
/// A "?" for each.
std::string Places();
/// "key"=excluded."key" for each but the id: what a newer row changes in an older one.
std::string Changes();

/// Adds the columns that the table `operations` lacks.
ZResult<void> AddColumns(Database& database);

void BindRow(Statement& statement, const ZOperationMsg& message);
/// Reads the columns, the first of which is `first`.
std::shared_ptr<ZOperationMsg> ReadRow(const Statement& statement, int first);

/// The message with texts that are not too long for a row: itself, or a copy.
std::shared_ptr<ZOperationMsg> Bounded(const std::shared_ptr<ZOperationMsg>& message);

}  // namespace journal
