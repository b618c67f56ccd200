// Entry of the helper service. It reads no arguments and no configuration: it creates its
// event handler and the named-service server, gives the server the message vocabulary and
// serves until the run loop ends. Everything else happens on the transport's queues.
#include "helper/vadhelper_notify.h"
#include "helper/vadhelper_startup.h"
#include "xpc/lxpc_server.h"

int main() {
    // The handler outlives the server: the server's destructor disconnects every client and
    // stops all delivery before the handler goes.
    LVADHelperNotify* notify = new LVADHelperNotify();
    LXPCMachServer* server = new LXPCMachServer(notify);
    notify->SetXPCServer(server);

    // Clients' transmit keys are what the service receives, and the other way round.
    server->AddKeys(arVADHelperTxKeys, true);
    server->AddKeys(arVADHelperRxKeys, false);

    // Serves until the run loop ends; returns at once when the service cannot listen.
    server->Start(kLVADHelperServiceName, lxpc::XPC_CONNECTION_MACH_SERVICE_LISTENER);

    delete server;
    delete notify;
    return 0;
}
