// The interface handed to every long operation of the library: through it the operation asks
// whether to stop, waits so that a stop request ends the wait, and reports errors, status
// lines and progress. Results of the event waits: 0 the event fired, 1 a stop was requested,
// 2 timeout or error.
//
// The order of the virtual operations is part of the interface (implementations elsewhere
// rely on it): keep new operations after the existing ones.
#pragma once

#include "thread/lsignal_object.h"

class LProcessInterface {
public:
    virtual bool IsToStop() = 0;
    virtual bool ProcessWait(unsigned int ms) = 0;
    virtual int ProcessWaitSignal(LSignalObjectRef ref, unsigned int ms) = 0;
    virtual int ProcessWaitSignalObjectGroup(LSignalObjectGroup& group, unsigned int ms) = 0;
    virtual bool ProcessWaitUntilStopped();
    virtual int ProcessWaitSignalForever(LSignalObjectRef ref);
    virtual int ProcessWaitSignalObjectGroupForever(LSignalObjectGroup& group);
    virtual void SetError(char const* text);
    virtual void SetStatus(char const* text, int level);
    virtual void SetProgress(double progress);
    virtual void SetProgressIndeterminateOn();
    virtual void SetProgressIndeterminateOff();
    virtual ~LProcessInterface() = default;

    // Format into 8192 bytes (longer text is cut) and pass the text to SetError / SetStatus.
    void SetErrorF(char const* format, ...) __attribute__((format(printf, 2, 3)));
    void SetStatusF(int level, char const* format, ...) __attribute__((format(printf, 3, 4)));

    static constexpr unsigned int kFormatBufferSize = 8192;
};

// For operations nobody watches: never stops, waits really wait, reports go nowhere.
class LProcessInterfaceVoid : public LProcessInterface {
public:
    bool IsToStop() override;
    bool ProcessWait(unsigned int ms) override;
    int ProcessWaitSignal(LSignalObjectRef ref, unsigned int ms) override;
    int ProcessWaitSignalObjectGroup(LSignalObjectGroup& group, unsigned int ms) override;
};

// Forwards the stop test, the waits and SetError to a parent it does not own.
class LProcessInterfaceNested : public LProcessInterface {
public:
    explicit LProcessInterfaceNested(LProcessInterface* parent) : parent(parent) {}

    bool IsToStop() override;
    bool ProcessWait(unsigned int ms) override;
    int ProcessWaitSignal(LSignalObjectRef ref, unsigned int ms) override;
    int ProcessWaitSignalObjectGroup(LSignalObjectGroup& group, unsigned int ms) override;
    bool ProcessWaitUntilStopped() override;
    int ProcessWaitSignalForever(LSignalObjectRef ref) override;
    int ProcessWaitSignalObjectGroupForever(LSignalObjectGroup& group) override;
    void SetError(char const* text) override;

protected:
    LProcessInterface* parent;
};

// A step of a longer operation: its progress 0..1 maps to offset + p * scale at the parent,
// and its status lines go one level deeper. Indeterminate progress is the step's own
// business and is not passed on.
class LProcessInterfaceSubProcess : public LProcessInterfaceNested {
public:
    LProcessInterfaceSubProcess(LProcessInterface* parent, double offset, double scale)
        : LProcessInterfaceNested(parent), progressOffset(offset), progressScale(scale) {}

    void SetStatus(char const* text, int level) override;
    void SetProgress(double progress) override;
    void SetProgressIndeterminateOn() override;
    void SetProgressIndeterminateOff() override;

    void SetProgressRange(double offset, double scale) {
        progressOffset = offset;
        progressScale = scale;
    }

private:
    double progressOffset;
    double progressScale;
};
