// LXPCServerBase, LXPCServer, LXPCMachServer and the global pServer.
//
// Accepting runs on the listener's queue under the base's delivery gate, so a server being
// destroyed waits for an accept in progress and never accepts afterwards. The whole accept
// (link, handler, resume, retain) happens under the list lock: an error on the new connection
// may reach a handler that calls Disconnect at once, and Disconnect must then find it.
#include "xpc/lxpc_server.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "thread/main_queue.h"

using namespace lxpc;

LXPCServerBase* pServer = nullptr;

namespace {

// The largest pid any Linux kernel hands out (PID_MAX_LIMIT on 64-bit systems); used when
// /proc cannot tell the configured one.
constexpr pid_t kPidMaxLimit = 4194304;

bool IsClientConnection(long handle) {
    return handle != 0 && handle != kLXPCNoConnection &&
           xpc_get_type(LXPCValueAsPointer(handle)) == XPC_TYPE_CONNECTION;
}

pid_t ReadPidMax() {
    FILE* file = std::fopen("/proc/sys/kernel/pid_max", "re");
    if (file == nullptr) {
        return kPidMaxLimit;
    }
    long value = 0;
    const bool read = std::fscanf(file, "%ld", &value) == 1;
    std::fclose(file);
    return read && value > 1 && value <= kPidMaxLimit ? static_cast<pid_t>(value) : kPidMaxLimit;
}

}  // namespace

// ---- LXPCServerBase ----

LXPCServerBase::LXPCServerBase(LXPCServerEventNotify* eventHandler, bool checkClientProcess)
    : LXPCBase(eventHandler),
      pServerEventHandler(eventHandler),
      bCheckClientProcess(checkClientProcess) {
    pServer = this;
}

LXPCServerBase::~LXPCServerBase() {
    if (pServer == this) {
        pServer = nullptr;
    }
    // No accept, message or barrier may reach the handler while the connections go.
    StopDelivery();
    for (;;) {
        LXPCConnection* connection = nullptr;
        {
            std::lock_guard lock(connectionsLock_);
            connection = lConnections.PopFront();
        }
        if (connection == nullptr) {
            break;
        }
        delete connection;
    }
    pServerEventHandler = nullptr;
}

pid_t LXPCServerBase::MaxProcessId() {
    static const pid_t maxPid = ReadPidMax();
    return maxPid;
}

void LXPCServerBase::SetProcessIdSource(ProcessIdSource source) {
    processIdSource_ = std::move(source);
}

void LXPCServerBase::NewConnectionHandler(long connection) {
    // A listener also delivers its own errors (its last event may come after the server it
    // fed is gone); only connections are clients.
    if (!IsClientConnection(connection)) {
        return;
    }
    // Through the gate, whoever calls: a server being destroyed waits for an accept already
    // running, and accepts nothing once its destruction has begun.
    RunIfAlive(pGate, [connection](LXPCBase& base) {
        static_cast<LXPCServerBase&>(base).Accept(connection);
    });
}

void LXPCServerBase::Accept(long connection) {
    if (bCheckClientProcess) {
        const pid_t pid = processIdSource_ ? processIdSource_(connection)
                                           : xpc_connection_get_pid(LXPCValueAsPointer(connection));
        if (pid < 1 || pid > MaxProcessId()) {
            if (pServerEventHandler != nullptr && pServerEventHandler->bAlive) {
                pServerEventHandler->EvInvalidConnectionAttempt();
            }
            return;
        }
    }
    static std::atomic<uint64_t> generations{0};
    std::lock_guard lock(connectionsLock_);
    auto* accepted = new LXPCConnection(connection);
    accepted->nGeneration = ++generations;
    lConnections.PushFront(accepted);
    SetupConnectionHandlerAndResume(*accepted);
    accepted->Retain();
}

void LXPCServerBase::Disconnect(long connection) {
    LXPCConnection* found = nullptr;
    {
        std::lock_guard lock(connectionsLock_);
        found = lConnections.RemoveFirst(
            [connection](const LXPCConnection& c) { return c.hConnection == connection; });
    }
    delete found;
}

void LXPCServerBase::StaticNewConnectionHandler(xpc_object_t connection) {
    // Checked before pServer is read: the error that ends a listener is no client.
    if (!IsClientConnection(LXPCPointerAsValue(connection))) {
        return;
    }
    if (LXPCServerBase* server = pServer) {
        server->NewConnectionHandler(LXPCPointerAsValue(connection));
    }
}

size_t LXPCServerBase::ConnectionCount() const {
    std::lock_guard lock(connectionsLock_);
    return lConnections.Count();
}

bool LXPCServerBase::HasConnection(long connection) const {
    std::lock_guard lock(connectionsLock_);
    return lConnections.FindFirst([connection](const LXPCConnection& c) {
        return c.hConnection == connection;
    }) != nullptr;
}

uint64_t LXPCServerBase::ConnectionGeneration(long connection) const {
    std::lock_guard lock(connectionsLock_);
    const LXPCConnection* found = lConnections.FindFirst(
        [connection](const LXPCConnection& c) { return c.hConnection == connection; });
    return found != nullptr ? found->nGeneration : 0;
}

// ---- LXPCServer ----

LXPCServer::LXPCServer(LXPCServerEventNotify* eventHandler) : LXPCServerBase(eventHandler, false) {}

void LXPCServer::Start() {
    xpc_main(&LXPCServerBase::StaticNewConnectionHandler);
}

// ---- LXPCMachServer ----

LXPCMachServer::LXPCMachServer(LXPCServerEventNotify* eventHandler)
    : LXPCServerBase(eventHandler, true) {}

void LXPCMachServer::Start(char const* serviceName, unsigned long long flags) {
    (void)flags;
    xpc_connection_t listener = xpc_connection_create_mach_service(
        serviceName, nullptr, XPC_CONNECTION_MACH_SERVICE_LISTENER);
    if (listener == nullptr) {
        return;
    }
    xpc_connection_set_event_handler(listener, [gate = pGate](xpc_object_t event) {
        // A listener that could not be set up (or that ends) says so with this error as its
        // last event: the service no longer lives, so the run loop must not go on. A stop
        // asked for before the loop runs still ends it.
        if (event == XPC_ERROR_CONNECTION_INVALID) {
            LMainQueueStop();
            return;
        }
        // The gate is taken once, here; NewConnectionHandler would take it a second time.
        const long connection = LXPCPointerAsValue(event);
        if (!IsClientConnection(connection)) {
            return;
        }
        RunIfAlive(gate, [connection](LXPCBase& base) {
            static_cast<LXPCMachServer&>(base).Accept(connection);
        });
    });
    xpc_connection_resume(listener);
    LMainQueueRun();
    // Stop listening before the listener goes, so that no client is accepted by a server that
    // believes it has stopped; the cancellation's own error must not stop a later run loop.
    xpc_connection_set_event_handler(listener, [](xpc_object_t) {});
    xpc_connection_cancel(listener);
    xpc_release(listener);
}
