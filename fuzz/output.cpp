#include <algorithm>

#include "Fuzz.h"
#include "ShellText.h"
#include "ZShared/ZLineSplitter.h"

namespace {

/// The lines of a command's output that comes in pieces of `step` bytes.
std::vector<std::string> Lines(std::string_view output, std::size_t step) {
    std::vector<std::string> lines;
    ZLineSplitter splitter([&](const std::string& line) { lines.push_back(line); });
    for (; !output.empty(); output.remove_prefix(std::min(step, output.size()))) {
        splitter.Add(output.substr(0, step));
    }
    splitter.Finish();
    return lines;
}

}  // namespace

// What commands print: a name's address, and how far a copy is.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::regex pattern(kProgressPattern);
    std::string_view rest = fuzz::Text(data, size);
    const std::size_t step = fuzz::TakeByte(rest) + 1U;
    const auto lines = Lines(rest, step);
    fuzz::Must(lines == Lines(rest, rest.size() + 1), "pieces make no difference");
    for (const std::string& line : lines) {
        fuzz::Must(line.size() <= ZLineSplitter::kLongest, "a line has its bound");
        const auto digits = FirstGroupIn(line, pattern);
        fuzz::Must(!digits || std::stoul(*digits) < 1000, "a percentage is a number");
    }
    const std::string text(rest);
    fuzz::Must(!IsIPv4Address(WithoutTrailingSpace(text)) || IsPlainShellWord(WithoutTrailingSpace(text)),
               "an address can stand in a command line");
    return 0;
}
