// The broker and the installer. Command texts, paths and their order are fixed: they are
// what administrators and the older edition's uninstall expect, and tests compare them
// byte for byte.
#include "helper/vadhelper_notify.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <utility>

#include "file/lfile.h"
#include "helper/bundle_version.h"
#include "helper/offered_path.h"

namespace {

constexpr char kNewEndpoint[] = "NEW_ENDPOINT";
constexpr char kRequestEndpoint[] = "REQUEST_ENDPOINT";
constexpr char kLoadDriver[] = "LOAD_DRIVER";
constexpr char kNewEndpointReply[] = "NEW_ENDPOINT_REPLY";
constexpr char kSendEndpoint[] = "SEND_ENDPOINT";
constexpr char kLoadDriverReply[] = "LOAD_DRIVER_REPLY";

constexpr char kHALFolder[] = "/Library/Audio/Plug-Ins/HAL";
constexpr char kDriverName[] = "KavelPLVirtualAudioDevice.driver";
constexpr char kOlderDriverName[] = "TessalyVirtualAudioDevice.driver";
// Relative, without a leading slash, as the older edition's uninstall always had it.
constexpr char kOlderHelperFolder[] = "Library/PrivilegedHelperTools";
constexpr char kOlderHelperName[] = "com.tessalysoftware.vadhelper";
constexpr char kLaunchDaemonsFolder[] = "/Library/LaunchDaemons";
constexpr char kLaunchdPlistExtension[] = ".plist";

constexpr size_t kCommandSize = 512;

// Pushes one value, named and typed as given, onto `list`.
void PushValue(LList<LXPCDataListable>& list, char const* name, LXPCDataType type, long value) {
    LXPCDictionaryKeyListable key;
    LXPCCopyName(key.szName, name);
    key.type = type;
    list.PushFront(CreateXPCData(key, value, 0));
}

void RestartAudioDaemon() {
    LRunCommand("launchctl stop com.apple.audio.coreaudiod");
    LRunCommand("launchctl start com.apple.audio.coreaudiod");
}

// Offers change files under /Library; two at once would interleave their removals and copies.
std::mutex gInstallLock;

}  // namespace

bool LVADHelperNotify::bHelperRestarted = true;

LVADHelperNotify::LVADHelperNotify() {
    bArrayForm = false;
    bAlive = true;
}

LVADHelperNotify::~LVADHelperNotify() {
    if (pEndpoint)
        lxpc::xpc_release(pEndpoint);
}

void LVADHelperNotify::SetXPCServer(LXPCMachServer* server) {
    pXPCServer = server;
}

void LVADHelperNotify::EvConnectionError(long connection, LXPCErrorType type) {
    if (type == LXPCErrorConnectionInterrupted || !pXPCServer)
        return;
    // The stored requester is kept even when it is this connection; the lock only keeps a
    // push to it from racing with its destruction.
    std::lock_guard<std::mutex> lock(brokerLock_);
    pXPCServer->Disconnect(connection);
}

void LVADHelperNotify::EvMessageSent(long) {}

void LVADHelperNotify::EvReplyReceived(long, LList<LXPCDataListable> const&) {}

void LVADHelperNotify::EvInvalidConnectionAttempt() {}

void LVADHelperNotify::EvMessageReceived(long connection, long message,
                                         LList<LXPCDataListable> const& data) {
    if (!pXPCServer || data.IsEmpty())
        return;
    // The list follows the receive table's order, so a publication in the same message as a
    // request is handled first.
    for (LXPCDataListable const& value : data) {
        if (std::strcmp(value.szName, kNewEndpoint) == 0)
            PublishEndpoint(connection, message, value);
        else if (std::strcmp(value.szName, kLoadDriver) == 0)
            LoadDriver(connection, message, value);
        else if (std::strcmp(value.szName, kRequestEndpoint) == 0)
            RequestEndpoint(connection, message);
    }
}

void LVADHelperNotify::Reply(long connection, long message, char const* name, LXPCDataType type,
                             long value) {
    LList<LXPCDataListable> reply;
    PushValue(reply, name, type, value);
    pXPCServer->SendReply(connection, message, reply);
}

void LVADHelperNotify::PublishEndpoint(long connection, long message,
                                       LXPCDataListable const& value) {
    lxpc::xpc_object_t endpoint = LXPCValueAsPointer(value.nValue);
    // Anything else (a file descriptor, above all) would be handed to the next requester
    // as if the device had published it.
    if (!endpoint || lxpc::xpc_get_type(endpoint) != lxpc::XPC_TYPE_ENDPOINT) {
        Reply(connection, message, kNewEndpointReply, LXPCDataTypeBool, 1);
        return;
    }
    lxpc::xpc_object_t replaced;
    {
        std::lock_guard<std::mutex> lock(brokerLock_);
        replaced = std::exchange(pEndpoint, lxpc::xpc_retain(endpoint));
    }
    if (replaced)
        lxpc::xpc_release(replaced);

    Reply(connection, message, kNewEndpointReply, LXPCDataTypeBool, 1);

    std::lock_guard<std::mutex> lock(brokerLock_);
    // A requester that has gone away since it asked gets nothing, nor does a newcomer that
    // was given its handle.
    if (nRequesterGeneration != 0 &&
        pXPCServer->ConnectionGeneration(nRequester) == nRequesterGeneration) {
        LList<LXPCDataListable> push;
        PushValue(push, kSendEndpoint, LXPCDataTypeObject, LXPCPointerAsValue(pEndpoint));
        pXPCServer->SendMessage(nRequester, push, false);
    }
}

void LVADHelperNotify::RequestEndpoint(long connection, long message) {
    lxpc::xpc_object_t endpoint;
    {
        std::lock_guard<std::mutex> lock(brokerLock_);
        nRequester = connection;
        nRequesterGeneration = pXPCServer->ConnectionGeneration(connection);
        endpoint = pEndpoint ? lxpc::xpc_retain(pEndpoint) : nullptr;
    }
    // Without an endpoint the value is a null object, which sets no entry: the reply is an
    // empty dictionary.
    Reply(connection, message, kSendEndpoint, LXPCDataTypeObject, LXPCPointerAsValue(endpoint));
    if (endpoint)
        lxpc::xpc_release(endpoint);
}

void LVADHelperNotify::LoadDriver(long connection, long message, LXPCDataListable const& value) {
    {
        std::lock_guard<std::mutex> lock(gInstallLock);

        char offered[kLVADHelperTextSize] = "";
        if (char const* text = LXPCValueAsPointer<char const>(value.nValue))
            std::snprintf(offered, sizeof offered, "%s", text);

        char installed[kLVADHelperTextSize];
        LFile::_MakeFilePath(installed, kHALFolder, kDriverName, "");

        char installedVersion[kLVADHelperTextSize] = "0";
        if (LFile::TestFileExists(installed))
            LVADHelperReadBundleVersion(installed, installedVersion);

        // An offer that could change a command line, or make root copy a link or a special
        // file, runs nothing at all.
        bool const acceptable = LVADHelperIsOfferedPathAcceptable(offered);
        char offeredVersion[kLVADHelperTextSize] = "0";
        if (acceptable)
            LVADHelperReadBundleVersion(offered, offeredVersion);

        if (acceptable && LVADHelperCompareVersions(offeredVersion, installedVersion) > 0) {
            char olderDriver[kLVADHelperTextSize];
            LFile::_MakeFilePath(olderDriver, kHALFolder, kOlderDriverName, "");
            if (LFile::TestFileExists(olderDriver)) {
                LRunCommand("rm -fr %s", olderDriver);
                // Both tests below use the folder test, which accepts any existing entry.
                char olderHelper[kLVADHelperTextSize];
                LFile::_MakeFilePath(olderHelper, kOlderHelperFolder, kOlderHelperName, "");
                if (LFile::TestFolderExists(olderHelper))
                    LRunCommand("rm -fr %s", olderHelper);
                char olderPlist[kLVADHelperTextSize];
                LFile::_MakeFilePath(olderPlist, kLaunchDaemonsFolder, kOlderHelperName,
                                     kLaunchdPlistExtension);
                if (LFile::TestFolderExists(olderPlist)) {
                    LRunCommand("rm -fr %s", olderPlist);
                    LRunCommand("launchctl stop %s", kOlderHelperName);
                }
            }
            if (!LFile::TestFolderExists(kHALFolder))
                LRunCommand("mkdir /Library/Audio/Plug-Ins/HAL");
            LRunCommand("rm -fr %s", installed);
            LRunCommand("cp -fr %s %s", offered, installed);
            // The offer was checked before the copy, but its owner may have changed it
            // since: what root would load must still be folders and plain files.
            if (LFile::TestFileExists(installed) && !LVADHelperIsBundleTreeSafe(installed)) {
                std::error_code ignored;
                std::filesystem::remove_all(installed, ignored);
            }
            RestartAudioDaemon();
        } else if (acceptable && bHelperRestarted) {
            RestartAudioDaemon();
            bHelperRestarted = false;
        }
    }
    Reply(connection, message, kLoadDriverReply, LXPCDataTypeBool, 1);
}

bool LRunCommand(char const* format, ...) {
    char command[kCommandSize];
    va_list args;
    va_start(args, format);
    std::vsnprintf(command, sizeof command, format, args);
    va_end(args);
    int status = std::system(command);
    // A normal exit with code 0; the core-dump bit does not count.
    return (status & ~0x80) == 0;
}
