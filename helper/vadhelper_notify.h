// LVADHelperNotify: the service's only event handler, the endpoint broker and the driver
// installer.
//
// Broker: the last endpoint published with "NEW_ENDPOINT" is kept (retained; the one it
// replaces is released; a value that is not an endpoint is answered but not kept) and handed to
// whoever sends "REQUEST_ENDPOINT"; a newly published endpoint is also pushed with "SEND_ENDPOINT"
// to the last client that asked, so that the application and the audio device end up talking
// directly.
//
// Installer: "LOAD_DRIVER" offers a driver bundle path. When the offer's "CFBundleVersion"
// is newer than the installed bundle's, the older edition is removed, the bundle is copied
// into the HAL plug-in folder and the audio daemon is restarted; the first offer of a
// process restarts the daemon even when nothing is copied. Every offer is answered with
// "LOAD_DRIVER_REPLY" = true, whatever happened; command results are not looked at.
//
// Invariants:
// - Messages of different connections arrive on different queues. The broker's endpoint and
//   requester are guarded by one lock, which is also held while the requester is looked up
//   and sent to, and while a failed connection is disconnected; so a push never goes to a
//   connection that is being destroyed. Offers are handled one at a time.
// - Only offered paths that pass LVADHelperIsOfferedPathAcceptable reach a command line.
#pragma once

#include <mutex>

#include "xpc/lxpc_server.h"

class LVADHelperNotify final : public LXPCServerEventNotify {
public:
    // True when the process starts: the first "LOAD_DRIVER" restarts the audio daemon even
    // when no driver is copied, once.
    static bool bHelperRestarted;

    LVADHelperNotify();
    LVADHelperNotify(LVADHelperNotify const&) = delete;
    LVADHelperNotify& operator=(LVADHelperNotify const&) = delete;
    // Releases the stored endpoint.
    ~LVADHelperNotify();

    void SetXPCServer(LXPCMachServer* server);

    void EvConnectionError(long connection, LXPCErrorType type) override;
    void EvMessageSent(long connection) override;
    void EvMessageReceived(long connection, long message,
                           LList<LXPCDataListable> const& data) override;
    void EvReplyReceived(long connection, LList<LXPCDataListable> const& data) override;
    void EvInvalidConnectionAttempt() override;

private:
    void PublishEndpoint(long connection, long message, LXPCDataListable const& value);
    void RequestEndpoint(long connection, long message);
    void LoadDriver(long connection, long message, LXPCDataListable const& value);
    void Reply(long connection, long message, char const* name, LXPCDataType type, long value);

    LXPCMachServer* pXPCServer = nullptr;
    lxpc::xpc_object_t pEndpoint = nullptr;
    long nRequester = 0;
    // The requester's generation: its handle alone may name a newcomer once it has gone.
    uint64_t nRequesterGeneration = 0;
    std::mutex brokerLock_;
};

// Formats the command (cut to 511 characters), runs it through the shell and answers
// whether it exited normally with status 0.
bool LRunCommand(char const* format, ...) __attribute__((format(printf, 1, 2)));
