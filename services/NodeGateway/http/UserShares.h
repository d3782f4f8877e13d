#pragma once

#include <cstddef>
#include <map>
#include <string>

namespace gateway {

/// Something of which there is only so much, shared by users (Peer::account): one alone gets at most three quarters of
/// it, so that others find some. Not thread-safe.
class UserShares {
public:
    explicit UserShares(std::size_t limit) : m_limit(limit) {}

    /// False, and nothing is taken, when there is not so much for this user.
    bool Take(const std::string& user, std::size_t count = 1);
    /// Gives back what was taken.
    void Return(const std::string& user, std::size_t count = 1);
    std::size_t Taken() const { return m_taken; }

private:
    const std::size_t m_limit;
    std::size_t m_taken = 0;
    std::map<std::string, std::size_t> m_users;  // those who have something
};

}  // namespace gateway
