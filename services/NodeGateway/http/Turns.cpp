#include "http/Turns.h"

#include <boost/asio/post.hpp>
#include <memory>

#include "http/Limits.h"

namespace gateway {

using Clock = std::chrono::steady_clock;

Turns::Turns(boost::asio::io_context& io)
    : m_io(io), m_timer(io), m_shares{UserShares(limits::kAskers), UserShares(limits::kReaders)} {}

void Turns::Ask(Turn turn) {
    if (m_closed) {
        turn.onDone(false);
        return;
    }
    m_waiting.push_back({std::move(turn), Clock::now() + limits::kTurnTime});
    StartDue();
    SetTimer();
}

void Turns::StartDue() {
    for (auto next = m_waiting.begin(); next != m_waiting.end();) {
        if (!SharesOf(next->turn).Take(next->turn.user)) {
            ++next;
            continue;
        }
        Turn turn = std::move(next->turn);
        next = m_waiting.erase(next);
        Start(std::move(turn));
    }
}

void Turns::Start(Turn turn) {
    const auto shared = std::make_shared<Turn>(std::move(turn));
    const auto end = [this, shared](bool done) {
        SharesOf(*shared).Return(shared->user);
        shared->onDone(done);
        StartDue();
    };
    const bool posted = m_pool.Post([this, shared, end] {
        shared->work();
        boost::asio::post(m_io, [end] { end(true); });
    });
    if (!posted) {
        boost::asio::post(m_io, [end] { end(false); });
    }
}

void Turns::GiveUp(Clock::time_point dueBefore) {
    while (!m_waiting.empty() && m_waiting.front().until <= dueBefore) {
        const Turn turn = std::move(m_waiting.front().turn);
        m_waiting.pop_front();
        turn.onDone(false);
    }
}

void Turns::SetTimer() {
    if (m_waiting.empty() || m_timerRuns) {
        return;
    }
    m_timerRuns = true;
    m_timer.expires_at(m_waiting.front().until);
    m_timer.async_wait([this](const boost::system::error_code& failure) {
        m_timerRuns = false;
        if (!failure) {
            GiveUp(Clock::now());
            SetTimer();
        }
    });
}

void Turns::Close() {
    m_closed = true;
    m_timer.cancel();
    GiveUp(Clock::time_point::max());
}

}  // namespace gateway
