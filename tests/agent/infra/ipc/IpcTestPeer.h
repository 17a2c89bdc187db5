#pragma once

// Peers for channel tests: a server channel served by a forked child, and a
// raw client that writes arbitrary records.

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>

#include "agent/src/infra/ipc/IpcChannel.h"

// Forks a child that runs body and leaves with its result as exit code.
pid_t ForkChild(const std::function<int()>& body);
// Exit code of the child, -1 when it did not exit normally.
int WaitChild(pid_t pid);

// Binds and listens on the server channel here (so clients can connect at
// once), then forks a child that accepts one client and serves requests until
// the client goes away. The parent's copy of the listening socket is closed.
// The child's exit code is the number of requests served (at most 254).
pid_t StartServer(IpcChannel& server);
// Kills a server child at once, as a crash would, and reaps it.
void KillServer(pid_t pid);

// A connected SOCK_SEQPACKET socket on path, -1 on failure.
int RawConnect(const std::string& path);
// One record; false unless all of it went out.
bool SendRecord(int fd, const void* data, size_t size);
// A request header record (magic, length, command id) in host order.
bool SendHeader(int fd, uint32_t magic, uint32_t length, uint32_t commandId);
// Reads a reply header and, when it announces data, the data record. False
// when no complete header arrives within timeoutMsec.
bool ReadReply(int fd, IpcHeader* header, std::string* data, int timeoutMsec = 2000);
