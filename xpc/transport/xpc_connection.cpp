// Connections, listeners and endpoints over SOCK_SEQPACKET sockets.
//
// Threads: each resumed client or peer connection has one reader thread blocked in
// recvmsg on its socket; each resumed listener has one thread waiting on its listening
// socket and its endpoint connector. A reader decodes a packet and runs its event or reply
// handler inline when the target queue is idle (no thread hop on the round-trip path), else
// queues it. Sends are written by the sending thread; when the socket is full the sender
// waits a moment for room, then the packet and those after it wait in the socket's out
// queue for a writer thread (which lingers a while for the next burst), so a client that
// stops reading never holds up the service for more than that moment.
// A synchronous request receives its own reply: once a socket has seen one, its reader
// waits on a wait set instead of in recvmsg, and a caller takes the socket over for the
// request: the reader's set stops watching it and the caller blocks in recvmsg itself,
// dispatching every packet in order until its reply (what is not the caller's goes to the
// queues as the reader would queue it). Only one thread receives at a time; the caller
// hands the watch back to the reader when it leaves, which wakes the reader for whatever
// came after the reply.
//
// Invariants (all guarded by the connection's mutex):
// - Events, reply handlers and barriers of a connection go through its target queue, in the
//   order the reader or sender produced them.
// - Every reply handler is called exactly once: with the reply, or with the error that ended
//   the socket it was sent on (interrupted for a named-service client, invalid otherwise).
// - After cancel the event handler sees only the final XPC_ERROR_CONNECTION_INVALID; after
//   that final event it is dropped, with whatever it captured.
// - A resumed connection keeps itself alive (the "active" reference) until its final event
//   has run; a peer whose handler never retains it still lives until the peer goes away.
// - A barrier runs once every packet sent before it has been handed to the socket, or once
//   the socket is gone.
#include <errno.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "thread/main_queue.h"
#include "xpc/transport/xpc_internal.h"
#include "xpc/transport/xpc_os.h"
#include "xpc/transport/xpc_wire.h"

namespace lxpc {

namespace {

using namespace detail;

enum class Role { namedClient, endpointClient, peer, namedListener, anonymousListener };

// Accepted peers alive in this process, in all and per peer user. A slot is taken before a
// peer is made and given back as soon as its socket is gone, not when the last reference
// to the connection object goes: a program may keep a connection object long after its
// client left, and that must not count against newcomers.
class PeerSlots {
public:
    bool Take(uid_t uid) {
        std::lock_guard lock(mutex_);
        size_t& mine = byUser_[uid];
        if (total_ >= wire::kMaxConnections || mine >= wire::kMaxConnectionsPerUser) {
            if (mine == 0) {
                byUser_.erase(uid);
            }
            return false;
        }
        ++total_;
        ++mine;
        return true;
    }
    void Give(uid_t uid) {
        std::lock_guard lock(mutex_);
        --total_;
        if (auto it = byUser_.find(uid); it != byUser_.end() && --it->second == 0) {
            byUser_.erase(it);
        }
    }

private:
    std::mutex mutex_;
    size_t total_ = 0;
    std::unordered_map<uid_t, size_t> byUser_;
};

PeerSlots& Slots() {
    static PeerSlots* slots = new PeerSlots();  // never destroyed: peers may outlive main
    return *slots;
}

struct OutItem {
    wire::Packet packet;
    xpc_barrier_t barrier;  // set for a barrier marker
};

// A socket shared by the connection, its reader and its writer; closed with the last user,
// so that no thread ever works on a descriptor number that was reused. Packets the socket
// could not take at once wait in `out` for its writer thread; the fields below `fd` are
// guarded by the connection's mutex, but for `receiveRegion`, which only the thread reading
// the socket touches (the reader, or a synchronous caller while it drains). Each socket has its
// own shared regions, made on its first large data.
struct SyncWait;

struct Socket {
    explicit Socket(int descriptor) : fd(descriptor) {}
    ~Socket() {
        os::Close(readerSet);
        os::Close(wakeup);
        os::Close(fd);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    const int fd;
    std::deque<OutItem> out;
    // What `out` holds, against the limits a peer that does not read may cost.
    size_t outPackets = 0;
    size_t outBytes = 0;
    size_t outFds = 0;
    bool writerRunning = false;  // a writer thread serves this socket
    bool writerBusy = false;     // ... and is writing an item taken from `out`
    // A sender is writing its packet itself, waiting for room; packets after it queue.
    bool directSending = false;
    bool ended = false;  // the connection is done with this socket
    wire::SendRegion sendRegion;
    wire::ReceiveRegion receiveRegion;

    // Shared receiving, set up by the reader once a synchronous caller asks for it.
    int readerSet = -1;         // the socket and `wakeup`, for the reader
    int wakeup = -1;            // an eventfd: wakes the reader
    bool wantShared = false;    // a synchronous caller asked for it
    bool shared = false;        // the reader waits on readerSet, not in recvmsg
    bool draining = false;      // a thread (the reader, or a caller) is receiving
    bool receiveEnded = false;  // a caller met the socket's end; the reader ends it
    // Between synchronous requests the socket stays with the callers for a short while
    // (`lent`, until `lentUntil`): the next caller takes it without changing the reader's
    // wait set, and the reader takes it back only once the callers leave it alone.
    bool lent = false;
    bool readerTimed = false;  // the reader looks again within kLendTime
    std::chrono::steady_clock::time_point lentUntil;
    std::chrono::steady_clock::time_point claimedAt;  // when the receiving caller took it
};
using SocketRef = std::shared_ptr<Socket>;

// What a queued packet holds: its bytes and what it occupies of the shared region's ring.
size_t HeldBytes(const wire::Packet& packet) {
    return packet.bytes.size() + packet.regionBytes;
}

void PushOut(Socket& sock, OutItem item, bool front = false) {
    if (!item.barrier) {
        ++sock.outPackets;
        sock.outBytes += HeldBytes(item.packet);
        sock.outFds += item.packet.fds.size();
    }
    if (front) {
        sock.out.push_front(std::move(item));
    } else {
        sock.out.push_back(std::move(item));
    }
}

OutItem PopOut(Socket& sock) {
    OutItem item = std::move(sock.out.front());
    sock.out.pop_front();
    if (!item.barrier) {
        --sock.outPackets;
        sock.outBytes -= HeldBytes(item.packet);
        sock.outFds -= item.packet.fds.size();
    }
    return item;
}

bool OverLimits(const Socket& sock) {
    return sock.outPackets > wire::kMaxQueuedPackets || sock.outBytes > wire::kMaxQueuedBytes ||
           sock.outFds > wire::kMaxQueuedDescriptors;
}

// A synchronous request's rendezvous. Whoever gets the reply stores it, then wakes the
// waiting thread with one byte into the caller's wake-up pipe (a pipe write hands the
// processor to the woken thread directly). A wake-up may arrive after its waiter already
// saw `done`; the next wait then takes it as spurious and waits again. The caller
// completing its own wait (it received the reply itself) wakes nobody.
struct SyncWait {
    mutable std::mutex mutex;
    bool done = false;
    xpc_object_t result = nullptr;
    int wakeFd = -1;  // a pipe's write end; -1: nobody to wake
    const std::thread::id owner = std::this_thread::get_id();

    bool Done() const {
        std::lock_guard lock(mutex);
        return done;
    }
    void Complete(xpc_object_t r) {
        int fd;
        {
            std::lock_guard lock(mutex);
            if (done) {
                return;
            }
            result = r;
            done = true;
            fd = std::this_thread::get_id() == owner ? -1 : wakeFd;
        }
        if (fd >= 0) {
            os::Wake(fd);
        }
    }
};

// The calling thread's wake-up pipe, made on its first synchronous request.
struct WakePipe {
    WakePipe() { os::MakePipe(fds); }
    ~WakePipe() {
        os::Close(fds[0]);
        os::Close(fds[1]);
    }
    int fds[2] = {-1, -1};
};

struct Pending {
    xpc_queue_t queue = nullptr;  // retained
    xpc_handler_t handler;
    std::shared_ptr<SyncWait> sync;
};

struct Connection;
thread_local Connection* t_reading = nullptr;  // the connection whose reader is this thread

struct Connection : _xpc_object {
    Connection(Role r, std::string n, xpc_queue_t queue)
        : _xpc_object(XPC_TYPE_CONNECTION), role(r), name(std::move(n)) {
        if (queue != nullptr) {
            QueueRetain(queue);
            target = queue;
        } else {
            target = new _xpc_queue(name, false);
            ownQueue = true;
        }
    }

    ~Connection() override {
        for (auto& [id, p] : pending) {
            QueueRelease(p.queue);
        }
        if (listenFd >= 0) {
            if (boundPath) {
                os::UnlinkIfOurs(path);
            }
            os::Close(listenFd);
        }
        os::Close(connectorFd);
        os::Close(connectorPeerFd);
        os::Close(wakeup);
        GivePeerSlot();
        QueueRelease(target);
    }

    bool IsListener() const {
        return role == Role::namedListener || role == Role::anonymousListener;
    }

    // Once the peer's socket is gone (mutex held, or the last reference).
    void GivePeerSlot() {
        if (countedPeer) {
            countedPeer = false;
            Slots().Give(peerUid);
        }
    }

    const Role role;
    const std::string name;
    xpc_queue_t target;
    bool ownQueue = false;

    std::mutex mutex;
    std::condition_variable resumed_cv;
    std::shared_ptr<const xpc_handler_t> handler;
    int suspendCount = 1;
    bool everResumed = false;
    bool cancelled = false;
    bool finished = false;     // the final event was queued
    bool unreachable = false;  // never connected, or the listener could not be set up
    SocketRef socket;
    bool readerRunning = false;
    pid_t pid = 0;
    uint64_t nextId = 1;
    std::unordered_map<uint64_t, Pending> pending;
    std::condition_variable out_cv;  // a socket's writer waits here for more to write
    bool countedPeer = false;        // holds a peer slot for peerUid
    uid_t peerUid = 0;
    bool overflowed = false;  // dropped for leaving too much unsent: ends as invalid

    // Events received and not yet taken by the handler, and what they hold.
    size_t inEvents = 0;
    uint64_t inBytes = 0;
    size_t inDescriptors = 0;

    // A handler that does not keep up (one waiting behind a long job, say) must not let its
    // peer fill this process: past the limits a peer may cost, the reader stops receiving
    // and the peer's messages wait in its socket, then in the peer's own queue. Replies
    // still come in while any are awaited on the connection, so that a handler waiting for
    // one never waits on itself (mutex held).
    bool ReaderMayReceive() const {
        return !pending.empty() ||
               (inEvents < wire::kMaxQueuedPackets && inBytes < wire::kMaxQueuedBytes &&
                inDescriptors < wire::kMaxQueuedDescriptors);
    }

    // Listeners.
    std::string path;
    bool boundPath = false;
    int listenFd = -1;
    int connectorFd = -1;      // watched by the listener
    int connectorPeerFd = -1;  // duplicated into endpoints
    int wakeup = -1;
};

Connection* AsConnection(xpc_object_t object) {
    return object != nullptr && object->type == XPC_TYPE_CONNECTION
               ? static_cast<Connection*>(object)
               : nullptr;
}

void Report(const Connection* c, const char* what) {
    std::fprintf(stderr, "lxpc: %s%s%s\n", c->name.empty() ? "" : c->name.c_str(),
                 c->name.empty() ? "" : ": ", what);
}

// ---- delivery ----

// Queues an event for the connection's handler. A non-final event is skipped when the
// connection was cancelled before it ran; the final one drops the handler and the active
// reference once it has run.
// A received event counts against its connection's backlog (`bytes` and `descriptors` of
// it) until the handler takes it.
void DeliverEvent(Connection* c, xpc_object_t event, bool final, bool inlineAllowed,
                  uint64_t bytes = 0, size_t descriptors = 0) {
    xpc_retain(c);
    const bool counted = bytes != 0;
    if (counted) {
        std::lock_guard lock(c->mutex);
        ++c->inEvents;
        c->inBytes += bytes;
        c->inDescriptors += descriptors;
    }
    auto work = [c, event, final, counted, bytes, descriptors] {
        std::shared_ptr<const xpc_handler_t> h;
        {
            std::lock_guard lock(c->mutex);
            if (!c->cancelled || final) {
                h = c->handler;
            }
            if (counted) {
                --c->inEvents;
                c->inBytes -= bytes;
                c->inDescriptors -= descriptors;
                c->resumed_cv.notify_all();
            }
        }
        if (h && *h) {
            (*h)(event);
        }
        xpc_release(event);
        if (final) {
            {
                std::lock_guard lock(c->mutex);
                h = std::move(c->handler);
            }
            h.reset();
            xpc_release(c);  // the active reference
        }
        xpc_release(c);
    };
    if (inlineAllowed) {
        c->target->RunOrAsync(std::move(work));
    } else {
        c->target->Async(std::move(work));
    }
}

void DeliverReply(Connection* c, Pending p, xpc_object_t reply, bool inlineAllowed) {
    if (p.sync) {
        p.sync->Complete(reply);
        return;
    }
    xpc_queue_t queue = p.queue != nullptr ? p.queue : c->target;
    auto work = [handler = std::move(p.handler), reply] {
        if (handler) {
            handler(reply);
        }
        xpc_release(reply);
    };
    if (inlineAllowed) {
        queue->RunOrAsync(std::move(work));
    } else {
        queue->Async(std::move(work));
    }
    QueueRelease(p.queue);
}

void DeliverBarrier(Connection* c, xpc_barrier_t barrier) {
    xpc_retain(c);
    c->target->Async([c, barrier = std::move(barrier)] {
        if (barrier) {
            barrier();
        }
        xpc_release(c);
    });
}

// What ending a socket owes: pending replies failed, barriers run, packets dropped.
struct Owed {
    std::vector<Pending> replies;
    std::vector<xpc_barrier_t> barriers;
};

// Takes what is owed when `sock` (may be null) ends, and lets its writer go.
Owed TakeOwedLocked(Connection* c, Socket* sock) {
    Owed owed;
    for (auto& [id, p] : c->pending) {
        owed.replies.push_back(std::move(p));
    }
    c->pending.clear();
    if (sock != nullptr) {
        while (!sock->out.empty()) {
            if (OutItem item = PopOut(*sock); item.barrier) {
                owed.barriers.push_back(std::move(item.barrier));
            }
        }
        sock->ended = true;
        c->out_cv.notify_all();
    }
    return owed;
}

void Settle(Connection* c, Owed owed, xpc_object_t error) {
    for (Pending& p : owed.replies) {
        DeliverReply(c, std::move(p), error, false);
    }
    for (xpc_barrier_t& b : owed.barriers) {
        DeliverBarrier(c, std::move(b));
    }
}

// Ends the connection for good (mutex held): the final event is queued once.
void FinishLocked(Connection* c, std::unique_lock<std::mutex>& lock) {
    if (c->finished) {
        return;
    }
    c->finished = true;
    const SocketRef sock = std::move(c->socket);
    c->GivePeerSlot();
    Owed owed = TakeOwedLocked(c, sock.get());
    lock.unlock();
    Settle(c, std::move(owed), XPC_ERROR_CONNECTION_INVALID);
    DeliverEvent(c, XPC_ERROR_CONNECTION_INVALID, true, false);
    lock.lock();
}

// ---- reading ----

xpc_object_t EndError(const Connection* c) {
    return c->role == Role::namedClient && !c->cancelled && !c->overflowed
               ? XPC_ERROR_CONNECTION_INTERRUPTED
               : XPC_ERROR_CONNECTION_INVALID;
}

enum class Received { packet, none, end };

// Receives and dispatches one packet; `end` once the socket has ended (or sent garbage),
// `none` when a non-blocking receive found it empty.
Received ReceiveOne(Connection* c, const SocketRef& sock, std::span<uint8_t> buffer,
                    bool inlineAllowed, bool block = true) {
    size_t length = 0;
    std::vector<int> fds;
    switch (os::ReceivePacket(sock->fd, buffer, length, fds, block)) {
        case os::IoStatus::ok:
            break;
        case os::IoStatus::wouldBlock:
            return Received::none;
        default:
            return Received::end;
    }
    {
        std::unique_lock lock(c->mutex);
        // The reader also holds the packet back while the backlog is full (a caller reading
        // its own reply never waits for it): at most one packet over the limits is taken in.
        const bool reader = t_reading == c;
        c->resumed_cv.wait(lock, [c, reader] {
            return c->cancelled || (c->suspendCount == 0 && (!reader || c->ReaderMayReceive()));
        });
        if (c->cancelled) {
            for (int fd : fds) {
                os::Close(fd);
            }
            return Received::end;
        }
    }
    wire::Envelope envelope;
    const char* why = nullptr;
    const size_t descriptors = fds.size();
    xpc_object_t body = wire::Decode(std::span<const uint8_t>(buffer.data(), length), fds, envelope,
                                     &why, &sock->receiveRegion);
    if (body == nullptr) {
        std::string message = "dropping connection: malformed packet (";
        message += why != nullptr ? why : "?";
        message += ')';
        Report(c, message.c_str());
        return Received::end;
    }
    auto* d = static_cast<DictionaryObject*>(body);
    d->remote = xpc_retain(c);
    if (envelope.kind == wire::Kind::reply) {
        Pending p;
        bool found = false;
        {
            std::lock_guard lock(c->mutex);
            auto it = c->pending.find(envelope.replyTo);
            if (it != c->pending.end()) {
                p = std::move(it->second);
                c->pending.erase(it);
                found = true;
            }
        }
        if (!found) {
            xpc_release(body);  // a reply nobody waits for: harmless, ignored
            return Received::packet;
        }
        DeliverReply(c, std::move(p), body, inlineAllowed);
        return Received::packet;
    }
    if (envelope.kind == wire::Kind::messageWantingReply) {
        d->wantsReplyId = envelope.id;
    }
    DeliverEvent(c, body, false, inlineAllowed, length + envelope.outsideBytes, descriptors);
    return Received::packet;
}

// How long a socket stays with synchronous callers after a reply (see ReaderWaitAndDrain):
// back-to-back requests then cost no change of the reader's wait set, and a packet that is
// no caller's waits at most this long for the reader.
constexpr auto kLendTime = std::chrono::milliseconds(2);
// How long the reader looks again every kLendTime while a caller receives; past that it
// waits until the caller hands the socket back.
constexpr auto kLendLookout = std::chrono::milliseconds(50);

// The receive buffer of the calling thread (a reader's, or a caller's reading its reply).
// Left uninitialised: only the pages that packets reach become resident.
std::span<uint8_t> ThreadBuffer() {
    thread_local std::unique_ptr<uint8_t[]> buffer(new uint8_t[wire::kMaxPacketSize]);
    return {buffer.get(), wire::kMaxPacketSize};
}

// Receives and dispatches until the socket is empty, unless a caller receives on it (which
// hands the watch back when it leaves, waking the reader again for what it left); false
// once the socket has ended. Wake-ups are edge-triggered, so the reader must not stop
// before the socket is empty.
bool Drain(Connection* c, const SocketRef& sock) {
    {
        std::lock_guard lock(c->mutex);
        if (sock->receiveEnded) {
            return false;
        }
        if (sock->draining) {
            return true;
        }
        sock->draining = true;
    }
    for (;;) {
        const Received r = ReceiveOne(c, sock, ThreadBuffer(), true, false);
        if (r == Received::packet) {
            continue;
        }
        std::lock_guard lock(c->mutex);
        sock->draining = false;
        return r == Received::none;
    }
}

void SocketEnded(Connection* c, const SocketRef& sock) {
    os::Shutdown(sock->fd);  // stops a writer blocked on it
    std::unique_lock lock(c->mutex);
    if (c->socket == sock) {
        c->socket.reset();
    }
    c->GivePeerSlot();
    c->readerRunning = false;
    xpc_object_t error = EndError(c);
    const bool terminal = c->role != Role::namedClient || c->cancelled || c->overflowed;
    Owed owed = TakeOwedLocked(c, sock.get());
    lock.unlock();
    Settle(c, std::move(owed), error);
    if (terminal) {
        lock.lock();
        FinishLocked(c, lock);
        return;
    }
    DeliverEvent(c, error, false, false);
}

// Moves the reader to the shared wait set once a synchronous caller asked for it; true
// when it is there.
bool ReaderShares(Connection* c, Socket& sock) {
    {
        std::lock_guard lock(c->mutex);
        if (sock.shared || !sock.wantShared) {
            return sock.shared;
        }
    }
    const int wakeup = os::MakeWakeup();
    const int readerSet = wakeup < 0 ? -1 : os::MakeWaitSet(sock.fd, wakeup);
    std::lock_guard lock(c->mutex);
    if (readerSet < 0) {
        os::Close(wakeup);  // out of descriptors: synchronous replies keep coming this way
        sock.wantShared = false;
        return false;
    }
    sock.wakeup = wakeup;
    sock.readerSet = readerSet;
    sock.shared = true;
    return true;
}

// One wait of a reader on its wait set and the draining it is woken for; false once the
// socket has ended. While callers hold the socket, the reader waits at most kLendTime at a
// time, and takes the socket back once they left it alone that long: packets that are no
// caller's reply wait at most that long for it.
bool ReaderWaitAndDrain(Connection* c, const SocketRef& sock) {
    int timeoutMs = -1;
    {
        std::lock_guard lock(c->mutex);
        const auto now = std::chrono::steady_clock::now();
        if (sock->lent && !sock->draining && now >= sock->lentUntil &&
            os::WatchSocket(sock->readerSet, sock->fd, true)) {
            sock->lent = false;  // what arrived meanwhile raises an event at once
        }
        // A caller waiting long for its reply is not looked after: it wakes the reader when
        // it hands the socket back.
        sock->readerTimed = sock->lent || (sock->draining && now - sock->claimedAt < kLendLookout);
        if (sock->readerTimed) {
            // Past the lease (the wait set refused the socket back) the reader tries again
            // in a millisecond rather than waiting without a limit.
            const auto left = sock->lent ? sock->lentUntil - now : kLendTime;
            timeoutMs =
                1 + static_cast<int>(std::max<std::chrono::milliseconds::rep>(
                        0, std::chrono::duration_cast<std::chrono::milliseconds>(left).count()));
        }
    }
    bool readable = false;
    bool woken = false;
    if (!os::WaitOn(sock->readerSet, sock->wakeup, readable, woken, timeoutMs)) {
        return false;
    }
    return (!readable && !woken) || Drain(c, sock);  // neither: the time ran out
}

void ReaderMain(Connection* c, SocketRef sock) {
    t_reading = c;
    for (;;) {
        if (ReaderShares(c, *sock)
                ? !ReaderWaitAndDrain(c, sock)
                : ReceiveOne(c, sock, ThreadBuffer(), true) != Received::packet) {
            break;
        }
    }
    t_reading = nullptr;
    SocketEnded(c, sock);
    xpc_release(c);  // the reader's reference
}

void StartReaderLocked(Connection* c) {
    if (c->readerRunning || !c->socket) {
        return;
    }
    c->readerRunning = true;
    xpc_retain(c);
    std::thread(ReaderMain, c, c->socket).detach();
}

// ---- writing ----

// How long a writer waits for more once its socket has taken everything: a peer that was
// slow once is likely slow again soon, and a thread per burst would cost more than waiting.
constexpr auto kWriterLinger = std::chrono::milliseconds(200);

void WriterMain(Connection* c, SocketRef sock) {
    std::unique_lock lock(c->mutex);
    bool broken = false;
    // A sender writing its own packet goes first: what is queued was sent after it.
    const auto ready = [&] { return !sock->out.empty() && !sock->directSending; };
    for (;;) {
        while (ready()) {
            OutItem item = PopOut(*sock);
            sock->writerBusy = true;
            lock.unlock();
            if (item.barrier) {
                DeliverBarrier(c, std::move(item.barrier));
            } else if (!broken && os::SendPacket(sock->fd, item.packet.bytes, item.packet.fds,
                                                 true) != os::IoStatus::ok) {
                // The reader sees the end and fails the pending replies; what is still
                // queued here is dropped, its barriers run.
                broken = true;
                os::Shutdown(sock->fd);
            }
            lock.lock();
            sock->writerBusy = false;
        }
        if (broken || sock->ended ||
            !c->out_cv.wait_for(lock, kWriterLinger, [&] { return ready() || sock->ended; })) {
            break;
        }
    }
    sock->writerRunning = false;
    lock.unlock();
    xpc_release(c);
}

// Has the writer thread serve what `sock` has queued (mutex held).
void WakeWriterLocked(Connection* c, const SocketRef& sock) {
    if (sock->out.empty()) {
        return;
    }
    if (sock->writerRunning) {
        c->out_cv.notify_all();
    } else {
        sock->writerRunning = true;
        xpc_retain(c);
        std::thread(WriterMain, c, sock).detach();
    }
}

// A sender finding its socket full waits up to kSendWaits times kSendWaitMs for room before
// handing the packet to a writer thread.
constexpr int kSendWaits = 2;
constexpr int kSendWaitMs = 1;

// Connects a named-service client again after an interruption (mutex held).
bool ReconnectLocked(Connection* c) {
    const int fd = os::ConnectPath(os::ServiceSocketPath(c->name.c_str()));
    if (fd < 0) {
        return false;
    }
    c->socket = std::make_shared<Socket>(fd);
    c->pid = os::PeerPid(fd);
    if (c->everResumed) {
        StartReaderLocked(c);
    }
    return true;
}

// A peer that leaves this much unread costs memory and descriptors without bound: its
// connection ends now, as invalid, and what was queued for it is released at once (mutex
// held; unlocks it).
void DropOverflowingLocked(Connection* c, const SocketRef& sock,
                           std::unique_lock<std::mutex>& lock) {
    Report(c, "dropping connection: its peer leaves too much unread");
    c->overflowed = true;
    os::Shutdown(sock->fd);  // the reader sees the end and finishes the connection
    if (!c->readerRunning && c->socket == sock) {
        c->socket.reset();
        c->GivePeerSlot();
    }
    Owed owed = TakeOwedLocked(c, sock.get());
    lock.unlock();
    Settle(c, std::move(owed), XPC_ERROR_CONNECTION_INVALID);
}

// Sends `message`; with a reply wanted, `p` is owed the reply or an error.
void Send(Connection* c, xpc_object_t message, Pending* p) {
    const DictionaryObject* d = message != nullptr && message->type == XPC_TYPE_DICTIONARY
                                    ? static_cast<const DictionaryObject*>(message)
                                    : nullptr;
    wire::Envelope envelope;
    if (d != nullptr && d->repliesToId != 0) {
        envelope.kind = wire::Kind::reply;
        envelope.replyTo = d->repliesToId;
    } else if (p != nullptr) {
        envelope.kind = wire::Kind::messageWantingReply;
    }
    wire::Packet packet;
    if (c->IsListener() || d == nullptr || !wire::Encode(envelope, message, packet)) {
        Report(c, "message not sent: it cannot be encoded");
        if (p != nullptr) {
            DeliverReply(c, std::move(*p), XPC_ERROR_CONNECTION_INVALID, false);
        }
        return;
    }
    std::unique_lock lock(c->mutex);
    if (c->cancelled || c->finished || c->unreachable) {
        lock.unlock();
        if (p != nullptr) {
            DeliverReply(c, std::move(*p), XPC_ERROR_CONNECTION_INVALID, false);
        }
        return;
    }
    if (!c->socket && (c->role != Role::namedClient || !ReconnectLocked(c))) {
        lock.unlock();
        if (p != nullptr) {
            DeliverReply(c, std::move(*p), EndError(c), false);
        }
        return;
    }
    if (c->socket->ended) {
        // Dropped for leaving too much unread; its reader has not seen the end yet.
        lock.unlock();
        if (p != nullptr) {
            DeliverReply(c, std::move(*p), XPC_ERROR_CONNECTION_INVALID, false);
        }
        return;
    }
    const SocketRef sock = c->socket;
    // Data left out of the packet is placed here, under the lock that orders packets on the
    // socket: the receiver frees the shared region in the order it reads.
    if (!wire::Finish(packet, &sock->sendRegion)) {
        lock.unlock();
        Report(c, "message not sent: its data cannot be placed");
        if (p != nullptr) {
            DeliverReply(c, std::move(*p), XPC_ERROR_CONNECTION_INVALID, false);
        }
        return;
    }
    const uint64_t id = c->nextId++;
    wire::SetPacketId(packet, id);
    if (p != nullptr) {
        c->pending.emplace(id, std::move(*p));
        c->resumed_cv.notify_all();  // a reader held back by the backlog reads on for it
    }
    auto queue = [&](bool front) {
        PushOut(*sock, OutItem{std::move(packet), nullptr}, front);
        if (OverLimits(*sock)) {
            DropOverflowingLocked(c, sock, lock);
            return;
        }
        WakeWriterLocked(c, sock);
    };
    if (!sock->out.empty() || sock->writerBusy || sock->directSending) {
        queue(false);
        return;
    }
    // From here until this packet is written or queued, others queue behind it.
    sock->directSending = true;
    os::IoStatus status;
    for (int wait = 0;; ++wait) {
        status = os::SendPacket(sock->fd, packet.bytes, packet.fds, false);
        if (status != os::IoStatus::wouldBlock || wait == kSendWaits) {
            break;
        }
        // A full socket: wait a moment for room. A peer that reads makes room at once, and
        // writing here saves handing every packet to a writer thread; a peer that does not
        // read costs the sender kSendWaits short waits, then the writer takes over.
        lock.unlock();
        os::WaitWritable(sock->fd, kSendWaitMs);
        lock.lock();
        if (sock->ended) {
            sock->directSending = false;
            return;  // whoever ended the socket settled what was owed
        }
    }
    sock->directSending = false;
    switch (status) {
        case os::IoStatus::ok:
            WakeWriterLocked(c, sock);  // for what queued behind this packet meanwhile
            return;
        case os::IoStatus::wouldBlock:
            queue(true);  // ahead of what queued behind it meanwhile
            return;
        case os::IoStatus::closed:
        case os::IoStatus::failed:
            // The reader sees the socket end and settles what is owed. Without a reader
            // (not resumed yet) settle here; a connection that is not a named-service client
            // is then finished by its first resume.
            os::Shutdown(sock->fd);
            if (!c->readerRunning && c->socket == sock) {
                c->socket.reset();
                c->GivePeerSlot();
                Owed owed = TakeOwedLocked(c, sock.get());
                lock.unlock();
                Settle(c, std::move(owed), EndError(c));
            }
            return;
    }
}

// ---- listening ----

void DeliverPeer(Connection* listener, Connection* peer) {
    xpc_retain(listener);
    listener->target->Async([listener, peer] {
        std::shared_ptr<const xpc_handler_t> h;
        {
            std::lock_guard lock(listener->mutex);
            if (!listener->cancelled) {
                h = listener->handler;
            }
        }
        if (h && *h) {
            (*h)(peer);
        }
        xpc_release(peer);  // the listener's: a peer nobody retained or resumed goes now
        xpc_release(listener);
    });
}

Connection* MakePeer(Connection* listener, int fd) {
    uid_t uid = 0;
    if (!os::PeerUid(fd, uid) || !Slots().Take(uid)) {
        Report(listener, "connection refused: too many connections");
        os::Close(fd);
        return nullptr;
    }
    // Peers share the listener's queue when one was given to it, else each has its own.
    auto* peer =
        new Connection(Role::peer, std::string(), listener->ownQueue ? nullptr : listener->target);
    peer->countedPeer = true;
    peer->peerUid = uid;
    peer->socket = std::make_shared<Socket>(fd);
    peer->pid = os::PeerPid(fd);
    return peer;
}

// Pauses of a listener whose accept fails for want of resources.
constexpr int kFirstAcceptPauseMs = 1;
constexpr int kMaxAcceptPauseMs = 200;

void ListenerMain(Connection* c) {
    std::vector<uint8_t> buffer(wire::kHeaderSize + 16);
    int pause = kFirstAcceptPauseMs;
    for (;;) {
        {
            std::unique_lock lock(c->mutex);
            c->resumed_cv.wait(lock, [c] { return c->suspendCount == 0 || c->cancelled; });
            if (c->cancelled) {
                break;
            }
        }
        int readable = -1;
        const int first = c->listenFd >= 0 ? c->listenFd : c->connectorFd;
        const int second = c->listenFd >= 0 ? c->connectorFd : -1;
        if (!os::WaitReadable(c->wakeup, first, second, readable)) {
            break;
        }
        int fd = -1;
        if (readable == c->listenFd) {
            fd = os::Accept(c->listenFd);
            if (fd < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
                // Out of descriptors or memory: the client stays in the backlog (it is
                // served once something is freed) and polling again at once would only
                // spin. Wait, longer each time, until an accept succeeds.
                if (!os::Pause(c->wakeup, pause)) {
                    break;
                }
                pause = std::min(pause * 2, kMaxAcceptPauseMs);
                continue;
            }
            pause = kFirstAcceptPauseMs;
        } else {
            size_t length = 0;
            std::vector<int> fds;
            if (os::ReceivePacket(c->connectorFd, buffer, length, fds) == os::IoStatus::ok &&
                !wire::DecodeConnect(std::span<const uint8_t>(buffer.data(), length), fds, fd)) {
                Report(c, "ignoring a malformed connect request");
            }
        }
        if (fd < 0) {
            continue;
        }
        if (Connection* peer = MakePeer(c, fd)) {
            DeliverPeer(c, peer);
        }
    }
    std::unique_lock lock(c->mutex);
    // Closing the sockets now refuses new clients at once, endpoint holders included.
    if (c->listenFd >= 0) {
        if (c->boundPath) {
            os::UnlinkIfOurs(c->path);
        }
        os::Close(std::exchange(c->listenFd, -1));
    }
    os::Close(std::exchange(c->connectorFd, -1));
    os::Close(std::exchange(c->connectorPeerFd, -1));
    FinishLocked(c, lock);
    lock.unlock();
    xpc_release(c);  // the listener thread's reference
}

Connection* CreateListener(Role role, const char* name, xpc_queue_t queue) {
    auto* c = new Connection(role, name == nullptr ? std::string() : std::string(name), queue);
    c->wakeup = os::MakeWakeup();
    int pair[2];
    if (os::SocketPair(pair)) {
        c->connectorFd = pair[0];
        c->connectorPeerFd = pair[1];
    }
    if (role == Role::namedListener) {
        c->path = os::ServiceSocketPath(name);
        c->listenFd = os::ListenPath(c->path, c->boundPath);
        if (c->listenFd < 0) {
            std::string message = "cannot listen on " + c->path + ": " + std::strerror(errno);
            Report(c, message.c_str());
        }
    }
    if (c->wakeup < 0 || c->connectorFd < 0 || (role == Role::namedListener && c->listenFd < 0)) {
        c->unreachable = true;
    }
    return c;
}

Connection* CreateNamedClient(const char* name, xpc_queue_t queue) {
    auto* c = new Connection(Role::namedClient, name, queue);
    const int fd = os::ConnectPath(os::ServiceSocketPath(name));
    if (fd < 0) {
        c->unreachable = true;
    } else {
        c->socket = std::make_shared<Socket>(fd);
        c->pid = os::PeerPid(fd);
    }
    return c;
}

}  // namespace

// ---- synchronous requests ----

// Makes the calling thread the one that receives on its socket (the reader's wait set
// stops watching it), or asks the reader to set its wait set up for the requests to come;
// null when the caller cannot receive there now (another thread does).
SocketRef ClaimSocket(Connection* c) {
    std::lock_guard lock(c->mutex);
    const SocketRef& sock = c->socket;
    if (!sock || !c->readerRunning || sock->ended || sock->receiveEnded) {
        return nullptr;
    }
    if (!sock->shared) {
        sock->wantShared = true;
        return nullptr;
    }
    if (sock->draining) {
        return nullptr;  // the reader (or another caller) receives; it hands the reply over
    }
    if (!sock->lent) {
        if (!os::WatchSocket(sock->readerSet, sock->fd, false)) {
            return nullptr;
        }
        if (!sock->readerTimed) {
            os::Wake(sock->wakeup);  // from now on the reader looks again now and then
        }
    }
    sock->lent = false;
    sock->draining = true;
    sock->claimedAt = std::chrono::steady_clock::now();
    return sock;
}

// Receives on a claimed socket until `wait` is done, then hands the watch back to the
// reader. On the socket's end the reader is left to end it, and the caller waits on its
// wake-up pipe instead.
void ReceiveOwnReply(Connection* c, const SocketRef& sock, const SyncWait& wait) {
    bool ended = false;
    while (!wait.Done()) {
        if (ReceiveOne(c, sock, ThreadBuffer(), false) != Received::packet) {
            ended = true;
            break;
        }
    }
    {
        // Together, under the lock: the next caller's claim must not find the socket free
        // before it is lent or watched again, or this hand-back could rearm the reader's set
        // in the middle of that caller's request. Lent, the socket goes back to the reader
        // within kLendTime (the reader waits that long at most while a caller holds it); the
        // watch handed back wakes the reader for anything still unread, so a reader that
        // stepped aside meanwhile is owed nothing.
        std::lock_guard lock(c->mutex);
        if (ended) {
            os::WatchSocket(sock->readerSet, sock->fd, true);
            sock->receiveEnded = true;
        } else {
            sock->lent = true;
            sock->lentUntil = std::chrono::steady_clock::now() + kLendTime;
            if (!sock->readerTimed) {
                os::Wake(sock->wakeup);  // the reader is to take it back in time
            }
        }
        sock->draining = false;
    }
    if (ended) {
        os::Wake(sock->wakeup);  // the reader ends the socket
    }
}

// ---- public interface ----

xpc_connection_t xpc_connection_create(const char* name, xpc_queue_t queue) {
    if (name == nullptr) {
        return CreateListener(Role::anonymousListener, nullptr, queue);
    }
    return CreateNamedClient(name, queue);
}

xpc_connection_t xpc_connection_create_mach_service(const char* name, xpc_queue_t queue,
                                                    uint64_t flags) {
    if (name == nullptr || name[0] == '\0') {
        return nullptr;
    }
    if ((flags & XPC_CONNECTION_MACH_SERVICE_LISTENER) != 0) {
        return CreateListener(Role::namedListener, name, queue);
    }
    return CreateNamedClient(name, queue);
}

xpc_endpoint_t xpc_endpoint_create(xpc_connection_t listener) {
    Connection* c = AsConnection(listener);
    if (c == nullptr || !c->IsListener()) {
        return nullptr;
    }
    std::lock_guard lock(c->mutex);
    return c->connectorPeerFd < 0 ? nullptr
                                  : MakeDescriptor(XPC_TYPE_ENDPOINT, os::Dup(c->connectorPeerFd));
}

xpc_connection_t xpc_connection_create_from_endpoint(xpc_endpoint_t endpoint) {
    if (endpoint == nullptr || endpoint->type != XPC_TYPE_ENDPOINT) {
        return nullptr;
    }
    const int connector = static_cast<DescriptorObject*>(endpoint)->fd;
    auto* c = new Connection(Role::endpointClient, std::string(), nullptr);
    int pair[2];
    if (!os::SocketPair(pair)) {
        c->unreachable = true;
        return c;
    }
    wire::Packet request = wire::EncodeConnect(pair[1]);  // owns pair[1] from here
    if (os::SendPacket(connector, request.bytes, request.fds, true) != os::IoStatus::ok) {
        os::Close(pair[0]);
        c->unreachable = true;
        return c;
    }
    c->socket = std::make_shared<Socket>(pair[0]);
    // Our end of a fresh pair names ourselves; the connector was made by the listener.
    c->pid = os::PeerPid(connector);
    return c;
}

void xpc_connection_set_event_handler(xpc_connection_t connection, xpc_handler_t handler) {
    Connection* c = AsConnection(connection);
    if (c == nullptr) {
        return;
    }
    auto h = std::make_shared<const xpc_handler_t>(std::move(handler));
    std::shared_ptr<const xpc_handler_t> old;
    {
        std::lock_guard lock(c->mutex);
        if (c->finished && c->cancelled) {
            return;  // nothing will be delivered any more
        }
        old = std::exchange(c->handler, std::move(h));
    }
    // The old handler (and what it captured) goes outside the lock.
}

void xpc_connection_set_target_queue(xpc_connection_t connection, xpc_queue_t queue) {
    Connection* c = AsConnection(connection);
    if (c == nullptr) {
        return;
    }
    std::lock_guard lock(c->mutex);
    // Only before the first resume: afterwards items may already be on the old queue.
    if (c->everResumed) {
        return;
    }
    xpc_queue_t old = c->target;
    if (queue != nullptr) {
        QueueRetain(queue);
        c->target = queue;
    } else {
        c->target = new _xpc_queue(c->name, false);
    }
    c->ownQueue = queue == nullptr;
    QueueRelease(old);
}

void xpc_connection_resume(xpc_connection_t connection) {
    Connection* c = AsConnection(connection);
    if (c == nullptr) {
        return;
    }
    std::unique_lock lock(c->mutex);
    if (c->suspendCount == 0) {
        return;  // unbalanced resume: ignored
    }
    if (--c->suspendCount > 0) {
        return;
    }
    c->resumed_cv.notify_all();
    if (c->everResumed) {
        return;
    }
    c->everResumed = true;
    xpc_retain(c);  // the active reference, dropped after the final event
    if (c->cancelled || c->unreachable ||
        (!c->IsListener() && !c->socket && c->role != Role::namedClient)) {
        FinishLocked(c, lock);
        return;
    }
    if (c->IsListener()) {
        xpc_retain(c);
        std::thread(ListenerMain, c).detach();
        if (c->role == Role::namedListener) {
            os::NotifyReady();
        }
        return;
    }
    if (c->socket) {
        StartReaderLocked(c);
    }
}

void xpc_connection_suspend(xpc_connection_t connection) {
    Connection* c = AsConnection(connection);
    if (c == nullptr) {
        return;
    }
    std::lock_guard lock(c->mutex);
    ++c->suspendCount;
}

void xpc_connection_cancel(xpc_connection_t connection) {
    Connection* c = AsConnection(connection);
    if (c == nullptr) {
        return;
    }
    std::unique_lock lock(c->mutex);
    if (c->cancelled) {
        return;
    }
    c->cancelled = true;
    c->resumed_cv.notify_all();
    if (c->IsListener()) {
        if (c->everResumed && !c->finished && c->wakeup >= 0 && !c->unreachable) {
            os::Wake(c->wakeup);  // the listener thread finishes
        }
        return;
    }
    if (c->socket) {
        os::Shutdown(c->socket->fd);
        if (c->readerRunning) {
            return;  // the reader finishes
        }
    }
    if (c->everResumed) {
        FinishLocked(c, lock);
        return;
    }
    // Not resumed yet: settle now; the first resume delivers the final event.
    const SocketRef sock = std::move(c->socket);
    c->GivePeerSlot();
    Owed owed = TakeOwedLocked(c, sock.get());
    lock.unlock();
    Settle(c, std::move(owed), XPC_ERROR_CONNECTION_INVALID);
}

void xpc_connection_send_message(xpc_connection_t connection, xpc_object_t message) {
    if (Connection* c = AsConnection(connection)) {
        Send(c, message, nullptr);
    }
}

void xpc_connection_send_message_with_reply(xpc_connection_t connection, xpc_object_t message,
                                            xpc_queue_t replyQueue, xpc_handler_t handler) {
    Connection* c = AsConnection(connection);
    if (c == nullptr) {
        return;
    }
    Pending p;
    if (replyQueue != nullptr) {
        QueueRetain(replyQueue);
        p.queue = replyQueue;
    }
    p.handler = std::move(handler);
    Send(c, message, &p);
}

xpc_object_t xpc_connection_send_message_with_reply_sync(xpc_connection_t connection,
                                                         xpc_object_t message) {
    Connection* c = AsConnection(connection);
    if (c == nullptr) {
        return XPC_ERROR_CONNECTION_INVALID;
    }
    thread_local WakePipe pipe;
    auto wait = std::make_shared<SyncWait>();
    wait->wakeFd = pipe.fds[1];
    Pending p;
    p.sync = wait;
    // Claimed before sending: the reply cannot reach the reader's set first.
    SocketRef claimed = t_reading == c ? nullptr : ClaimSocket(c);
    Send(c, message, &p);
    if (claimed) {
        ReceiveOwnReply(c, claimed, *wait);
    }
    if (t_reading == c) {
        // Called from a handler this connection's reader runs inline: nobody else reads the
        // socket, so read it here until the reply comes.
        SocketRef sock;
        {
            std::lock_guard lock(c->mutex);
            sock = c->socket;
        }
        while (!wait->Done()) {
            if (!sock || ReceiveOne(c, sock, ThreadBuffer(), false) != Received::packet) {
                if (sock) {
                    os::Shutdown(sock->fd);  // the reader ends and settles the rest
                }
                xpc_object_t error;
                {
                    std::lock_guard lock(c->mutex);
                    for (auto it = c->pending.begin(); it != c->pending.end(); ++it) {
                        if (it->second.sync == wait) {
                            c->pending.erase(it);
                            break;
                        }
                    }
                    error = EndError(c);
                }
                wait->Complete(error);
                break;
            }
        }
    }
    while (!wait->Done()) {
        if (!os::WaitWake(pipe.fds[0])) {
            // No pipe (out of descriptors): poll gently instead.
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    }
    return wait->result;
}

void xpc_connection_send_barrier(xpc_connection_t connection, xpc_barrier_t barrier) {
    Connection* c = AsConnection(connection);
    if (c == nullptr) {
        return;
    }
    std::unique_lock lock(c->mutex);
    if (c->socket && !c->socket->ended &&
        (!c->socket->out.empty() || c->socket->writerBusy || c->socket->directSending)) {
        PushOut(*c->socket, OutItem{wire::Packet(), std::move(barrier)});
        c->out_cv.notify_all();
        return;
    }
    lock.unlock();
    DeliverBarrier(c, std::move(barrier));
}

pid_t xpc_connection_get_pid(xpc_connection_t connection) {
    Connection* c = AsConnection(connection);
    if (c == nullptr) {
        return 0;
    }
    std::lock_guard lock(c->mutex);
    return c->pid;
}

const char* xpc_connection_get_name(xpc_connection_t connection) {
    Connection* c = AsConnection(connection);
    return c == nullptr || c->name.empty() ? nullptr : c->name.c_str();
}

void xpc_main(void (*handler)(xpc_connection_t peer)) {
    const char* name = std::getenv("LXPC_SERVICE_NAME");
    if (name == nullptr || name[0] == '\0') {
        name = program_invocation_short_name;
    }
    xpc_connection_t listener = xpc_connection_create_mach_service(
        name, xpc_main_queue(), XPC_CONNECTION_MACH_SERVICE_LISTENER);
    xpc_connection_set_event_handler(listener, [handler](xpc_object_t event) {
        if (xpc_get_type(event) == XPC_TYPE_CONNECTION && handler != nullptr) {
            handler(event);
        } else if (event == XPC_ERROR_CONNECTION_INVALID) {
            std::fprintf(stderr, "lxpc: the service listener ended\n");
            std::exit(EXIT_FAILURE);
        }
    });
    xpc_connection_resume(listener);
    LMainQueueRun();
    xpc_connection_set_event_handler(listener, [](xpc_object_t) {});
    xpc_connection_cancel(listener);
    xpc_release(listener);
    std::exit(EXIT_SUCCESS);
}

}  // namespace lxpc
