#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "NodeComm/zmq/LinkKeys.h"

// The devices that this one may talk to, kept in a file: {"peers": [{"name": ..., "publicKey": ..., "address": ...}]}.

/// The pins in the file; none when there is no such file. Nothing, with `error`, when it can't be read or holds
/// something that is no pin.
std::optional<std::vector<ZLinkPin>> LoadPins(const std::filesystem::path& file, std::string& error);

/// Replaces the file, whole or not at all. False, with `error`, when that fails.
bool SavePins(const std::filesystem::path& file, const std::vector<ZLinkPin>& pins, std::string& error);

/// What is wrong with a pin; empty when nothing is.
std::string ProblemWith(const ZLinkPin& pin);
