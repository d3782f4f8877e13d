#include "Conversation.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

std::string ReadAll(const std::string& file) {
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
}

struct ScriptedGateway::Server {
    httplib::Server http;
};

ScriptedGateway::ScriptedGateway() : m_server(std::make_unique<Server>()) {
    std::string pattern = std::filesystem::temp_directory_path() / "arborctl-XXXXXX";
    m_folder = mkdtemp(pattern.data());
    auto& http = m_server->http;
    const auto reply = [this](const httplib::Request& request, httplib::Response& response) {
        std::unique_lock lock(m_mutex);
        boost::json::error_code error;
        m_messages[request.path].push_back(boost::json::parse(request.body, error));
        m_changed.notify_all();
        const auto found = m_answers.find(request.path);
        const Answer answer = found != m_answers.end() ? found->second : Answer{404, R"({"title": "unknown"})"};
        m_changed.wait(lock, [&] { return !answer.silent || m_down; });
        response.status = answer.status;
        response.set_content(answer.body, answer.status == 200 ? "application/json" : "application/problem+json");
    };
    http.Get("/v1/events", [this](const httplib::Request& request, httplib::Response& response) {
        const std::lock_guard lock(m_mutex);
        m_messages[request.path].emplace_back(request.has_param("log"));
        if (m_nextEvents == m_events.size()) {
            const auto refusal = m_answers.find(request.path);
            response.status = refusal != m_answers.end() ? refusal->second.status : 503;
            response.set_content(refusal != m_answers.end() ? refusal->second.body : "", "application/problem+json");
            return;
        }
        const Events events = m_events[m_nextEvents++];
        response.set_chunked_content_provider(
            "text/event-stream", [this, events](std::size_t, httplib::DataSink& sink) {
                sink.write(events.first.data(), events.first.size());
                if (!WaitFor([&] {
                        return events.keyword.empty() || m_messages["/v1/" + events.keyword].size() >= events.count;
                    })) {
                    return false;
                }
                sink.write(events.later.data(), events.later.size());
                std::unique_lock held(m_mutex);
                while (!events.cut && !m_down && sink.write(": x\n", 4)) {
                    m_changed.wait_for(held, std::chrono::milliseconds(50));
                }
                return false;
            });
    });
    http.Get(".*", reply);
    http.Post(".*", reply);
    http.set_address_family(AF_UNIX);
    EXPECT_TRUE(http.bind_to_port(Socket(), 80));
    m_thread = std::thread([&http] { http.listen_after_bind(); });
    while (!http.is_running()) {
        std::this_thread::yield();
    }
}

ScriptedGateway::~ScriptedGateway() {
    GoDown();
    std::filesystem::remove_all(m_folder);
}

void ScriptedGateway::Script(const std::string& path, Answer answer) {
    const std::lock_guard lock(m_mutex);
    m_answers[path] = std::move(answer);
}

void ScriptedGateway::Play(Events events) {
    const std::lock_guard lock(m_mutex);
    m_events.push_back(std::move(events));
}

void ScriptedGateway::GoDown() {
    {
        const std::lock_guard lock(m_mutex);
        m_down = true;
        m_changed.notify_all();
    }
    if (m_thread.joinable()) {
        m_server->http.stop();
        m_thread.join();
    }
}

std::vector<boost::json::value> ScriptedGateway::Messages(const std::string& path, std::size_t count) {
    EXPECT_TRUE(WaitFor([&] { return m_messages[path].size() >= count; })) << path;
    const std::lock_guard lock(m_mutex);
    return m_messages[path];
}

bool ScriptedGateway::WaitFor(const std::function<bool()>& condition) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(60), [&] { return m_down || condition(); }) && !m_down;
}

std::string Event(const std::string& name, const std::string& data) {
    return "event: " + name + "\nid: 1\ndata: " + data + "\n\n";
}

Program::Program(std::string folder, const std::string& line, const std::string& input) : m_folder(std::move(folder)) {
    std::ofstream(m_folder + "/in", std::ios::binary) << input;
    std::string command = "cd " + m_folder + " && exec " ARBORCTL " " + line + " <in >out 2>err";
    char shell[] = "sh";
    char option[] = "-c";
    char* const argv[]{shell, option, command.data(), nullptr};
    EXPECT_EQ(posix_spawn(&m_pid, "/bin/sh", nullptr, nullptr, argv, environ), 0);
}

Program::~Program() {
    if (m_status < 0) {
        kill(m_pid, SIGKILL);
    }
    Status();
}

bool Program::WaitForOutput(const std::string& text) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (Output().find(text) == std::string::npos && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return Output().find(text) != std::string::npos;
}

int Program::Status() {
    if (m_status < 0) {
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return m_status;
}
