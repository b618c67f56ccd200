// Fuzzes the buffered reader with random sequences of ReadLine, Read, Peek, the three seeks
// and Tell64 over files of up to 40000 bytes (several buffer blocks), checking every answer
// against a plain model of the file: a string and a position. Line buffers and read buffers
// are exact heap blocks, so ASan reports any write past them.
//
// Input layout: bytes 0-1 give the file size (mod 40001); the file is the rest of the input
// repeated to that size (zeros for an empty rest); the same rest is then read as operations,
// one opcode byte and two argument bytes each.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "file/lfile_stream.h"
#include "file_input.h"

namespace {

void Check(bool ok) {
    if (!ok) {
        abort();
    }
}

// The reader's line rule: LF ends a line; CR ends one and takes a following LF with it.
bool ModelReadLine(std::string const& file, size_t& pos, std::string& line, size_t size) {
    line.clear();
    size_t const room = size != 0 ? size - 1 : 0;
    while (pos < file.size()) {
        char c = file[pos++];
        if (c == '\n') {
            return true;
        }
        if (c == '\r') {
            if (pos < file.size() && file[pos] == '\n') {
                ++pos;
            }
            return true;
        }
        if (line.size() < room) {
            line += c;
        }
    }
    return !line.empty();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    size_t const fileSize = (data[0] | data[1] << 8) % 40001;
    uint8_t const* rest = data + 2;
    size_t const restSize = size - 2;
    std::string model(fileSize, 0);
    for (size_t i = 0; restSize != 0 && i < fileSize; ++i) {
        model[i] = static_cast<char>(rest[i % restSize]);
    }
    FuzzFile file(reinterpret_cast<uint8_t const*>(model.data()), model.size());
    LReadFileBuffered reader(file.fd());
    Check(reader.GetFileSizeBytes64() == fileSize);
    size_t pos = 0;
    for (size_t op = 0; op + 3 <= restSize; op += 3) {
        size_t const arg = rest[op + 1] | rest[op + 2] << 8;
        switch (rest[op] % 7) {
            case 0: {  // ReadLine with a buffer of arg % 300 bytes
                size_t const lineSize = arg % 300;
                std::unique_ptr<char[]> line(new char[lineSize == 0 ? 1 : lineSize]);
                std::string expected;
                bool const more = ModelReadLine(model, pos, expected, lineSize);
                Check(reader.ReadLine(line.get(), lineSize) == more);
                Check(lineSize == 0 || std::string(line.get()) == expected.c_str());
                break;
            }
            case 1:
            case 2: {  // Read or Peek of arg % 20000 bytes
                size_t const count = arg % 20000;
                std::unique_ptr<char[]> out(new char[count == 0 ? 1 : count]);
                bool const peek = rest[op] % 7 == 2;
                size_t const n =
                    peek ? reader.Peek(out.get(), count) : reader.Read(out.get(), count);
                size_t const expected = std::min(count, model.size() - std::min(pos, model.size()));
                // A direct read may stop short of the end only on a failed read, which a
                // memory file never gives.
                Check(n == expected);
                Check(n == 0 || memcmp(out.get(), model.data() + pos, n) == 0);
                if (!peek) {
                    pos += n;
                }
                break;
            }
            case 3:
                Check(reader.Seek(static_cast<unsigned int>(arg)) == 0);
                pos = arg;
                break;
            case 4:
                Check(reader.Seek64(arg * 3ull) == 0);
                pos = arg * 3;
                break;
            case 5: {
                long long delta = static_cast<long long>(arg) - 32768;
                if (static_cast<long long>(pos) + delta < 0) {
                    delta = -static_cast<long long>(pos);
                }
                Check(reader.SeekOffset64(delta) == 0);
                pos = static_cast<size_t>(static_cast<long long>(pos) + delta);
                break;
            }
            default:
                break;
        }
        Check(reader.Tell64() == pos);
    }
    return 0;
}
