// Defaults of the process interface and its three ready-made implementations.
#include "thread/lprocess_interface.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace {

// Formats into a buffer of LProcessInterface::kFormatBufferSize bytes; longer text is cut and
// the buffer is always terminated.
void FormatCut(char (&buffer)[LProcessInterface::kFormatBufferSize], char const* format,
               va_list args) {
    buffer[0] = '\0';
    if (format != nullptr) {
        vsnprintf(buffer, sizeof buffer, format, args);
    }
}

}  // namespace

bool LProcessInterface::ProcessWaitUntilStopped() {
    return ProcessWait(LSignalInfinite);
}

int LProcessInterface::ProcessWaitSignalForever(LSignalObjectRef ref) {
    return ProcessWaitSignal(ref, LSignalInfinite);
}

int LProcessInterface::ProcessWaitSignalObjectGroupForever(LSignalObjectGroup& group) {
    return ProcessWaitSignalObjectGroup(group, LSignalInfinite);
}

void LProcessInterface::SetError(char const*) {}
void LProcessInterface::SetStatus(char const*, int) {}
void LProcessInterface::SetProgress(double) {}
void LProcessInterface::SetProgressIndeterminateOn() {}
void LProcessInterface::SetProgressIndeterminateOff() {}

void LProcessInterface::SetErrorF(char const* format, ...) {
    char text[kFormatBufferSize];
    va_list args;
    va_start(args, format);
    FormatCut(text, format, args);
    va_end(args);
    SetError(text);
}

void LProcessInterface::SetStatusF(int level, char const* format, ...) {
    char text[kFormatBufferSize];
    va_list args;
    va_start(args, format);
    FormatCut(text, format, args);
    va_end(args);
    SetStatus(text, level);
}

bool LProcessInterfaceVoid::IsToStop() {
    return false;
}

bool LProcessInterfaceVoid::ProcessWait(unsigned int ms) {
    timespec left{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
    return false;
}

int LProcessInterfaceVoid::ProcessWaitSignal(LSignalObjectRef ref, unsigned int ms) {
    return ref.WaitSignal(ms) ? 0 : 2;
}

int LProcessInterfaceVoid::ProcessWaitSignalObjectGroup(LSignalObjectGroup& group,
                                                        unsigned int ms) {
    if (group.GetCount() == 0) {
        return 2;
    }
    return group.Select(ms) ? 0 : 2;
}

bool LProcessInterfaceNested::IsToStop() {
    return parent->IsToStop();
}

bool LProcessInterfaceNested::ProcessWait(unsigned int ms) {
    return parent->ProcessWait(ms);
}

int LProcessInterfaceNested::ProcessWaitSignal(LSignalObjectRef ref, unsigned int ms) {
    return parent->ProcessWaitSignal(ref, ms);
}

int LProcessInterfaceNested::ProcessWaitSignalObjectGroup(LSignalObjectGroup& group,
                                                          unsigned int ms) {
    return parent->ProcessWaitSignalObjectGroup(group, ms);
}

bool LProcessInterfaceNested::ProcessWaitUntilStopped() {
    return parent->ProcessWait(LSignalInfinite);
}

int LProcessInterfaceNested::ProcessWaitSignalForever(LSignalObjectRef ref) {
    return parent->ProcessWaitSignal(ref, LSignalInfinite);
}

int LProcessInterfaceNested::ProcessWaitSignalObjectGroupForever(LSignalObjectGroup& group) {
    return parent->ProcessWaitSignalObjectGroup(group, LSignalInfinite);
}

void LProcessInterfaceNested::SetError(char const* text) {
    parent->SetError(text);
}

void LProcessInterfaceSubProcess::SetStatus(char const* text, int level) {
    parent->SetStatus(text, level + 1);
}

void LProcessInterfaceSubProcess::SetProgress(double progress) {
    parent->SetProgress(progress * progressScale + progressOffset);
}

void LProcessInterfaceSubProcess::SetProgressIndeterminateOn() {}
void LProcessInterfaceSubProcess::SetProgressIndeterminateOff() {}
