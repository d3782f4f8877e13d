#include "Fuzz.h"
#include "HealthCheck.h"

// Health checks, as a line and as a manifest's list.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzz::Text(data, size);
    if (const auto check = HealthCheck::Parse(text)) {
        fuzz::Must(check->IsRequest() != !check->command.empty() || check->IsRequest(), "it asks something");
        fuzz::Must(!check->name.empty() && check->limit.count() > 0, "it has a name and a limit");
    }
    const fuzz::File file(text);
    ReadManifestChecks(file.Path());
    return 0;
}
