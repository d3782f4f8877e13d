#include "ZShared/ZChildReaper.h"

#include <sys/epoll.h>
#include <sys/wait.h>

#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "ZShared/ZLog.h"
#include "ZShared/ZPidFd.h"
#include "ZShared/ZStopEvent.h"

namespace {

constexpr ZLogger Log() {
    return ZLogger("ZPlatform");
}

struct Child {
    pid_t id = -1;
    std::string program;
    ZFileDescriptor exit;
};

}  // namespace

struct ZChildReaper::Impl {
    std::mutex mutex;  // guards all below; the thread holds it except while it sleeps
    std::vector<Child> children;
    bool running = false;
    std::thread thread;
    ZStopEvent stop;
    // What the thread sleeps on: `stop` and every child's end. A further child counts while the thread sleeps, too.
    ZFileDescriptor events{::epoll_create1(EPOLL_CLOEXEC)};

    Impl() { WakeOn(stop.Descriptor()); }

    void WakeOn(int descriptor) {
        epoll_event readable{EPOLLIN, {}};
        if (::epoll_ctl(events.Get(), EPOLL_CTL_ADD, descriptor, &readable) != 0) {
            throw std::system_error(errno, std::generic_category(), "epoll_ctl");
        }
    }

    void Run() {
        std::unique_lock lock(mutex);
        while (!children.empty() && !stop.IsSet()) {
            lock.unlock();
            epoll_event event{};
            ::epoll_wait(events.Get(), &event, 1, -1);
            lock.lock();
            ReapEnded();
        }
        running = false;
    }

    void ReapEnded() {
        std::erase_if(children, [](const Child& child) {
            int status = 0;
            const pid_t reaped = ::waitpid(child.id, &status, WNOHANG);
            if (reaped == child.id) {
                LogEnd(child.program, child.id, status);
            }
            return reaped != 0;  // negative: somebody else saw its end, and there is nothing to wait for
        });
    }
};

void ZChildReaper::LogEnd(const std::string& program, pid_t child, int waitStatus) {
    const bool clean = WIFEXITED(waitStatus) && WEXITSTATUS(waitStatus) == 0;
    const int value = WIFSIGNALED(waitStatus) ? WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
    Z_LOG(clean ? 2 : 3, "Program %s (process %d) ended with %s %d", program, child,
          WIFSIGNALED(waitStatus) ? "signal" : "status", value);
}

ZChildReaper::ZChildReaper() {
    ZLog::Instance();  // made first, so that it outlives the thread
    m_impl = std::make_unique<Impl>();
}

ZChildReaper::~ZChildReaper() {
    m_impl->stop.Set();
    if (m_impl->thread.joinable()) {
        m_impl->thread.join();
    }
}

ZChildReaper& ZChildReaper::Instance() {
    static ZChildReaper reaper;
    return reaper;
}

void ZChildReaper::Watch(pid_t child, const std::string& program) {
    try {
        const std::lock_guard lock(m_impl->mutex);
        ZFileDescriptor exit(::pidfd_open(child, 0));
        if (!exit) {
            throw std::system_error(errno, std::generic_category(), "pidfd_open");
        }
        m_impl->WakeOn(exit.Get());
        m_impl->children.push_back({child, program, std::move(exit)});
        if (m_impl->running) {
            return;
        }
        if (m_impl->thread.joinable()) {
            m_impl->thread.join();  // it has left its loop and needs the mutex no more
        }
        m_impl->thread = std::thread([impl = m_impl.get()] { impl->Run(); });
        m_impl->running = true;
    } catch (const std::exception& failure) {
        Z_LOG(3, "The end of %s (process %d) will not be seen: %s", program, child, failure.what());
    }
}
