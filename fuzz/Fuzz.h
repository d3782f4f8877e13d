#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

inline std::string_view Text(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// What must always hold: a fuzzer takes the end of the program for a find.
inline void Must(bool holds, const char* what) {
    if (!holds) {
        std::cerr << "this does not hold: " << what << '\n';
        std::abort();
    }
}

/// A file in memory with these bytes, for readers that want a descriptor or a path.
class File {
public:
    explicit File(std::string_view bytes) : m_descriptor(::memfd_create("fuzz", MFD_CLOEXEC)) {
        Must(m_descriptor >= 0 &&
                 ::write(m_descriptor, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
             "a file in memory can be made");
    }
    ~File() { ::close(m_descriptor); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    int Descriptor() const { return m_descriptor; }
    std::string Path() const { return "/proc/self/fd/" + std::to_string(m_descriptor); }

private:
    int m_descriptor;
};

/// The next byte of the input, which becomes shorter; 0 when there is none.
inline std::uint8_t TakeByte(std::string_view& rest) {
    const std::uint8_t byte = rest.empty() ? 0 : static_cast<std::uint8_t>(rest.front());
    rest.remove_prefix(rest.empty() ? 0 : 1);
    return byte;
}

}  // namespace fuzz
