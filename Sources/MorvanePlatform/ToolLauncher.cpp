#include "MorvanePlatform/ToolLauncher.h"

#include "MorvanePlatform/Error.h"

#include <cerrno>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace morvane {
namespace {

class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : fd_(fd) {}
    ~FileDescriptor() { reset(); }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const { return fd_; }
    void reset() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

LaunchResult launchFailure(const std::string& path, int code) {
    return {-1, "Couldn't launch " + path + ": " + errnoText(code)};
}

class PosixToolLauncher final : public ToolLauncher {
public:
    LaunchResult launch(const std::string& path, const std::vector<std::string>& arguments) override {
        if (path.empty() || path.front() != '/') return launchFailure(path, ENOENT);

        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) return launchFailure(path, errno);
        FileDescriptor readEnd(ends[0]);
        FileDescriptor writeEnd(ends[1]);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDERR_FILENO);

        std::vector<char*> argv;
        argv.reserve(arguments.size() + 2);
        argv.push_back(const_cast<char*>(path.c_str()));
        for (const auto& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);

        pid_t pid = 0;
        const int spawned = ::posix_spawn(&pid, path.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (spawned != 0) return launchFailure(path, spawned);

        // Our copy of the write end must go, or the read below would never see the end.
        writeEnd.reset();

        // Read everything before waiting: a tool that fills the pipe blocks until we read.
        LaunchResult result;
        char buffer[65536];
        for (;;) {
            const ssize_t count = ::read(readEnd.get(), buffer, sizeof buffer);
            if (count > 0) {
                result.output.append(buffer, static_cast<size_t>(count));
            } else if (count == 0 || errno != EINTR) {
                break;
            }
        }

        int status = 0;
        while (::waitpid(pid, &status, 0) < 0) {
            if (errno != EINTR) return {-1, result.output};
        }
        if (WIFEXITED(status)) {
            result.status = WEXITSTATUS(status);
        } else if (WIFSIGNALED(status)) {
            result.status = WTERMSIG(status);
        }
        return result;
    }
};

} // namespace

ToolLauncher& ToolLauncher::system() {
    static PosixToolLauncher launcher;
    return launcher;
}

} // namespace morvane
