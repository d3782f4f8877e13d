#pragma once

#include <chrono>
#include <cstddef>

/// What a client may cost. Everything of which there is only so much is shared by users as UserShares says.
namespace gateway::limits {

using std::chrono::seconds;

constexpr std::size_t kHead = std::size_t{64} * 1024;   // of a request: its first line and headers
constexpr std::size_t kTarget = 8192;                   // of a request's address
constexpr std::size_t kPath = 256;                      // a longer one names nothing: its body is not read
constexpr std::size_t kBuffer = std::size_t{8} * 1024;  // what a connection may keep without asking

constexpr std::size_t kConnections = 256;     // beside those of streams
constexpr std::size_t kRefused = 64;          // connections beyond these that are told so; more are closed at once
constexpr std::size_t kStrangers = 64;        // connections over the network that have shown no token yet
constexpr unsigned kWrongTokens = 5;          // that one address may show in a second before it has to wait
constexpr std::size_t kAddressesKept = 1024;  // of those who showed a wrong token
constexpr std::size_t kBytes = std::size_t{8} * 1024 * 1024;  // heads, bodies and answers that are held at once
constexpr std::size_t kReaders = 8;                           // requests that are served at once: GET and HEAD
constexpr std::size_t kAskers = 8;                            // likewise: all others
constexpr int kRequestsOfOneConnection = 100;

constexpr auto kHeadTime = seconds(10);        // from an answer, or the connection's begin, until a whole head is there
constexpr auto kStrangerTime = seconds(5);     // likewise, and for the handshake, of one that has shown no token yet
constexpr auto kWrongTokenDelay = seconds(1);  // until the answer to one too many
constexpr auto kBodyTime = seconds(30);        // from the head until the whole body is there
constexpr auto kSilence = seconds(10);         // within a body
constexpr auto kTurnTime = seconds(5);         // that a request waits to be served
constexpr auto kAnswerTime = seconds(30);      // until the other side has taken an answer, or a piece of a stream
constexpr auto kRestTime = seconds(2);         // to send what is not read any more
constexpr auto kKeepAliveAfter = seconds(15);  // of silence in a stream
constexpr auto kRetryAfter = seconds(1);       // when the system has no descriptor left
constexpr int kKeepAliveTold = 5;              // seconds that a client may rely on between two requests

}  // namespace gateway::limits
