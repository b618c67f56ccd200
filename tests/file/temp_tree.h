// Test fixtures shared by the test suites: a temporary folder removed with everything in it,
// a file reader, and environment overrides restored on scope exit (HOME and the XDG_* variables are
// read by the code under test, so every test that points them elsewhere must put them back).
#pragma once

#include <fcntl.h>
#include <linux/fs.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

namespace ltest {

class TempTree {
public:
    TempTree() {
        std::string pattern = (std::filesystem::temp_directory_path() / "lfile_test_XXXXXX");
        root_ = mkdtemp(pattern.data()) != nullptr ? pattern : "";
    }
    ~TempTree() {
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }
    TempTree(TempTree const&) = delete;
    TempTree& operator=(TempTree const&) = delete;
    std::string const& root() const { return root_; }
    std::string Path(std::string const& relative) const { return root_ + "/" + relative; }
    std::string MakeFolder(std::string const& relative) const {
        std::filesystem::create_directories(Path(relative));
        return Path(relative);
    }
    std::string MakeFile(std::string const& relative, std::string const& content = "x") const {
        std::filesystem::create_directories(std::filesystem::path(Path(relative)).parent_path());
        std::ofstream(Path(relative)) << content;
        return Path(relative);
    }

private:
    std::string root_;
};

// A file's bytes as they are ("" when it cannot be read).
inline std::string Slurp(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Sets (or, with nullptr, unsets) one environment variable for the scope; Set changes it
// again within the scope. The value found at construction is what comes back at the end.
class EnvOverride {
public:
    EnvOverride(char const* name, char const* value) : name_(name) {
        if (char const* old = getenv(name)) {
            old_ = old;
        }
        Set(value);
    }
    EnvOverride(char const* name, std::string const& value) : EnvOverride(name, value.c_str()) {}
    ~EnvOverride() { Set(old_ ? old_->c_str() : nullptr); }
    void Set(char const* value) {
        value != nullptr ? setenv(name_.c_str(), value, 1) : unsetenv(name_.c_str());
    }
    EnvOverride(EnvOverride const&) = delete;
    EnvOverride& operator=(EnvOverride const&) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};

// Sets or clears the immutable inode flag; false where the file system or the caller's rights
// do not allow it.
inline bool SetImmutable(std::string const& path, bool on) {
    int fd = open(path.c_str(), O_RDONLY);
    int flags = 0;
    bool done = fd >= 0 && ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    flags = on ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
    done = done && ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    close(fd);  // harmless on -1
    return done;
}

// HOME pointed at a fresh tree and every XDG variable the folder search reads unset.
class IsolatedHome {
public:
    IsolatedHome()
        : home_("HOME", tree_.root()),
          cache_("XDG_CACHE_HOME", nullptr),
          data_("XDG_DATA_HOME", nullptr),
          config_("XDG_CONFIG_HOME", nullptr) {}
    TempTree const& tree() const { return tree_; }
    std::string const& home() const { return tree_.root(); }

private:
    TempTree tree_;
    EnvOverride home_;
    EnvOverride cache_;
    EnvOverride data_;
    EnvOverride config_;
};

}  // namespace ltest
