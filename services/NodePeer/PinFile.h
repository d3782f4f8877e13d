#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "NodeComm/ZNodeLink.h"

// The devices that this one may talk to, kept in a file: {"peers": [{"name": ..., "publicKey": ..., "address": ...,
// "serialNumber": ...}]}. A pin without a serial number is one whose device has not introduced itself yet.

/// The pins in the file; none when there is no such file. An error that names it when it can't be read or holds
/// something that is not a pin for this kind of link.
ZResult<std::vector<ZLinkPin>> LoadPins(const std::filesystem::path& file, const ZNodeLink& link);

/// Replaces the file, whole or not at all.
ZResult<void> SavePins(const std::filesystem::path& file, const std::vector<ZLinkPin>& pins);

/// What is wrong with a pin; empty when nothing is.
std::string ProblemWith(const ZLinkPin& pin, const ZNodeLink& link);
