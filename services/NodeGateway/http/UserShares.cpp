#include "http/UserShares.h"

namespace gateway {

bool UserShares::Take(const std::string& user, std::size_t count) {
    if (count == 0) {
        return true;
    }
    const std::size_t share = m_limit - m_limit / 4;
    const auto found = m_users.find(user);
    const std::size_t taken = found == m_users.end() ? 0 : found->second;
    if (count > share - taken || count > m_limit - m_taken) {
        return false;
    }
    m_users[user] = taken + count;
    m_taken += count;
    return true;
}

void UserShares::Return(const std::string& user, std::size_t count) {
    if (count == 0) {
        return;
    }
    const auto found = m_users.find(user);
    found->second -= count;
    m_taken -= count;
    if (found->second == 0) {
        m_users.erase(found);
    }
}

}  // namespace gateway
