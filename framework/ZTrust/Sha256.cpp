#include "ZTrust/Sha256.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>

#include "text/Hex.h"

namespace ztrust {

namespace {

constexpr std::size_t kPiece = std::size_t{1} << 20;

}  // namespace

Sha256::Sha256() : m_context(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    if (!m_context || EVP_DigestInit_ex(m_context.get(), EVP_sha256(), nullptr) != 1) {
        throw std::bad_alloc();
    }
}

Sha256::~Sha256() = default;

void Sha256::Add(std::string_view bytes) {
    EVP_DigestUpdate(m_context.get(), bytes.data(), bytes.size());
}

std::string Sha256::Hex() {
    std::array<unsigned char, 32> digest{};
    unsigned int size = 0;
    EVP_DigestFinal_ex(m_context.get(), digest.data(), &size);
    return text::HexDigits(digest);
}

std::string Sha256Hex(std::string_view bytes) {
    Sha256 digest;
    digest.Add(bytes);
    return digest.Hex();
}

ReadEnd ReadAt(int file, std::uint64_t offset, std::size_t size, std::string& bytes) {
    bytes.resize(size);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = ::pread(file, bytes.data() + done, size - done, static_cast<off_t>(offset + done));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            bytes.resize(done);
            return count == 0 ? ReadEnd::FileEnded : ReadEnd::Failed;
        }
        done += static_cast<std::size_t>(count);
    }
    return ReadEnd::Complete;
}

ReadEnd AddFile(Sha256& digest, int file, std::uint64_t offset, std::uint64_t size,
                const std::function<bool()>& isStopped) {
    std::string piece;
    for (std::uint64_t done = 0; done < size; done += piece.size()) {
        if (isStopped && isStopped()) {
            return ReadEnd::Stopped;
        }
        const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(kPiece, size - done));
        if (const ReadEnd end = ReadAt(file, offset + done, count, piece); end != ReadEnd::Complete) {
            return end;
        }
        digest.Add(piece);
    }
    return ReadEnd::Complete;
}

}  // namespace ztrust
