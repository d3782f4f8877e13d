#include "ConfinementTrial.h"

#include <optional>
#include <system_error>

#include "TransientUnit.h"
#include "ZShared/ZPlatform.h"
#include "ZShared/ZStopEvent.h"

namespace {

ZResult<void> Try(const std::string& line) {
    const auto unit = TransientUnit::ForCheck(ConfinementTrial::kLimit);
    std::string output;
    if (ZPlatform::ExecuteCommand(unit ? unit->CommandLine(line) + " 2>&1" : line, output, ConfinementTrial::kLimit)) {
        return {};
    }
    if (unit) {
        unit->End();  // who waited for it was ended, it was perhaps not
    }
    return ZError("checks can't be confined: " + output);
}

std::shared_future<ZResult<void>> Known(const ZResult<void>& outcome) {
    std::promise<ZResult<void>> known;
    known.set_value(outcome);
    return known.get_future().share();
}

}  // namespace

ConfinementTrial::ConfinementTrial(std::string line, Told told) {
    const auto run = [line = std::move(line), told, stop = ZStopEvent::OfThisThread()]() -> ZResult<void> {
        std::optional<ZStopScope> scope;
        if (stop != nullptr) {
            scope.emplace(*stop);
        }
        auto outcome = Try(line);
        if (stop != nullptr && stop->IsSet()) {
            return ZError("whether checks can be confined was not found out: the host stops");
        }
        told(outcome);
        return outcome;
    };
    try {
        m_outcome = std::async(std::launch::async, run).share();
    } catch (const std::system_error& error) {
        m_outcome = Known(ZError(std::string("checks can't be confined: ") + error.what()));
        told(m_outcome.get());
    }
}
