// A private instance of the built service for tests: the real executable started with its
// own socket folder (LXPC_SERVICE_DIR), which this process also points its clients at while
// the instance lives. Stopped with SIGTERM and reaped on destruction; the folder is removed.
#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/file/temp_tree.h"

extern char** environ;

namespace helper_test {

// Spawns argv with environ plus `extra` ("NAME=value") entries.
inline pid_t Spawn(std::vector<std::string> const& argv, std::vector<std::string> extra) {
    for (char** e = environ; *e; ++e)
        extra.emplace_back(*e);
    std::vector<char*> args, env;
    for (auto const& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    for (auto const& e : extra)
        env.push_back(const_cast<char*>(e.c_str()));
    args.push_back(nullptr);
    env.push_back(nullptr);
    pid_t pid = -1;
    return posix_spawn(&pid, args[0], nullptr, nullptr, args.data(), env.data()) == 0 ? pid : -1;
}

class ServiceProcess {
public:
    // `extra`: further environment entries of the service ("NAME=value").
    explicit ServiceProcess(std::vector<std::string> extra = {}) {
        extra.push_back("LXPC_SERVICE_DIR=" + dir_.root());
        pid_ = Spawn({VADHELPER_EXE}, extra);
        auto const socket = dir_.Path("com.tessalysoftware.KavelPL.VadHelper.sock");
        for (int i = 0; i < 400 && pid_ > 0 && !ready_; ++i) {
            ready_ = std::filesystem::is_socket(socket);
            if (!ready_)
                std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
    }
    ~ServiceProcess() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
    }

    bool Ready() const { return ready_; }
    // True while the service process has not ended.
    bool Running() const {
        int status;
        return pid_ > 0 && waitpid(pid_, &status, WNOHANG) == 0;
    }
    pid_t Pid() const { return pid_; }

private:
    ltest::TempTree dir_;
    ltest::EnvOverride clientsDir_{"LXPC_SERVICE_DIR", dir_.root()};
    pid_t pid_ = -1;
    bool ready_ = false;
};

}  // namespace helper_test
