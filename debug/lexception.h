// First look at hardware faults, and the message logic of the exception interface.
//
// The exception interface is a message protocol: a faulting thread's exception arrives as a
// request (message ids 2405 to 2407, one per behaviour), the handler answers with a reply that
// carries a return code. mach_exc_server and its three unpackers are plain byte logic over
// those layouts, so they behave the same wherever the messages come from; each checks its
// request exactly as the interface requires and every well-formed request is answered
// KERN_FAILURE, which passes the exception on to the next handler and, in the end, to the
// system's crash handling.
//
// The installer gives the process one handler thread that takes exactly one exception message
// and then ends: its only answer passes the fault on, and the process does not survive it.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

// ---- The message vocabulary ----------------------------------------------------------------

using mach_port_t = uint32_t;
using kern_return_t = int32_t;
using boolean_t = int32_t;
using mach_msg_bits_t = uint32_t;
using mach_msg_size_t = uint32_t;
using mach_msg_id_t = int32_t;
using mach_msg_type_number_t = uint32_t;
using natural_t = uint32_t;
using exception_type_t = int32_t;
using mach_exception_data_type_t = int64_t;
using mach_exception_data_t = mach_exception_data_type_t*;
using thread_state_t = natural_t*;

struct mach_msg_header_t {
    mach_msg_bits_t msgh_bits;
    mach_msg_size_t msgh_size;
    mach_port_t msgh_remote_port;
    mach_port_t msgh_local_port;
    mach_port_t msgh_voucher_port;
    mach_msg_id_t msgh_id;
};
static_assert(sizeof(mach_msg_header_t) == 24);

// The data-representation record that stands in front of every reply's return code.
struct NDR_record_t {
    uint8_t mig_vers, if_vers, reserved1, mig_encoding, int_rep, char_rep, float_rep, reserved2;
};
extern NDR_record_t const NDR_record;

inline constexpr kern_return_t KERN_SUCCESS = 0;
inline constexpr kern_return_t KERN_FAILURE = 5;
inline constexpr kern_return_t MIG_TYPE_ERROR = -300;
inline constexpr kern_return_t MIG_BAD_ID = -303;
inline constexpr kern_return_t MIG_BAD_ARGUMENTS = -304;
inline constexpr mach_msg_bits_t MACH_MSGH_BITS_COMPLEX = 0x80000000u;
inline constexpr uint8_t MACH_MSG_PORT_DESCRIPTOR = 0;
inline constexpr uint8_t MACH_MSG_TYPE_MOVE_SEND = 17;
inline constexpr uint32_t MACH_MSG_TYPE_MAKE_SEND = 20;
// The exception interface's subsystem: requests 2405..2407, replies 100 above.
inline constexpr mach_msg_id_t kLMachExcFirstId = 2405;
inline constexpr mach_msg_type_number_t kLMachExcMaxCodes = 2;
inline constexpr mach_msg_type_number_t kLMachExcMaxState = 614;
// Exceptions watched: bad access, bad instruction, arithmetic.
inline constexpr uint32_t kLMachExcMask = 14;

using mig_routine_t = void (*)(mach_msg_header_t* InHeadP, mach_msg_header_t* OutHeadP);

// The dispatcher: fills the reply's header and runs the request's unpacker. 1 when the id is
// one of the interface's, 0 (reply answering MIG_BAD_ID) otherwise. The request must hold
// msgh_size bytes; the reply needs room for 44.
boolean_t mach_exc_server(mach_msg_header_t* InHeadP, mach_msg_header_t* OutHeadP);
mig_routine_t mach_exc_server_routine(mach_msg_header_t* InHeadP);

void _Xmach_exception_raise(mach_msg_header_t* InHeadP, mach_msg_header_t* OutHeadP);
void _Xmach_exception_raise_state(mach_msg_header_t* InHeadP, mach_msg_header_t* OutHeadP);
void _Xmach_exception_raise_state_identity(mach_msg_header_t* InHeadP, mach_msg_header_t* OutHeadP);

// The exception callbacks. Each declines: KERN_FAILURE, nothing else.
kern_return_t catch_mach_exception_raise(mach_port_t exception_port, mach_port_t thread,
                                         mach_port_t task, exception_type_t exception,
                                         mach_exception_data_t code,
                                         mach_msg_type_number_t codeCnt);
kern_return_t catch_mach_exception_raise_state(
    mach_port_t exception_port, exception_type_t exception, mach_exception_data_t const code,
    mach_msg_type_number_t codeCnt, int* flavor, thread_state_t const old_state,
    mach_msg_type_number_t old_stateCnt, thread_state_t new_state,
    mach_msg_type_number_t* new_stateCnt);
kern_return_t catch_mach_exception_raise_state_identity(
    mach_port_t exception_port, mach_port_t thread, mach_port_t task, exception_type_t exception,
    mach_exception_data_t code, mach_msg_type_number_t codeCnt, int* flavor,
    thread_state_t old_state, mach_msg_type_number_t old_stateCnt, thread_state_t new_state,
    mach_msg_type_number_t* new_stateCnt);

// ---- The installer -------------------------------------------------------------------------

inline constexpr size_t kLExceptionRequestSize = 1052;
inline constexpr size_t kLExceptionReplySize = 280;

class LExceptionHandlerInstaller {
public:
    // Installs the handler; failures are silent.
    LExceptionHandlerInstaller();
    // Gives the port up; only when that succeeds, cancels the thread and clears the port.
    ~LExceptionHandlerInstaller();
    LExceptionHandlerInstaller(LExceptionHandlerInstaller const&) = delete;
    LExceptionHandlerInstaller& operator=(LExceptionHandlerInstaller const&) = delete;

    void LMachExceptionHandlerInstall();
    // Takes one exception message, answers it through mach_exc_server, and ends.
    static void* LMachExceptionHandlerThread(void* installer);

    mach_port_t exceptionPort = 0;
    alignas(8) unsigned char requestBuffer[kLExceptionRequestSize] = {};
    alignas(8) unsigned char replyBuffer[kLExceptionReplySize] = {};
    pthread_t handlerThread{};
};

// The process's installer, valid once LExceptionHandlerInstallerCreate has run.
extern LExceptionHandlerInstaller& gLExceptionHandlerInstaller;
// Constructs gLExceptionHandlerInstaller once (which installs the handler) and registers its
// destruction at exit; later calls do nothing.
void LExceptionHandlerInstallerCreate();
bool LExceptionHandlerInstallerCreated();

// ---- Platform half -------------------------------------------------------------------------

// Sets up the exception port and the fault watch for installer: false (nothing left behind)
// when the platform refuses.
bool _LExceptionPortInstall(LExceptionHandlerInstaller& installer);
// Receives one message into the request buffer (its header's size set to what arrived);
// false when none can be received.
bool _LExceptionPortReceive(LExceptionHandlerInstaller& installer);
// Sends the reply held in the reply buffer, msgh_size bytes of it.
void _LExceptionPortSend(LExceptionHandlerInstaller& installer);
// Gives the port right up; false when the platform refuses.
bool _LExceptionPortDeallocate(LExceptionHandlerInstaller& installer);
