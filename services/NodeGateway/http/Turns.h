#pragma once

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <deque>
#include <functional>

#include "http/UserShares.h"
#include "http/WorkerPool.h"

namespace gateway {

/// Work that waits for a thread of the pool.
struct Turn {
    std::string user;                  // Peer::account
    bool reads = false;                // of those turns that are kept for reading
    std::function<void()> work;        // on a thread of the pool; must not throw
    std::function<void(bool)> onDone;  // on the server's thread; false: it was not worked on
};

/// Decides whose work is done next: so much at once, first come first served but for users who have their share.
/// Reading has turns of its own. Belongs to the thread that runs `io`.
class Turns {
public:
    explicit Turns(boost::asio::io_context& io);

    /// Gives up after some seconds without a turn.
    void Ask(Turn turn);
    /// Gives up what waits, and what is asked from now on. What runs goes on.
    void Close();
    /// Waits for what runs; its onDone is then posted. On any thread, after Close.
    void Join() { m_pool.Stop(); }

private:
    struct Waiting {
        Turn turn;
        std::chrono::steady_clock::time_point until;
    };
    UserShares& SharesOf(const Turn& turn) { return m_shares[turn.reads ? 1 : 0]; }
    void StartDue();
    void Start(Turn turn);
    void GiveUp(std::chrono::steady_clock::time_point dueBefore);
    void SetTimer();

    boost::asio::io_context& m_io;
    boost::asio::steady_timer m_timer;
    std::array<UserShares, 2> m_shares;
    std::deque<Waiting> m_waiting;
    bool m_timerRuns = false;
    bool m_closed = false;
    WorkerPool m_pool;
};

}  // namespace gateway
