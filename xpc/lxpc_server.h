// Servers: accept client connections and keep them in a list by id.
//
// LXPCServer serves as a service run by xpc_main; LXPCMachServer listens on a named service
// (on Linux `<dir>/<name>.sock`, see xpc_transport.h) and runs the main queue while it serves.
// Only one server exists per process; it is reachable through the global pServer, which every
// server constructor sets and the destructor clears.
//
// Invariants:
// - The connection list is newest first; each connection in it holds one reference on its
//   handle, has its event handler set and is resumed.
// - LXPCMachServer accepts a client only when its process id lies in 1 .. the platform's
//   largest process id; a refused connection is neither kept, nor resumed, nor cancelled.
// - Connections are added on the listener's queue and removed from any connection's queue,
//   so the list is guarded by a lock; a connection is destroyed outside that lock.
#pragma once

#include <sys/types.h>

#include <functional>
#include <mutex>

#include "xpc/lxpc_base.h"

class LXPCServerBase : public LXPCBase {
public:
    // Where the client's process id comes from; the transport's peer credentials by default.
    using ProcessIdSource = std::function<pid_t(long connection)>;

    LXPCServerBase(LXPCServerEventNotify* eventHandler, bool bCheckClientProcess);
    ~LXPCServerBase() override;

    // Accepts `connection` (a new client connection handle); see the invariants above.
    void NewConnectionHandler(long connection);
    // Unlinks and destroys the first connection whose handle is `connection`; nothing when
    // none is.
    void Disconnect(long connection);
    // The listener callback of xpc_main: forwards to pServer's NewConnectionHandler.
    static void StaticNewConnectionHandler(lxpc::xpc_object_t connection);

    void SetProcessIdSource(ProcessIdSource source);
    // The largest process id of the platform (/proc/sys/kernel/pid_max), read once.
    static pid_t MaxProcessId();

    size_t ConnectionCount() const;
    bool HasConnection(long connection) const;
    // The generation of the kept connection whose handle is `connection`; 0 when none is.
    uint64_t ConnectionGeneration(long connection) const;

protected:
    LList<LXPCConnection> lConnections;
    LXPCServerEventNotify* pServerEventHandler;
    bool bCheckClientProcess;

    // The accept itself, for a client connection, run under the delivery gate.
    void Accept(long connection);

private:
    mutable std::mutex connectionsLock_;
    ProcessIdSource processIdSource_;
};

// A service started by xpc_main; clients are not checked.
class LXPCServer : public LXPCServerBase {
public:
    explicit LXPCServer(LXPCServerEventNotify* eventHandler);
    // Hands StaticNewConnectionHandler to xpc_main, which never returns.
    [[noreturn]] void Start();
};

// A named service with client process checks.
class LXPCMachServer : public LXPCServerBase {
public:
    explicit LXPCMachServer(LXPCServerEventNotify* eventHandler);
    // Listens on `serviceName`, accepts clients and runs the main queue on the calling thread
    // until it is stopped (LMainQueueStop) or the listener ends; then stops listening and
    // returns. Returns without serving when the service cannot be listened on. `flags` is not
    // used: the listener flag is always passed.
    void Start(char const* serviceName, unsigned long long flags);
};

// The process's one server, or null.
extern LXPCServerBase* pServer;
