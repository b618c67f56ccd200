// Loading a 20 MB settings-shaped XML document (sections holding key elements whose value
// is an attribute, tab-indented as the writer makes them) from memory into a tree, and
// freeing it, against pugixml (load_buffer, default options) and libxml2 (xmlReadMemory)
// in the same run. Compare the bytes per second of XMLLoad_L with its two peers.
#include <benchmark/benchmark.h>
#include <libxml/parser.h>
#include <malloc.h>
#include <pugixml.hpp>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "settings/lxml.h"
#include "thread/lprocess_interface.h"

namespace {

const std::string& Document() {
    static const std::string text = [] {
        std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Settings>\n";
        char line[256];
        for (int section = 0; out.size() < 20u << 20; ++section) {
            std::snprintf(line, sizeof(line), "\t<Section%d>\n", section);
            out += line;
            for (int key = 0; key < 40; ++key) {
                std::snprintf(line, sizeof(line),
                              "\t\t<Key%d value=\"%s%d &amp; more text, %d\"/>\n", key,
                              key % 3 == 0 ? "C:/Users/Recorder/Movies/Take " : "value ",
                              section * 40 + key, key * 7);
                out += line;
            }
            std::snprintf(line, sizeof(line), "\t</Section%d>\n", section);
            out += line;
        }
        return out + "</Settings>\n";
    }();
    return text;
}

// Each loader allocates tens of megabytes per iteration and frees them again. With the
// allocator's defaults that memory goes back to the system after each iteration, and the
// loader measured next pays the page faults to take it again, so its figure would depend on
// the loader before it. Kept in the heap, every loader starts from the same state.
const bool gHeapKept = [] {
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    mallopt(M_MMAP_THRESHOLD, 32 << 20);  // the largest the allocator takes
    return true;
}();

void XMLLoad_L(benchmark::State& state) {
    const std::string& text = Document();
    LProcessInterfaceVoid process;
    for (auto _ : state) {
        char error[260] = {};
        LXMLDocument doc;
        LXMLLoaderTemplate<char> loader(text.c_str(), error, process);
        doc.LoadData(loader);
        benchmark::DoNotOptimize(doc.GetFirstChild());
        if (error[0] != 0) {
            state.SkipWithError(error);
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void XMLLoad_PugiXML(benchmark::State& state) {
    const std::string& text = Document();
    for (auto _ : state) {
        pugi::xml_document doc;
        const pugi::xml_parse_result result = doc.load_buffer(text.data(), text.size());
        benchmark::DoNotOptimize(doc.first_child());
        if (!result) {
            state.SkipWithError(result.description());
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void XMLLoad_LibXML2(benchmark::State& state) {
    const std::string& text = Document();
    for (auto _ : state) {
        xmlDocPtr doc = xmlReadMemory(text.data(), static_cast<int>(text.size()), "bench.xml",
                                      nullptr, XML_PARSE_NONET | XML_PARSE_HUGE);
        benchmark::DoNotOptimize(doc);
        if (doc == nullptr) {
            state.SkipWithError("xmlReadMemory failed");
        }
        xmlFreeDoc(doc);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

BENCHMARK(XMLLoad_L)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(XMLLoad_PugiXML)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(XMLLoad_LibXML2)->Unit(benchmark::kMillisecond)->MinTime(2);

}  // namespace
