#pragma once

// Peers for channel tests: handlers for a test server, the server served by a
// forked child, and a raw client that writes arbitrary records.

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "ipc/IpcChannel.h"

// kEcho echoes the request; kFailWithData fails with the 5 bytes "abcde";
// kTenBytes replies "0123456789"; kHugeReply claims 65537 reply bytes;
// kBeyondBuffer claims 100 bytes more than the reply buffer holds; kText
// replies with the text in the request buffer, as handlers taking a string do.
enum TestCommand : int32_t { kEcho, kFailWithData, kTenBytes, kHugeReply, kBeyondBuffer, kText };
// Calls of those handlers in this process.
extern int g_handlerCalls;
void RegisterTestHandlers(IpcChannel& server);

// Binds and listens here (so clients can connect at once), then forks a child
// that accepts one client and serves it until it goes away. The parent's copy
// of the listening socket is closed.
pid_t StartServer(IpcChannel& server);
// Kills a server child (if any) at once, as a crash would, reaps it and
// leaves -1 in *pid.
void KillServer(pid_t* pid);

// A connected SOCK_SEQPACKET socket on path, -1 on failure.
int RawConnect(const std::string& path);
// One record; false unless all of it went out.
bool SendRecord(int fd, const std::string& record);
// The bytes of a request header record (magic, length, command id).
std::string Header(uint32_t magic, uint32_t length, uint32_t commandId);
// Takes a reply already queued on fd: its header and, when the header
// announces data, the data record. False when no complete header is there.
bool TakeReply(int fd, IpcHeader* header, std::string* data);
