#include "Command.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

#include "ZShared/ZFileDescriptor.h"

bool RunBare(const std::string& line) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return false;
    }
    const ZFileDescriptor output(ends[0]);
    ZFileDescriptor childEnd(ends[1]);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, childEnd.Get(), STDOUT_FILENO);
    std::string shell = "/bin/sh";
    std::string option = "-c";
    std::string command = line;
    const std::array<char*, 4> arguments{shell.data(), option.data(), command.data(), nullptr};
    pid_t child = -1;
    const int failure = ::posix_spawn(&child, shell.c_str(), &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (failure != 0) {
        return false;
    }
    childEnd.Reset();
    std::array<char, 4096> buffer;
    while (::read(output.Get(), buffer.data(), buffer.size()) > 0) {
    }
    int status = 0;
    return ::waitpid(child, &status, 0) == child && status == 0;
}
