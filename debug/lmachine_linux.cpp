// Linux half of the machine description: the processor's name from /proc/cpuinfo and the
// PCI devices' names from libpci, whose device-name look-up is the one the system's PCI
// listing shows.
//
// libpci reports fatal errors through a callback that must not return (the library carries
// on with a half-made state otherwise); ours jumps back out of the walk, which then gives an
// empty list. Nothing between the jump and its target holds a resource of ours.
extern "C" {
#include <pci/pci.h>
}

#include <algorithm>
#include <csetjmp>
#include <cstdarg>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "debug/lmachine.h"
#include "platform/lsmall_file.h"

namespace {

thread_local std::jmp_buf* tPciEscape = nullptr;

__attribute__((noreturn)) void PciFatal(char*, ...) {
    std::longjmp(*tPciEscape, 1);
}

void PciQuiet(char*, ...) {}

// Scans the bus and adds each device's name to list in bus order; false when libpci gave up.
// devices is the caller's so that a jump out leaves no object of this frame undestroyed.
bool ListPciNames(pci_access* access, std::vector<pci_dev*>& devices,
                  LStringListTemplate<char>& list) {
    std::jmp_buf escape;
    tPciEscape = &escape;
    if (setjmp(escape) != 0) {
        tPciEscape = nullptr;
        return false;
    }
    pci_init(access);
    pci_scan_bus(access);
    for (pci_dev* d = access->devices; d != nullptr; d = d->next) {
        pci_fill_info(d, PCI_FILL_IDENT);
        devices.push_back(d);
    }
    std::sort(devices.begin(), devices.end(), [](pci_dev const* a, pci_dev const* b) {
        return std::tie(a->domain, a->bus, a->dev, a->func) <
               std::tie(b->domain, b->bus, b->dev, b->func);
    });
    for (pci_dev const* d : devices) {
        char name[1024];
        if (pci_lookup_name(access, name, sizeof name, PCI_LOOKUP_DEVICE, d->vendor_id,
                            d->device_id) != nullptr) {
            name[259] = 0;
            list.AddString(name);
        }
    }
    tPciEscape = nullptr;
    return true;
}

}  // namespace

bool _LMachineCPUInfoModelName(std::string_view cpuinfo, char* out) {
    out[0] = 0;
    constexpr std::string_view kKey = "model name";
    while (!cpuinfo.empty()) {
        size_t end = cpuinfo.find('\n');
        std::string_view line = cpuinfo.substr(0, end);
        cpuinfo.remove_prefix(end == std::string_view::npos ? cpuinfo.size() : end + 1);
        if (line.substr(0, kKey.size()) != kKey) {
            continue;
        }
        std::string_view rest = line.substr(kKey.size());
        size_t colon = rest.find_first_not_of(" \t");
        if (colon == std::string_view::npos || rest[colon] != ':') {
            continue;
        }
        rest.remove_prefix(colon + 1);
        rest.remove_prefix(std::min(rest.find_first_not_of(" \t"), rest.size()));
        size_t n = std::min<size_t>(rest.size(), 259);
        memcpy(out, rest.data(), n);
        out[n] = 0;
        return true;
    }
    return false;
}

void LMachineGetCPUDescription(char* out) {
    std::string text;
    _LReadWholeFile("/proc/cpuinfo", text);
    _LMachineCPUInfoModelName(text, out);
}

void LMachineGetGPUDescriptions(LStringListTemplate<char>& list) {
    list.RemoveAll();
    pci_access* access = pci_alloc();
    if (access == nullptr) {
        return;
    }
    access->error = PciFatal;
    access->warning = PciQuiet;
    access->debug = PciQuiet;
    std::vector<pci_dev*> devices;
    if (!ListPciNames(access, devices, list)) {
        list.RemoveAll();
    }
    pci_cleanup(access);
}
