// Frames of the host message service between processes, and their codec.
// Internal to the host platform (and its tests and fuzz targets); not installed.
//
// One frame is one SOCK_SEQPACKET message, so the kernel keeps its bounds. Every
// field is a little-endian 32-bit value; no frame is longer than MAX_FRAME bytes.
//
// Request (client -> serving process), 40-byte header then the payload:
//   offset  0  magic           0x51564554 ("TEVQ" as bytes)
//           4  version         2
//           8  kind            1 = send, 2 = check (is the object registered?)
//          12  call            sender's number (never 0), echoed in the reply
//          16  object id       low 32 bits, read back sign-extended
//          20  function id     low 32 bits, read back sign-extended
//          24  reply capacity  at most this many reply bytes are wanted
//          28  payload size    must equal the frame size - 40
//          32  deadline low    the request's deadline: an absolute time on the
//          36  deadline high   host's CLOCK_MONOTONIC in microseconds (the clock
//                              every process of the host shares), 0 for none.
//                              The server does not dispatch a request read after
//                              it (MSG_EXPIRED); the sender has given up by then.
//          40  payload
// Reply (serving process -> client), 20-byte header then the reply bytes:
//   offset  0  magic           0x52564554 ("TEVR" as bytes)
//           4  version         2
//           8  call            the request's call number
//          12  status          MSG_OK, MSG_NO_OBJECT, MSG_NO_REPLY or MSG_EXPIRED;
//                              for a check, MSG_OK (registered) or MSG_NO_OBJECT
//          16  reply size      must equal the frame size - 20, be at most the
//                              request's reply capacity, and be 0 unless status is MSG_OK
//          20  reply bytes
// A check request carries no payload and a reply capacity of 0. A server that
// refuses a connection (too many connections) sends the refusal, a reply with
// call 0, status MSG_BUSY and no bytes, and closes it. Any other frame (short,
// longer than MAX_FRAME, other magic or version, unknown kind or status, sizes
// that disagree) is refused: the receiver closes the connection.
//
// Host-only requests to the handler service (object 1 of "TEV_ASH_SRV"), sent
// as ordinary send frames with function ids the device protocol (0 to 8) never
// uses; layouts in the same little-endian 32-bit fields:
//   0x7E01 status   request: empty. Reply: text lines, fields separated by one
//                   space, bytes <= 0x20, '%' and >= 0x7F as %XX, "-" empty:
//                     service <pid> <start, µs since the epoch> <store file>
//                     director <app type> <object id> <pid> <1 answering|0> <name>
//                     connecter <id> <status 0-3> <pid> <name>
//                     peer <pid> <open connections>
//   0x7E02 monitor  request: after seq low, after seq high (all ones: from
//                   now on), wait in ms (at most 1000), most lines wanted.
//                   Reply: result (0, or 0xC1030008 for a request not 16 bytes), last
//                   seq given out low, high, line count, then 80 bytes a line:
//                     0 seq low, 4 seq high, 8 time µs low, 12 time µs high,
//                     16 latency µs, 20 pid, 24 function id, 28 fields present
//                     (bits: 0 app type, 1 service type, 2 category, 3 handler
//                     id, 4 source id, 5 object id, 6 connecter, 7 name,
//                     8 answered, 9 a notification sent to a director),
//                     32 app type, 36 service type, 40 category, 44 handler id,
//                     48 source id, 52 connecter, 56 result, 60 object id,
//                     64 connection name (16 bytes, NUL-padded).
//                   Lines older than the ring keeps are gone: a gap in seq.
//
// The functions here are safe to call from any thread.
#ifndef TEV_HOST_IPC_FRAME_H
#define TEV_HOST_IPC_FRAME_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tevhost {
namespace ipc {

constexpr uint32_t REQUEST_MAGIC = 0x51564554;
constexpr uint32_t REPLY_MAGIC = 0x52564554;
constexpr uint32_t VERSION = 2;
constexpr size_t MAX_FRAME = 64 * 1024;
constexpr size_t REQUEST_HEADER = 40;
constexpr size_t REPLY_HEADER = 20;
constexpr size_t MAX_REQUEST_PAYLOAD = MAX_FRAME - REQUEST_HEADER;
constexpr size_t MAX_REPLY_BYTES = MAX_FRAME - REPLY_HEADER;

enum : uint32_t { KIND_SEND = 1, KIND_CHECK = 2 };

struct request {
    uint32_t kind = KIND_SEND;
    uint32_t call = 0;
    long object_id = 0;
    long func_id = 0;
    uint32_t reply_capacity = 0;
    long long deadline_us = 0;               // CLOCK_MONOTONIC microseconds; 0: none
    const unsigned char* payload = nullptr;  // points into the decoded frame
    uint32_t payload_size = 0;
};

struct reply {
    uint32_t call = 0;
    uint32_t status = 0;
    const unsigned char* bytes = nullptr;  // points into the decoded frame
    uint32_t size = 0;
};

// The header of `r` (its payload is sent after it; payload_size must be set).
void encode_request_header(const request& r, unsigned char out[REQUEST_HEADER]);
// A whole reply frame.
void encode_reply(const reply& r, std::vector<unsigned char>* out);
// The refusal a server sends on a connection it does not serve (MSG_BUSY).
void encode_refusal(std::vector<unsigned char>* out);

// Decode one received frame. Return nullptr and fill *out, or the words of what
// is wrong with the frame (then *out is unspecified).
const char* decode_request(const unsigned char* frame, size_t size, request* out);
// `call` and `capacity` are those of the request this frame answers; a refusal
// (status MSG_BUSY) answers any call.
const char* decode_reply(const unsigned char* frame, size_t size, uint32_t call, uint32_t capacity,
                         reply* out);

// Serves one request frame received on `connection` by delivering it to the
// object registered in this process (unless its deadline has passed: then it
// answers MSG_EXPIRED without delivering), and writes the reply frame to *out.
// Returns nullptr, or the words of what is wrong with the frame (no reply then).
const char* answer(const std::string& connection, const unsigned char* frame, size_t size,
                   std::vector<unsigned char>* out);

}  // namespace ipc
}  // namespace tevhost

#endif  // TEV_HOST_IPC_FRAME_H
