#pragma once

#include <signal.h>
#include <sys/types.h>

#include <boost/json.hpp>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// One event in the stream's form.
std::string Event(const std::string& name, const std::string& data);

/// The file's bytes; nothing when there is none.
std::string ReadAll(const std::string& file);

/// A gateway on a real socket in a folder of its own, which answers as the test has written it down beforehand.
class ScriptedGateway {
public:
    struct Answer {
        int status = 200;
        std::string body = "{}";
        bool silent = false;  ///< Never answers.
    };
    /// What one connection to the events gets: `first` at once; `later` when so many messages have come on `keyword`;
    /// then the connection is cut, or held open until the client goes.
    struct Events {
        std::string first = {};
        std::string keyword = {};
        std::string later = {};
        bool cut = false;
        std::size_t count = 1;
    };

    ScriptedGateway();
    ~ScriptedGateway();
    ScriptedGateway(const ScriptedGateway&) = delete;
    ScriptedGateway& operator=(const ScriptedGateway&) = delete;

    /// The answer to a request, by path ("/v1/status"); what has none gets a 404 problem.
    void Script(const std::string& path, Answer answer);
    /// The next connection's events; a connection without a script is refused.
    void Play(Events events);
    /// Ends listening and cuts what is open, as when the device goes down.
    void GoDown();
    /// The messages that came on a path, in order. Waits (up to 60 s) until there are `count`.
    std::vector<boost::json::value> Messages(const std::string& path, std::size_t count);

    [[nodiscard]] const std::string& Folder() const { return m_folder; }
    [[nodiscard]] std::string Socket() const { return m_folder + "/gateway.sock"; }

private:
    struct Server;
    bool WaitFor(const std::function<bool()>& condition);

    std::string m_folder;
    std::mutex m_mutex;  // guards the members below, up to the server
    std::condition_variable m_changed;
    std::map<std::string, Answer> m_answers;
    std::vector<Events> m_events;
    std::size_t m_nextEvents = 0;
    std::map<std::string, std::vector<boost::json::value>> m_messages;
    bool m_down = false;
    std::unique_ptr<Server> m_server;
    std::thread m_thread;
};

/// A run of arborctl as a process of its own, its output in files. The destructor ends it.
class Program {
public:
    /// `line` is the command line in the shell's writing; `folder` takes the files of the run.
    Program(std::string folder, const std::string& line, const std::string& input = "");
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// Waits (up to 60 s) until the output contains the text.
    bool WaitForOutput(const std::string& text);
    void Interrupt() const { kill(m_pid, SIGINT); }
    /// The exit status. Waits for the end.
    int Status();
    [[nodiscard]] std::string Output() const { return ReadAll(m_folder + "/out"); }
    [[nodiscard]] std::string Errors() const { return ReadAll(m_folder + "/err"); }

private:
    std::string m_folder;
    pid_t m_pid = -1;
    int m_status = -1;
};
