#include "ZTrust/ZTrustInForce.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "ZShared/ZFileDescriptor.h"
#include "ZTrust/Sha256.h"
#include "ZTrust/ZTrustChain.h"

namespace {

ZError OfSystem() {
    return ZError(std::strerror(errno));
}

/// The text of a file that is there; nothing when there is none. Neither links nor pipes lead anywhere.
ZResult<std::optional<std::string>> ReadText(const std::string& path) {
    const ZFileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!file) {
        const bool isMissing = errno == ENOENT || errno == ENOTDIR;
        return isMissing ? ZResult<std::optional<std::string>>(std::nullopt) : OfSystem();
    }
    struct stat status {};
    if (::fstat(file.Get(), &status) != 0) {
        return OfSystem();
    }
    if (!S_ISREG(status.st_mode)) {
        return ZError("it is not a regular file");
    }
    if (status.st_size > static_cast<off_t>(ZTrustChain::kLargest) + 1) {  // with the line feed at its end
        return ZError("it is larger than " + std::to_string(ZTrustChain::kLargest) + " bytes");
    }
    std::string text;
    switch (ztrust::ReadAt(file.Get(), 0, static_cast<std::size_t>(status.st_size), text)) {
        case ztrust::ReadEnd::Complete:
            return std::optional(std::move(text));
        case ztrust::ReadEnd::FileEnded:
            return ZError("it ended while it was read");
        default:
            return OfSystem();
    }
}

ZResult<std::optional<ZTrustDocument>> ReadLast(const std::string& folder) {
    if (folder.empty()) {
        return std::nullopt;
    }
    const std::string path = folder + '/' + kTrustFileName;
    const auto text = ReadText(path);
    if (!text) {
        return text.error().In(path);
    }
    if (!*text) {
        return std::nullopt;
    }
    const auto chain = ZTrustChain::Parse(**text);
    if (!chain) {
        return chain.error().In(path);
    }
    if (const auto isSigned = chain->CheckLast(); !isSigned) {
        return isSigned.error().In(path);
    }
    return chain->Last();
}

}  // namespace

ZResult<std::optional<ZTrustDocument>> ReadTrustInForce(const std::string& folder, const std::string& state) {
    auto ofSystem = ReadLast(folder);
    if (!ofSystem) {
        return ofSystem;
    }
    auto kept = ReadLast(state);
    if (!kept || (*kept && (!*ofSystem || (*kept)->number > (*ofSystem)->number))) {
        return kept;
    }
    return ofSystem;
}
