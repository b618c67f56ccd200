// The exception interface's dispatcher and unpackers, and the installer's portable half.
//
// Fields are read and written by byte offset (the layouts pack 64-bit codes at 4-byte
// boundaries). Every unpacker proves that a field lies inside msgh_size before it reads it,
// so a request is never read past its stated size, and a reply is never written past its
// 44th byte: the new state the state behaviours could return lives in a local array, and
// the callbacks decline before anything would be copied out.
#include "debug/lexception.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

NDR_record_t const NDR_record = {0, 0, 0, 0, 1, 0, 0, 0};

namespace {

// Request layouts.
constexpr size_t kBodyOffset = 24;             // descriptor count of complex messages
constexpr size_t kFirstDescriptorOffset = 28;  // two 12-byte port descriptors
constexpr size_t kDescriptorSize = 12;
constexpr size_t kRaiseCodeCountOffset = 64;  // after NDR (52) and exception (60)
constexpr size_t kRaiseMin = 68, kRaiseMax = 84;
constexpr size_t kStateCodeCountOffset = 36;  // after NDR (24) and exception (32)
constexpr size_t kStateMin = 48, kStateMax = 2520;
constexpr size_t kIdentityMin = 76, kIdentityMax = 2548;
// Reply layout: header, NDR, return code, then flavor and new-state count.
constexpr size_t kReplyNdrOffset = 24;
constexpr size_t kReplyRetCodeOffset = 32;
constexpr size_t kReplyNewStateCountOffset = 40;
constexpr mach_msg_size_t kReplyHeaderSize = 36;

unsigned char* Bytes(mach_msg_header_t* header) {
    return reinterpret_cast<unsigned char*>(header);
}

uint32_t Load32(unsigned char const* at) {
    uint32_t value;
    memcpy(&value, at, sizeof value);
    return value;
}

void Store32(unsigned char* at, uint32_t value) {
    memcpy(at, &value, sizeof value);
}

void ReturnCode(mach_msg_header_t* reply, kern_return_t code) {
    memcpy(Bytes(reply) + kReplyNdrOffset, &NDR_record, sizeof NDR_record);
    Store32(Bytes(reply) + kReplyRetCodeOffset, static_cast<uint32_t>(code));
}

// Both port descriptors (thread, task) must move a send right.
kern_return_t CheckPortDescriptors(unsigned char const* request) {
    for (size_t i = 0; i < 2; ++i) {
        unsigned char const* descriptor = request + kFirstDescriptorOffset + i * kDescriptorSize;
        if (descriptor[11] != MACH_MSG_PORT_DESCRIPTOR ||
            descriptor[10] != MACH_MSG_TYPE_MOVE_SEND) {
            return MIG_TYPE_ERROR;
        }
    }
    return KERN_SUCCESS;
}

mach_port_t DescriptorPort(unsigned char const* request, size_t index) {
    return Load32(request + kFirstDescriptorOffset + index * kDescriptorSize);
}

// The codes, the flavor and the state of a state behaviour, starting at the code count.
struct StateFields {
    exception_type_t exception;
    mach_msg_type_number_t codeCount;
    mach_exception_data_type_t codes[kLMachExcMaxCodes];
    int flavor;
    mach_msg_type_number_t stateCount;
    natural_t state[kLMachExcMaxState];
};

// Checks and reads the variable part of a state request whose code count stands at
// countOffset and whose smallest form is minSize bytes.
kern_return_t ReadStateFields(unsigned char const* request, size_t countOffset, size_t minSize,
                              StateFields& out) {
    size_t const size = Load32(request + 4);
    memcpy(&out.exception, request + countOffset - 4, 4);
    out.codeCount = Load32(request + countOffset);
    if (out.codeCount > kLMachExcMaxCodes || size < minSize + 8 * size_t{out.codeCount}) {
        return MIG_BAD_ARGUMENTS;
    }
    unsigned char const* at = request + countOffset + 4;
    memcpy(out.codes, at, 8 * size_t{out.codeCount});
    at += 8 * size_t{out.codeCount};
    memcpy(&out.flavor, at, 4);
    out.stateCount = Load32(at + 4);
    if (out.stateCount > kLMachExcMaxState ||
        size != minSize + 8 * size_t{out.codeCount} + 4 * size_t{out.stateCount}) {
        return MIG_BAD_ARGUMENTS;
    }
    memcpy(out.state, at + 8, 4 * size_t{out.stateCount});
    return KERN_SUCCESS;
}

// Answers a checked state request: the reply names the full state room, then the callback's
// code.
void AnswerState(mach_msg_header_t* reply, kern_return_t code) {
    Store32(Bytes(reply) + kReplyNewStateCountOffset, kLMachExcMaxState);
    ReturnCode(reply, code);
}

}  // namespace

void _Xmach_exception_raise(mach_msg_header_t* InHeadP, mach_msg_header_t* OutHeadP) {
    unsigned char const* request = Bytes(InHeadP);
    size_t const size = InHeadP->msgh_size;
    if (!(InHeadP->msgh_bits & MACH_MSGH_BITS_COMPLEX) || size < kRaiseMin || size > kRaiseMax ||
        Load32(request + kBodyOffset) != 2) {
        return ReturnCode(OutHeadP, MIG_BAD_ARGUMENTS);
    }
    if (kern_return_t check = CheckPortDescriptors(request); check != KERN_SUCCESS) {
        return ReturnCode(OutHeadP, check);
    }
    mach_msg_type_number_t const codeCount = Load32(request + kRaiseCodeCountOffset);
    if (codeCount > kLMachExcMaxCodes || size != kRaiseMin + 8 * size_t{codeCount}) {
        return ReturnCode(OutHeadP, MIG_BAD_ARGUMENTS);
    }
    exception_type_t exception;
    memcpy(&exception, request + kRaiseCodeCountOffset - 4, 4);
    mach_exception_data_type_t codes[kLMachExcMaxCodes] = {};
    memcpy(codes, request + kRaiseMin, 8 * size_t{codeCount});
    ReturnCode(OutHeadP,
               catch_mach_exception_raise(InHeadP->msgh_local_port, DescriptorPort(request, 0),
                                          DescriptorPort(request, 1), exception, codes, codeCount));
}

void _Xmach_exception_raise_state(mach_msg_header_t* InHeadP, mach_msg_header_t* OutHeadP) {
    unsigned char const* request = Bytes(InHeadP);
    size_t const size = InHeadP->msgh_size;
    if ((InHeadP->msgh_bits & MACH_MSGH_BITS_COMPLEX) || size < kStateMin || size > kStateMax) {
        return ReturnCode(OutHeadP, MIG_BAD_ARGUMENTS);
    }
    StateFields fields;
    if (kern_return_t check = ReadStateFields(request, kStateCodeCountOffset, kStateMin, fields);
        check != KERN_SUCCESS) {
        return ReturnCode(OutHeadP, check);
    }
    natural_t newState[kLMachExcMaxState];
    mach_msg_type_number_t newStateCount = kLMachExcMaxState;
    AnswerState(OutHeadP,
                catch_mach_exception_raise_state(
                    InHeadP->msgh_local_port, fields.exception, fields.codes, fields.codeCount,
                    &fields.flavor, fields.state, fields.stateCount, newState, &newStateCount));
}

void _Xmach_exception_raise_state_identity(mach_msg_header_t* InHeadP,
                                           mach_msg_header_t* OutHeadP) {
    unsigned char const* request = Bytes(InHeadP);
    size_t const size = InHeadP->msgh_size;
    if (!(InHeadP->msgh_bits & MACH_MSGH_BITS_COMPLEX) || size < kIdentityMin ||
        size > kIdentityMax || Load32(request + kBodyOffset) != 2) {
        return ReturnCode(OutHeadP, MIG_BAD_ARGUMENTS);
    }
    if (kern_return_t check = CheckPortDescriptors(request); check != KERN_SUCCESS) {
        return ReturnCode(OutHeadP, check);
    }
    StateFields fields;
    if (kern_return_t check = ReadStateFields(request, kRaiseCodeCountOffset, kIdentityMin, fields);
        check != KERN_SUCCESS) {
        return ReturnCode(OutHeadP, check);
    }
    natural_t newState[kLMachExcMaxState];
    mach_msg_type_number_t newStateCount = kLMachExcMaxState;
    AnswerState(OutHeadP,
                catch_mach_exception_raise_state_identity(
                    InHeadP->msgh_local_port, DescriptorPort(request, 0),
                    DescriptorPort(request, 1), fields.exception, fields.codes, fields.codeCount,
                    &fields.flavor, fields.state, fields.stateCount, newState, &newStateCount));
}

mig_routine_t mach_exc_server_routine(mach_msg_header_t* InHeadP) {
    switch (InHeadP->msgh_id) {
        case kLMachExcFirstId:
            return _Xmach_exception_raise;
        case kLMachExcFirstId + 1:
            return _Xmach_exception_raise_state;
        case kLMachExcFirstId + 2:
            return _Xmach_exception_raise_state_identity;
        default:
            return nullptr;
    }
}

boolean_t mach_exc_server(mach_msg_header_t* InHeadP, mach_msg_header_t* OutHeadP) {
    OutHeadP->msgh_bits = InHeadP->msgh_bits & 0xFF;
    OutHeadP->msgh_size = kReplyHeaderSize;
    OutHeadP->msgh_remote_port = InHeadP->msgh_remote_port;
    OutHeadP->msgh_local_port = 0;
    OutHeadP->msgh_voucher_port = 0;
    // The id comes from outside: the reply's is 100 above it, wrapping like the 32-bit field.
    OutHeadP->msgh_id = static_cast<mach_msg_id_t>(static_cast<uint32_t>(InHeadP->msgh_id) + 100u);
    mig_routine_t routine = mach_exc_server_routine(InHeadP);
    if (routine == nullptr) {
        ReturnCode(OutHeadP, MIG_BAD_ID);
        return 0;
    }
    routine(InHeadP, OutHeadP);
    return 1;
}

kern_return_t catch_mach_exception_raise(mach_port_t, mach_port_t, mach_port_t, exception_type_t,
                                         mach_exception_data_t, mach_msg_type_number_t) {
    return KERN_FAILURE;
}

kern_return_t catch_mach_exception_raise_state(mach_port_t, exception_type_t,
                                               mach_exception_data_t const, mach_msg_type_number_t,
                                               int*, thread_state_t const, mach_msg_type_number_t,
                                               thread_state_t, mach_msg_type_number_t*) {
    return KERN_FAILURE;
}

kern_return_t catch_mach_exception_raise_state_identity(mach_port_t, mach_port_t, mach_port_t,
                                                        exception_type_t, mach_exception_data_t,
                                                        mach_msg_type_number_t, int*,
                                                        thread_state_t, mach_msg_type_number_t,
                                                        thread_state_t, mach_msg_type_number_t*) {
    return KERN_FAILURE;
}

// ---- The installer -------------------------------------------------------------------------

LExceptionHandlerInstaller::LExceptionHandlerInstaller() {
    LMachExceptionHandlerInstall();
}

LExceptionHandlerInstaller::~LExceptionHandlerInstaller() {
    if (_LExceptionPortDeallocate(*this)) {
        // The thread reads this object until it ends: wait for that before changing it.
        if (handlerThread != pthread_t{}) {
            pthread_cancel(handlerThread);
            pthread_join(handlerThread, nullptr);
            handlerThread = pthread_t{};
        }
        exceptionPort = 0;
    }
}

void LExceptionHandlerInstaller::LMachExceptionHandlerInstall() {
    if (!_LExceptionPortInstall(*this)) {
        return;
    }
    if (pthread_create(&handlerThread, nullptr, LMachExceptionHandlerThread, this) != 0) {
        handlerThread = pthread_t{};
    }
}

void* LExceptionHandlerInstaller::LMachExceptionHandlerThread(void* argument) {
    auto* installer = static_cast<LExceptionHandlerInstaller*>(argument);
    if (installer == nullptr || !_LExceptionPortReceive(*installer)) {
        return nullptr;
    }
    auto* request = reinterpret_cast<mach_msg_header_t*>(installer->requestBuffer);
    auto* reply = reinterpret_cast<mach_msg_header_t*>(installer->replyBuffer);
    if (mach_exc_server(request, reply)) {
        _LExceptionPortSend(*installer);
    }
    return nullptr;
}

namespace {

// Nothing in it is built before LExceptionHandlerInstallerCreate, which the program's static
// initialiser calls at its fixed place.
union InstallerStorage {
    constexpr InstallerStorage() : unbuilt(0) {}
    ~InstallerStorage() {}
    char unbuilt;
    LExceptionHandlerInstaller installer;
};

constinit InstallerStorage gInstallerStorage;
constinit std::once_flag gInstallerCreated;
bool gbInstallerCreated = false;

void DestroyInstaller() {
    gInstallerStorage.installer.~LExceptionHandlerInstaller();
}

}  // namespace

constinit LExceptionHandlerInstaller& gLExceptionHandlerInstaller = gInstallerStorage.installer;

void LExceptionHandlerInstallerCreate() {
    std::call_once(gInstallerCreated, [] {
        new (&gInstallerStorage.installer) LExceptionHandlerInstaller();
        gbInstallerCreated = true;
        std::atexit(DestroyInstaller);
    });
}

bool LExceptionHandlerInstallerCreated() {
    return gbInstallerCreated;
}
