// Fuzzes the XML reader with arbitrary text, then the writer and the reader again on what
// was written, and the deep copy. The error buffer is an exact 260-byte heap block, so ASan
// reports any write past it; the message must be terminated inside it.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "settings/lxml.h"
#include "thread/lprocess_interface.h"

namespace {

void Load(const char* text, LXMLDocument& doc) {
    std::unique_ptr<char[]> error(new char[260]);
    error[0] = 0;
    LProcessInterfaceVoid process;
    LXMLLoaderTemplate<char> loader(text, error.get(), process);
    doc.LoadData(loader);
    if (std::memchr(error.get(), 0, 260) == nullptr || loader.GetLine() < 1 ||
        loader.GetColumn() < 1) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    LXMLDocument doc;
    Load(text.c_str(), doc);
    LStringLongTemplate<char> formatted, flat;
    doc.SaveToBuffer(formatted, 0);
    doc.SaveToBufferNoFormatting(flat);
    LXMLDocument again;
    Load(formatted.GetText(), again);
    Load(flat.GetText(), again);
    LXMLElement copy(doc);
    copy = again;
    return 0;
}
