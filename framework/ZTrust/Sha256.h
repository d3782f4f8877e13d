#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace ztrust {

/// A SHA-256 that is fed piece by piece.
class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    void Add(std::string_view bytes);
    /// Of all that was added, as 64 lower-case hexadecimal digits. Called once.
    std::string Hex();

private:
    std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st*)> m_context;
};

std::string Sha256Hex(std::string_view bytes);

/// What came of reading a part of a file.
enum class ReadEnd : std::uint8_t { Complete, FileEnded, Failed, Stopped };

/// Reads exactly `size` bytes from `offset` on into `bytes`; errno is set when it failed.
ReadEnd ReadAt(int file, std::uint64_t offset, std::size_t size, std::string& bytes);

/// Adds `size` bytes of the file from `offset` on to the digest. `isStopped`, when there is one, is asked every MiB.
ReadEnd AddFile(Sha256& digest, int file, std::uint64_t offset, std::uint64_t size,
                const std::function<bool()>& isStopped = {});

}  // namespace ztrust
