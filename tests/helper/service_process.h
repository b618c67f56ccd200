// A private instance of the built service for tests: the real executable started with its
// own socket folder (LXPC_SERVICE_DIR), which this process also points its clients at while
// the instance lives. Stopped with SIGTERM and reaped on destruction; the folder is removed.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace helper_test {

// The executables of this build; VADHELPER_EXE and VADCTL_EXE in the environment point
// the suites at others.
inline std::string ServiceExecutable() {
    char const* exe = std::getenv("VADHELPER_EXE");
    return exe ? exe : VADHELPER_EXE;
}

inline std::string ClientToolExecutable() {
    char const* exe = std::getenv("VADCTL_EXE");
    return exe ? exe : VADCTL_EXE;
}

// Spawns argv with environ plus `extra` ("NAME=value") entries.
inline pid_t Spawn(std::vector<std::string> const& argv, std::vector<std::string> const& extra,
                   posix_spawn_file_actions_t const* actions = nullptr) {
    std::vector<char*> args;
    for (auto const& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::vector<std::string> envStrings(extra);
    for (char** e = environ; *e; ++e)
        envStrings.emplace_back(*e);
    std::vector<char*> env;
    for (auto const& e : envStrings)
        env.push_back(const_cast<char*>(e.c_str()));
    env.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, args[0], actions, nullptr, args.data(), env.data()) != 0)
        return -1;
    return pid;
}

class ServiceProcess {
public:
    // `extra`: further environment entries of the service ("NAME=value").
    explicit ServiceProcess(std::vector<std::string> extra = {}) {
        char tmpl[] = "/tmp/vadhelper_service.XXXXXX";
        if (!mkdtemp(tmpl))
            return;
        dir_ = tmpl;
        if (char const* old = std::getenv("LXPC_SERVICE_DIR"))
            previousDir_ = old;
        setenv("LXPC_SERVICE_DIR", dir_.c_str(), 1);
        extra.push_back("LXPC_SERVICE_DIR=" + dir_);
        pid_ = Spawn({ServiceExecutable()}, extra);
        std::string socket = dir_ + "/com.tessalysoftware.KavelPL.VadHelper.sock";
        for (int i = 0; i < 400 && pid_ > 0; ++i) {
            struct stat st;
            if (stat(socket.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
                ready_ = true;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
    }

    ~ServiceProcess() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
        if (previousDir_)
            setenv("LXPC_SERVICE_DIR", previousDir_->c_str(), 1);
        else
            unsetenv("LXPC_SERVICE_DIR");
        if (!dir_.empty())
            std::filesystem::remove_all(dir_);
    }

    bool Ready() const { return ready_; }
    // True while the service process has not ended.
    bool Running() const {
        int status;
        return pid_ > 0 && waitpid(pid_, &status, WNOHANG) == 0;
    }
    std::string const& Dir() const { return dir_; }
    pid_t Pid() const { return pid_; }

private:
    std::string dir_;
    std::optional<std::string> previousDir_;
    pid_t pid_ = -1;
    bool ready_ = false;
};

}  // namespace helper_test
