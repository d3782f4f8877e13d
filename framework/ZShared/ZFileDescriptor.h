#pragma once

#include <unistd.h>

#include <utility>

/// Owns one file descriptor and closes it.
class ZFileDescriptor {
public:
    ZFileDescriptor() = default;
    explicit ZFileDescriptor(int descriptor) noexcept : m_descriptor(descriptor) {}
    ZFileDescriptor(ZFileDescriptor&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    ZFileDescriptor& operator=(ZFileDescriptor&& other) noexcept {
        if (this != &other) {
            Reset(std::exchange(other.m_descriptor, -1));
        }
        return *this;
    }
    ~ZFileDescriptor() { Reset(); }

    int Get() const noexcept { return m_descriptor; }
    explicit operator bool() const noexcept { return m_descriptor >= 0; }
    int Release() noexcept { return std::exchange(m_descriptor, -1); }
    void Reset(int descriptor = -1) noexcept {
        if (m_descriptor >= 0) {
            ::close(m_descriptor);
        }
        m_descriptor = descriptor;
    }

private:
    int m_descriptor = -1;
};
