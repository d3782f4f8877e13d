#pragma once

#include <string>

/// What is known of how this device boots, and what is wrong with it, as one JSON object (docs/trial.md): "control",
/// "running" and "next" (slots; empty: not known), "slots", "state", "confirmed", "confirmedWhole", and "problems", a
/// list of {"about", "text"}. Changes nothing.
struct BootCheck {
    std::string text;
    bool isWell = false;
};
BootCheck CheckBoot(const std::string& settingsFile);
