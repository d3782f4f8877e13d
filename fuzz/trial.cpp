#include "Fuzz.h"
#include "ZBoot/ZTrialState.h"

// The state of trials: whatever is read is kept in bounds, and the same when it is written and read again.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto state = ZTrialState::Parse(fuzz::Text(data, size));
    if (!state) {
        return 0;
    }
    const ZBootFacts facts{.running = {"B", "2", ""}, .next = "B", .bootId = "fuzz", .bCanGoBack = true};
    state->Begin(facts);
    state->Fail({"fuzz", ZTrialCause::Check, "fuzz"});
    const std::string text = state->ToText();
    fuzz::Must(text.size() < ZTrialState::kLargest, "it fits its place in the file");
    const auto again = ZTrialState::Parse(text);
    fuzz::Must(again && again->ToText() == text, "it is the same when it is read again");
    return 0;
}
