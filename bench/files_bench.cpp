// Line reading and file copying against the usual tools, in the same run.
//
// Lines: LReadFileBuffered::ReadLine against std::getline on an std::ifstream and against the
// C library's getline(3), over one 100 MB file of mixed line lengths (mostly short, some of a
// few hundred bytes, a few of several kilobytes; LF endings, which all three understand).
// Every reader counts the lines and sums their first characters, so that none can skip work,
// and the file sits in the page cache for all of them (it has just been written).
//
// Copy: LFile::CopyFile of a 1 GiB file against running cp as a whole process (spawn, wait)
// on the same file. Each copy goes to a destination that does not exist and is deleted untimed
// before the next one; each side first makes one untimed copy, so that neither is charged for
// settling the page cache. Timings of large copies vary from run to run on a shared machine:
// run with --benchmark_repetitions and compare the medians.
//
// The files live in a temporary folder made by the bench and removed at its end.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "file/lfile.h"
#include "file/lfile_stream.h"

extern char** environ;

namespace {

constexpr size_t kLinesBytes = 100u << 20;
constexpr size_t kCopyBytes = 1u << 30;

class BenchFolder {
public:
    BenchFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "files_bench_XXXXXX");
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back(0);
        if (mkdtemp(buffer.data()) == nullptr) {
            abort();
        }
        root_ = buffer.data();
    }
    ~BenchFolder() {
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }
    std::string Path(char const* name) const { return root_ + "/" + name; }

private:
    std::string root_;
};

BenchFolder& Folder() {
    static BenchFolder folder;
    return folder;
}

std::string const& LinesFile() {
    static std::string const path = [] {
        std::string p = Folder().Path("lines.txt");
        std::ofstream out(p, std::ios::binary);
        std::mt19937 random(42);
        std::string line;
        for (size_t written = 0; written < kLinesBytes;) {
            unsigned int const kind = random() % 100;
            size_t const length = kind < 80   ? random() % 80
                                  : kind < 99 ? 80 + random() % 400
                                              : 2000 + random() % 6000;
            line.assign(length, 0);
            for (char& c : line) {
                c = static_cast<char>(' ' + random() % 95);
            }
            line += '\n';
            out << line;
            written += line.size();
        }
        return p;
    }();
    return path;
}

std::string const& CopySource() {
    static std::string const path = [] {
        std::string p = Folder().Path("copy.bin");
        std::ofstream out(p, std::ios::binary);
        std::vector<char> block(1 << 20);
        std::mt19937 random(7);
        for (size_t done = 0; done < kCopyBytes; done += block.size()) {
            for (size_t i = 0; i < block.size(); i += 64) {
                block[i] = static_cast<char>(random());
            }
            out.write(block.data(), static_cast<std::streamsize>(block.size()));
        }
        out.close();
        // Written back before any copy is timed, so that no copy competes with it.
        int fd = open(p.c_str(), O_RDONLY | O_CLOEXEC);
        fsync(fd);
        close(fd);
        return p;
    }();
    return path;
}

void ReportLines(benchmark::State& state, size_t lines) {
    state.counters["lines"] = static_cast<double>(lines);
    state.SetBytesProcessed(
        static_cast<int64_t>(state.iterations() * std::filesystem::file_size(LinesFile())));
}

void BM_Lines_LReadFileBuffered(benchmark::State& state) {
    std::string const& path = LinesFile();
    std::vector<char> line(16384);
    size_t lines = 0, sum = 0;
    for (auto _ : state) {
        int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        LReadFileBuffered reader(fd);
        lines = sum = 0;
        while (reader.ReadLine(line.data(), line.size())) {
            ++lines;
            sum += static_cast<unsigned char>(line[0]);
        }
        close(fd);
        benchmark::DoNotOptimize(sum);
    }
    ReportLines(state, lines);
}

void BM_Lines_IfstreamGetline(benchmark::State& state) {
    std::string const& path = LinesFile();
    std::string line;
    size_t lines = 0, sum = 0;
    for (auto _ : state) {
        std::ifstream in(path, std::ios::binary);
        lines = sum = 0;
        while (std::getline(in, line)) {
            ++lines;
            sum += static_cast<unsigned char>(line.c_str()[0]);
        }
        benchmark::DoNotOptimize(sum);
    }
    ReportLines(state, lines);
}

void BM_Lines_Getline3(benchmark::State& state) {
    std::string const& path = LinesFile();
    char* line = nullptr;
    size_t capacity = 0;
    size_t lines = 0, sum = 0;
    for (auto _ : state) {
        FILE* in = fopen(path.c_str(), "rb");
        lines = sum = 0;
        for (ssize_t n; (n = getline(&line, &capacity, in)) > 0;) {
            ++lines;
            sum += static_cast<unsigned char>(line[0] == '\n' ? 0 : line[0]);
        }
        fclose(in);
        benchmark::DoNotOptimize(sum);
    }
    free(line);
    ReportLines(state, lines);
}

void BM_Copy_LFileCopyFile(benchmark::State& state) {
    std::string const& source = CopySource();
    std::string const destination = Folder().Path("copy.out");
    LFile::CopyFile(source.c_str(), destination.c_str());
    unlink(destination.c_str());
    for (auto _ : state) {
        if (!LFile::CopyFile(source.c_str(), destination.c_str())) {
            state.SkipWithError("copy failed");
        }
        state.PauseTiming();
        unlink(destination.c_str());
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kCopyBytes));
}

void BM_Copy_CpProcess(benchmark::State& state) {
    std::string const& source = CopySource();
    std::string const destination = Folder().Path("copy.out");
    char const* const argv[] = {"cp", source.c_str(), destination.c_str(), nullptr};
    auto copy = [&] {
        pid_t child;
        int status = 0;
        return posix_spawnp(&child, "cp", nullptr, nullptr, const_cast<char* const*>(argv),
                            environ) == 0 &&
               waitpid(child, &status, 0) == child && status == 0;
    };
    copy();
    unlink(destination.c_str());
    for (auto _ : state) {
        if (!copy()) {
            state.SkipWithError("cp failed");
        }
        state.PauseTiming();
        unlink(destination.c_str());
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kCopyBytes));
}

}  // namespace

BENCHMARK(BM_Lines_LReadFileBuffered)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Lines_IfstreamGetline)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Lines_Getline3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Copy_LFileCopyFile)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(8);
BENCHMARK(BM_Copy_CpProcess)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(8);
