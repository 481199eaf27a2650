// Socket plumbing shared by the server and the client side of the ZRP
// service: service paths, listening and connecting sockets, reading a chunk
// with its descriptors, writing a frame, and the peer's audit token.
// Internal to the library.
//
// Thread-safety: the functions keep no state and may run on any thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/UniqueFd.h"
#include "platform/zrp/ZRP.h"

namespace qvl::zrp {

inline constexpr size_t kReadChunkSize = 64 * 1024;
inline constexpr ssize_t kReceiveWouldBlock = -2;
// How long a send waits for a peer that does not read before it gives up.
inline constexpr std::chrono::milliseconds kSendTimeout{10'000};

// "WHAT: " and the text of errno.
std::string errnoText(std::string_view what);

// SOCKETDIR/NAME, or nullopt when the name is empty, ".", "..", holds a "/" or
// a NUL, or the path does not fit a socket address.
std::optional<std::string> servicePath(std::string_view serviceName, std::string_view socketDirectory,
                                       std::string* error);

// Creates the socket folder (0755) when missing, replaces a stale socket
// (one nobody listens on), binds, makes the socket 0666 and listens. A live
// socket or anything that is not a socket at the path is left alone.
UniqueFd bindListener(const std::string& path, std::string* error);

// Connects a blocking client socket.
UniqueFd connectToPath(const std::string& path, std::string* error);

// One recvmsg() into `buffer` (its whole size), non-blocking unless `wait`
// (then for as long as the socket's receive timeout). Answers the byte count,
// 0 at end of stream, -1 on an error or when the peer sent more descriptors
// than one frame may carry, kReceiveWouldBlock when nothing is there (or came
// in time).
ssize_t receiveChunk(int fd, std::vector<uint8_t>& buffer, std::vector<UniqueFd>& descriptors,
                     bool wait = false);

// Writes the whole frame, its descriptors with the first byte. Waits at most
// `timeout` for a peer that does not read. False when the peer is gone or the
// time ran out.
bool sendFrame(int fd, const EncodedFrame& frame, std::chrono::milliseconds timeout);

// The peer's pid, uid, gid, pidfd and executable path.
AuditToken readAuditToken(int fd);

}  // namespace qvl::zrp
