// Fuzzes the exception-message dispatcher with outside bytes as a received request: the
// message's header size is what arrived, as the receiving side sets it. Checks that hold for
// every input: the reply is the 36-byte header form with id 100 above the request's, its
// return code is one the interface defines, and nothing beyond its 44th byte is written.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "debug/lexception.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < sizeof(mach_msg_header_t)) {
        return 0;
    }
    std::vector<uint64_t> storage((size + 7) / 8);
    memcpy(storage.data(), data, size);
    auto* request = reinterpret_cast<mach_msg_header_t*>(storage.data());
    request->msgh_size = static_cast<mach_msg_size_t>(size);
    alignas(8) unsigned char reply[kLExceptionReplySize];
    memset(reply, 0xEE, sizeof reply);
    auto* out = reinterpret_cast<mach_msg_header_t*>(reply);
    boolean_t const known = mach_exc_server(request, out);
    int32_t code;
    memcpy(&code, reply + 32, sizeof code);
    bool const valid = code == KERN_FAILURE || code == MIG_BAD_ARGUMENTS ||
                       code == MIG_TYPE_ERROR || (code == MIG_BAD_ID && !known);
    const auto replyId = static_cast<mach_msg_id_t>(static_cast<uint32_t>(request->msgh_id) + 100u);
    if (!valid || out->msgh_size != 36 || out->msgh_id != replyId) {
        std::abort();
    }
    for (size_t i = 44; i < sizeof reply; ++i) {
        if (reply[i] != 0xEE) {
            std::abort();
        }
    }
    return 0;
}
