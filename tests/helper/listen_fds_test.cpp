// The service's own socket-activation calls, checked case by case against the systemd
// client library's functions of the same names (reached with RTLD_NEXT, since the
// definitions linked into this test take precedence, as they do in the service).
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>

#include "tests/file/temp_tree.h"

extern "C" int sd_listen_fds(int unset_environment);
extern "C" int sd_is_socket_unix(int fd, int type, int listening, char const* path, size_t length);

namespace {

namespace fs = std::filesystem;

using ListenFds = int (*)(int);
using IsSocketUnix = int (*)(int, int, int, char const*, size_t);

ListenFds LibraryListenFds() {
    return reinterpret_cast<ListenFds>(dlsym(RTLD_NEXT, "sd_listen_fds"));
}

IsSocketUnix LibraryIsSocketUnix() {
    return reinterpret_cast<IsSocketUnix>(dlsym(RTLD_NEXT, "sd_is_socket_unix"));
}

using ScopedEnv = ltest::EnvOverride;

int BoundSocket(int type, sockaddr_un const& address, socklen_t length, bool listening) {
    int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (bind(fd, reinterpret_cast<sockaddr const*>(&address), length) != 0 ||
        (listening && listen(fd, 4) != 0)) {
        close(fd);
        return -1;
    }
    return fd;
}

class SocketActivation : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(LibraryListenFds(), nullptr);
        ASSERT_NE(LibraryIsSocketUnix(), nullptr);
        char tmpl[] = "/tmp/listen_fds_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override { fs::remove_all(dir_); }

    sockaddr_un PathAddress(std::string const& name, socklen_t& length) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::string path = (dir_ / name).string();
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
        return address;
    }

    fs::path dir_;
};

}  // namespace

TEST_F(SocketActivation, ListenFdsAgreesWithTheLibraryOnEveryEnvironment) {
    std::string const self = std::to_string(getpid());
    std::string const parent = std::to_string(getppid());
    struct Case {
        char const* pid;
        char const* fds;
    } const cases[] = {
        {nullptr, nullptr},
        {nullptr, "1"},
        {self.c_str(), nullptr},
        {parent.c_str(), "1"},
        {"abc", "1"},
        {"0", "1"},
        {"-5", "1"},
        {self.c_str(), "0"},
        {self.c_str(), "x"},
        {self.c_str(), "-1"},
        {self.c_str(), "1junk"},
        {"", "1"},
    };
    ScopedEnv pid("LISTEN_PID", nullptr), fds("LISTEN_FDS", nullptr);
    for (Case const& c : cases) {
        pid.Set(c.pid);
        fds.Set(c.fds);
        int const expected = LibraryListenFds()(0);
        pid.Set(c.pid);
        fds.Set(c.fds);
        EXPECT_EQ(sd_listen_fds(0), expected) << "LISTEN_PID=" << (c.pid ? c.pid : "(unset)")
                                              << " LISTEN_FDS=" << (c.fds ? c.fds : "(unset)");
    }
}

TEST_F(SocketActivation, PassedDescriptorsBecomeCloseOnExecAndTheEnvironmentCanBeCleared) {
    // Descriptor 3 is borrowed for the test and given back afterwards.
    int const saved = fcntl(3, F_DUPFD_CLOEXEC, 10);
    socklen_t length;
    sockaddr_un address = PathAddress("s.sock", length);
    int fd = BoundSocket(SOCK_SEQPACKET, address, length, true);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(dup2(fd, 3), 3);  // without close-on-exec, as a starter passes it
    if (fd != 3)
        close(fd);
    else
        fcntl(3, F_SETFD, 0);

    ScopedEnv pid("LISTEN_PID", std::to_string(getpid()).c_str()), fds("LISTEN_FDS", "1"),
        names("LISTEN_FDNAMES", "service");
    EXPECT_EQ(sd_listen_fds(0), 1);
    EXPECT_NE(fcntl(3, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(std::getenv("LISTEN_PID"), nullptr);
    EXPECT_EQ(sd_listen_fds(1), 1);
    EXPECT_EQ(std::getenv("LISTEN_PID"), nullptr);
    EXPECT_EQ(std::getenv("LISTEN_FDS"), nullptr);
    EXPECT_EQ(std::getenv("LISTEN_FDNAMES"), nullptr);
    EXPECT_EQ(sd_listen_fds(0), 0);

    close(3);
    if (saved >= 0) {
        dup2(saved, 3);
        close(saved);
    }
}

TEST_F(SocketActivation, IsSocketUnixAgreesWithTheLibrary) {
    socklen_t pathLength;
    sockaddr_un pathAddress = PathAddress("service.sock", pathLength);
    int listening = BoundSocket(SOCK_SEQPACKET, pathAddress, pathLength, true);
    socklen_t streamLength;
    sockaddr_un streamAddress = PathAddress("stream.sock", streamLength);
    int stream = BoundSocket(SOCK_STREAM, streamAddress, streamLength, false);
    sockaddr_un abstractAddress{};
    abstractAddress.sun_family = AF_UNIX;
    std::string const abstractName =
        std::string(1, '\0') + "listen_fds_test" + std::to_string(getpid());
    std::memcpy(abstractAddress.sun_path, abstractName.data(), abstractName.size());
    int abstract = BoundSocket(
        SOCK_SEQPACKET, abstractAddress,
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + abstractName.size()), true);
    int unbound = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    int pipeFds[2];
    ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
    ASSERT_GE(listening, 0);
    ASSERT_GE(stream, 0);
    ASSERT_GE(abstract, 0);
    ASSERT_GE(unbound, 0);

    std::string const path = (dir_ / "service.sock").string();
    std::string const other = (dir_ / "other.sock").string();
    std::string const prefix = (dir_ / "service").string();
    std::string const streamPath = (dir_ / "stream.sock").string();
    struct Case {
        int fd;
        int type;
        int listening;
        char const* path;
        size_t length;
    } const cases[] = {
        {listening, SOCK_SEQPACKET, 1, path.c_str(), 0},
        {listening, SOCK_SEQPACKET, 1, nullptr, 0},
        {listening, 0, -1, path.c_str(), 0},
        {listening, SOCK_STREAM, 1, path.c_str(), 0},
        {listening, SOCK_SEQPACKET, 0, path.c_str(), 0},
        {listening, SOCK_SEQPACKET, 1, other.c_str(), 0},
        {listening, SOCK_SEQPACKET, 1, prefix.c_str(), 0},
        {listening, SOCK_SEQPACKET, 1, path.c_str(), path.size() + 1},
        {stream, SOCK_STREAM, 0, streamPath.c_str(), 0},
        {stream, SOCK_STREAM, 1, nullptr, 0},
        {abstract, SOCK_SEQPACKET, 1, abstractName.data(), abstractName.size()},
        {abstract, SOCK_SEQPACKET, 1, abstractName.data(), abstractName.size() - 1},
        {abstract, SOCK_SEQPACKET, 1, path.c_str(), 0},
        {unbound, SOCK_SEQPACKET, 0, nullptr, 0},
        {unbound, SOCK_SEQPACKET, 0, path.c_str(), 0},
        {pipeFds[0], 0, -1, nullptr, 0},
        {-1, SOCK_SEQPACKET, 1, nullptr, 0},
        {9999, SOCK_SEQPACKET, 1, nullptr, 0},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        Case const& c = cases[i];
        EXPECT_EQ(sd_is_socket_unix(c.fd, c.type, c.listening, c.path, c.length),
                  LibraryIsSocketUnix()(c.fd, c.type, c.listening, c.path, c.length))
            << "case " << i;
    }
    for (int fd : {listening, stream, abstract, unbound, pipeFds[0], pipeFds[1]})
        close(fd);
}
