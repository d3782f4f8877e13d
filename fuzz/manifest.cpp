#include "Fuzz.h"
#include "ZMessages/Messages.h"
#include "ZMessages/ZJSONCommStream.h"

// The manifest of a version: a file that names its class itself.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fuzz::File file(fuzz::Text(data, size));
    ZJSONCommStream stream;
    const auto message = ZMessage::Load(std::filesystem::path(file.Path()), stream);
    fuzz::Must(message || !stream.Error().empty(), "an error says why");
    const auto manifest = ZCAST(ZSystemManifestMsg, message);
    if (!manifest) {
        return 0;
    }
    std::string text;
    fuzz::Must(manifest->Save(text, stream), "a manifest can be written");
    const fuzz::File written(text);
    const auto again = ZMessage::Load(std::filesystem::path(written.Path()), stream);
    std::string rewritten;
    fuzz::Must(again && again->Save(rewritten, stream) && rewritten == text, "what is read is what was written");
    return 0;
}
