#include "ProgressDisplay.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <ostream>
#include <string_view>
#include <utility>

#include "JsonFields.h"
#include "TextFormat.h"

namespace arborctl {
namespace {

constexpr std::size_t kBarCells = 30;
constexpr std::size_t kSmallestBar = 5;
constexpr int kLineStep = 10;
constexpr std::string_view kEraseLine = "\r\x1b[K";

/// A blank-separated block that moves to and fro.
std::string SpinnerBar(std::size_t cells, std::size_t frame) {
    constexpr std::size_t kBlock = 3;
    const std::size_t way = cells - kBlock;
    const std::size_t step = frame % (2 * way);
    std::string bar(cells, ' ');
    bar.replace(step <= way ? step : 2 * way - step, kBlock, "<=>");
    return bar;
}

std::string PercentBar(std::size_t cells, int percent) {
    const std::size_t full = cells * static_cast<std::size_t>(percent) / 100;
    return std::string(full, '#') + std::string(cells - full, '-');
}

std::string PercentText(const Progress& progress) {
    std::array<char, 16> text{"     "};
    if (!progress.spinner) {
        std::snprintf(text.data(), text.size(), "%3d %%", progress.percent);
    }
    return text.data();
}

std::string Outcome(const Progress& progress) {
    return progress.error ? "failed" : "done";
}

std::string Caption(const Progress& progress) {
    const bool both = !progress.header.empty() && !progress.message.empty();
    return progress.header + (both ? ": " : "") + progress.message;
}

}  // namespace

Progress Progress::From(const boost::json::value& message) {
    const auto percent = fields::Number(message, "percent");
    return {Escaped(fields::Text(message, "header")),
            Escaped(fields::Text(message, "message")),
            static_cast<int>(std::clamp<std::int64_t>(percent, 0, 100)),
            fields::Flag(message, "spinner"),
            fields::Flag(message, "error"),
            fields::Flag(message, "done")};
}

void ProgressDisplay::Show(const Progress& progress) {
    const std::size_t columns = m_columns();
    if (columns == 0) {
        ShowLine(progress);
        return;
    }
    if (m_lineOpen && progress.header != m_last.header) {
        End();
    }
    m_last = progress;
    ++m_frame;
    Draw(columns);
    if (progress.done || progress.error) {
        End();
    }
}

void ProgressDisplay::End() {
    if (std::exchange(m_lineOpen, false)) {
        m_out << "\n" << std::flush;
    }
}

bool ProgressDisplay::IsNewStage(const Progress& progress) const {
    return !m_shownAny || progress.header != m_last.header || progress.message != m_last.message ||
           progress.spinner != m_last.spinner || progress.done != m_last.done || progress.error != m_last.error ||
           progress.percent / kLineStep != m_last.percent / kLineStep;
}

void ProgressDisplay::ShowLine(const Progress& progress) {
    if (!IsNewStage(progress)) {
        return;
    }
    m_last = progress;
    m_shownAny = true;
    std::string line = PercentText(progress) + "  " + Caption(progress);
    if (progress.done || progress.error) {
        line += " (" + Outcome(progress) + ")";
    }
    m_out << line << "\n" << std::flush;
}

void ProgressDisplay::Draw(std::size_t columns) {
    constexpr std::size_t kAroundBar = 11;  // brackets, percentage, gaps, and a free last column
    const std::size_t cells = std::clamp(columns / 3, kSmallestBar, kBarCells);
    const bool spinning = m_last.spinner && !m_last.done && !m_last.error;
    const std::string bar = spinning ? SpinnerBar(cells, m_frame) : PercentBar(cells, m_last.percent);
    const std::size_t room = columns > cells + kAroundBar ? columns - cells - kAroundBar : 0;
    m_out << kEraseLine << "[" << bar << "] " << PercentText(m_last) << "  " << Fitted(Caption(m_last), room)
          << std::flush;
    m_lineOpen = true;
}

}  // namespace arborctl
