#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>

namespace gateway {

/// Something of which there is only so much, shared by users: one alone gets at most three quarters of it, so that
/// others find some. Not thread-safe.
class UserShares {
public:
    explicit UserShares(std::size_t limit) : m_limit(limit) {}

    /// False, and nothing is taken, when there is not so much for this user.
    bool Take(uid_t user, std::size_t count = 1);
    /// Gives back what was taken.
    void Return(uid_t user, std::size_t count = 1);
    std::size_t Taken() const { return m_taken; }

private:
    const std::size_t m_limit;
    std::size_t m_taken = 0;
    std::map<uid_t, std::size_t> m_users;  // those who have something
};

}  // namespace gateway
