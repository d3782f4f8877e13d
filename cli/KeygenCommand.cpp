#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

#include "Commands.h"
#include "TextFormat.h"
#include "text/Hex.h"

namespace json = boost::json;

namespace arborctl {
namespace {

using KeyBytes = std::array<unsigned char, 32>;

struct KeyPair {
    KeyBytes publicKey{};
    KeyBytes secretKey{};
};

/// The link's keys are of Curve25519. False when the system gives no random bytes.
bool Make(KeyPair& keys) {
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> made(EVP_PKEY_Q_keygen(nullptr, nullptr, "X25519"),
                                                                   EVP_PKEY_free);
    std::size_t publicSize = keys.publicKey.size();
    std::size_t secretSize = keys.secretKey.size();
    return made != nullptr && EVP_PKEY_get_raw_public_key(made.get(), keys.publicKey.data(), &publicSize) == 1 &&
           EVP_PKEY_get_raw_private_key(made.get(), keys.secretKey.data(), &secretSize) == 1;
}

Result<void> WriteForOwnerAlone(const std::string& file, const std::string& text) {
    const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (descriptor < 0) {
        const char* reason = errno == EEXIST ? "there is such a file already, and it may hold keys that are in use"
                                             : std::strerror(errno);
        return UsageFailure(Escaped(file) + ": " + reason);
    }
    errno = 0;
    const bool complete =
        write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(descriptor) == 0;
    const int failure = errno != 0 ? errno : ENOSPC;
    close(descriptor);
    if (!complete) {
        unlink(file.c_str());
        return UsageFailure(Escaped(file) + ": could not be written: " + std::strerror(failure));
    }
    return {};
}

}  // namespace

Result<ExitCode> MakeKeyFile(Session& session, const std::string& file) {
    KeyPair keys;
    if (!Make(keys)) {
        return Refused("no key pair could be made: the system gives no random bytes");
    }
    const std::string publicKey = text::HexDigits(keys.publicKey);
    const std::string text =
        R"({"publicKey":")" + publicKey + R"(","secretKey":")" + text::HexDigits(keys.secretKey) + "\"}\n";
    if (const auto written = WriteForOwnerAlone(file, text); !written) {
        return written.error();
    }
    session.Print(json::object{{"file", file}, {"publicKey", publicKey}}, publicKey + "\n");
    return ExitCode::kDone;
}

}  // namespace arborctl
