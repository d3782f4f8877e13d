#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
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

/// Writes a new file that only its owner may read and that is safe on the disk afterwards; 0, or the errno of what
/// failed.
int WriteSecret(const std::string& file, const std::string& text) {
    const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (descriptor < 0) {
        return errno;
    }
    errno = ENOSPC;  // a write that falls short sets none
    const bool complete =
        write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(descriptor) == 0;
    const int failure = complete ? 0 : errno;
    close(descriptor);
    return failure;
}

/// Gives a file its name unless there is one of that name; 0 or the errno.
int GiveName(const std::string& from, const std::string& to) {
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return 0;
    }
    // Some file systems can't compare and rename in one step.
    const bool isKnown = errno != EINVAL;
    return isKnown ? errno : access(to.c_str(), F_OK) == 0 ? EEXIST : rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

/// Under a name of its own until it is whole: a device would take half a file for its keys.
Result<void> WriteForOwnerAlone(const std::string& file, const std::string& text) {
    const std::string temporary = file + ".new";
    unlink(temporary.c_str());
    int failure = WriteSecret(temporary, text);
    if (failure == 0) {
        failure = GiveName(temporary, file);
    }
    if (failure == 0) {
        return {};
    }
    unlink(temporary.c_str());
    return UsageFailure(Escaped(file) + ": " +
                        (failure == EEXIST ? "there is such a file already, and it may hold keys that are in use"
                                           : std::strerror(failure)));
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
