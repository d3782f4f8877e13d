#include "CheckQueue.h"

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

namespace {

// One that hangs keeps its place until its limit: the others go on.
constexpr std::size_t kChecksAtOnce = 4;

}  // namespace

struct CheckQueue::Threads {
    boost::asio::thread_pool pool{kChecksAtOnce};
};

CheckQueue::CheckQueue() = default;

CheckQueue::~CheckQueue() {
    if (m_threads) {
        m_threads->pool.join();
    }
}

std::future<bool> CheckQueue::Add(std::function<bool()> check) {
    std::call_once(m_started, [this] { m_threads = std::make_unique<Threads>(); });
    auto task = std::make_shared<std::packaged_task<bool()>>(std::move(check));
    auto result = task->get_future();
    boost::asio::post(m_threads->pool, [task] { (*task)(); });
    return result;
}
