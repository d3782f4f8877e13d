#include "ZShared/ZChildReaper.h"

#include <poll.h>
#include <sys/pidfd.h>
#include <sys/wait.h>

#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "ZShared/ZLog.h"
#include "ZShared/ZStopEvent.h"

namespace {

struct Child {
    pid_t id = -1;
    std::string program;
    ZFileDescriptor exit;
};

void LogEnd(const Child& child, int status) {
    const bool clean = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    const int value = WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status);
    ZLog::Instance().Log(clean ? 2 : 3, "ZPlatform", "ZShared/ZChildReaper", __func__, __LINE__,
                         "Program %s (process %d) ended with %s %d", child.program.c_str(),
                         static_cast<int>(child.id), WIFSIGNALED(status) ? "signal" : "status", value);
}

}  // namespace

struct ZChildReaper::Impl {
    std::mutex mutex;  // guards all below; the thread holds it except while it sleeps
    std::vector<Child> children;
    bool running = false;
    std::thread thread;
    ZStopEvent stop;
    // Tells the sleeping thread that there is a further child: replaced when used.
    std::unique_ptr<ZStopEvent> more = std::make_unique<ZStopEvent>();

    void Run() {
        std::unique_lock lock(mutex);
        while (!children.empty() && !stop.IsSet()) {
            std::vector<pollfd> entries{{stop.Descriptor(), POLLIN, 0}, {more->Descriptor(), POLLIN, 0}};
            for (const Child& child : children) {
                entries.push_back({child.exit.Get(), POLLIN, 0});
            }
            lock.unlock();
            ::poll(entries.data(), entries.size(), -1);
            lock.lock();
            if (more->IsSet()) {
                more = std::make_unique<ZStopEvent>();
            }
            ReapEnded();
        }
        running = false;
    }

    void ReapEnded() {
        std::erase_if(children, [](const Child& child) {
            int status = 0;
            if (::waitpid(child.id, &status, WNOHANG) != child.id) {
                return false;
            }
            LogEnd(child, status);
            return true;
        });
    }
};

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
        m_impl->children.push_back({child, program, std::move(exit)});
        if (m_impl->running) {
            m_impl->more->Set();
            return;
        }
        if (m_impl->thread.joinable()) {
            m_impl->thread.join();  // it has left its loop and needs the mutex no more
        }
        m_impl->thread = std::thread([impl = m_impl.get()] { impl->Run(); });
        m_impl->running = true;
    } catch (const std::exception& failure) {
        ZLog::Instance().Log(3, "ZPlatform", "ZShared/ZChildReaper", __func__, __LINE__,
                             "The end of %s (process %d) will not be seen: %s", program.c_str(),
                             static_cast<int>(child), failure.what());
    }
}
