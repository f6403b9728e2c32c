// Codec of the frames of the host message service between processes (the
// layout is in ipc_frame.h).
#include "ipc_frame.h"

#include <cstring>

#include "host/tev_host.h"
#include "le32.h"
#include "message_internal.h"

namespace tevhost {
namespace ipc {
namespace {

long signed32(uint32_t value) {
    return static_cast<long>(static_cast<int32_t>(value));
}

// Checks shared by both directions.
const char* check_frame(const unsigned char* frame, size_t size, size_t header, uint32_t magic) {
    if (size < header) return "short frame";
    if (size > MAX_FRAME) return "frame too long";
    if (get_le32(frame) != magic) return "bad magic";
    if (get_le32(frame + 4) != VERSION) return "other frame version";
    return nullptr;
}

}  // namespace

void encode_request_header(const request& r, unsigned char out[REQUEST_HEADER]) {
    put_le32(out, REQUEST_MAGIC);
    put_le32(out + 4, VERSION);
    put_le32(out + 8, r.kind);
    put_le32(out + 12, r.call);
    put_le32(out + 16, static_cast<uint32_t>(static_cast<unsigned long>(r.object_id)));
    put_le32(out + 20, static_cast<uint32_t>(static_cast<unsigned long>(r.func_id)));
    put_le32(out + 24, r.reply_capacity);
    put_le32(out + 28, r.payload_size);
    const auto deadline = static_cast<unsigned long long>(r.deadline_us);
    put_le32(out + 32, static_cast<uint32_t>(deadline));
    put_le32(out + 36, static_cast<uint32_t>(deadline >> 32));
}

void encode_reply(const reply& r, std::vector<unsigned char>* out) {
    out->resize(REPLY_HEADER + r.size);
    unsigned char* at = out->data();
    put_le32(at, REPLY_MAGIC);
    put_le32(at + 4, VERSION);
    put_le32(at + 8, r.call);
    put_le32(at + 12, r.status);
    put_le32(at + 16, r.size);
    if (r.size > 0) std::memcpy(at + REPLY_HEADER, r.bytes, r.size);
}

void encode_refusal(std::vector<unsigned char>* out) {
    reply refusal;
    refusal.status = MSG_BUSY;
    encode_reply(refusal, out);
}

const char* decode_request(const unsigned char* frame, size_t size, request* out) {
    if (const char* error = check_frame(frame, size, REQUEST_HEADER, REQUEST_MAGIC)) return error;
    out->kind = get_le32(frame + 8);
    out->call = get_le32(frame + 12);
    out->object_id = signed32(get_le32(frame + 16));
    out->func_id = signed32(get_le32(frame + 20));
    out->reply_capacity = get_le32(frame + 24);
    out->payload_size = get_le32(frame + 28);
    out->deadline_us = static_cast<long long>(get_le32(frame + 32) |
                                              static_cast<uint64_t>(get_le32(frame + 36)) << 32);
    out->payload = frame + REQUEST_HEADER;
    if (out->kind != KIND_SEND && out->kind != KIND_CHECK) return "unknown request kind";
    if (out->payload_size != size - REQUEST_HEADER) return "payload size disagrees with frame";
    if (out->reply_capacity > MAX_REPLY_BYTES) return "reply capacity too large";
    if (out->kind == KIND_CHECK && (out->payload_size != 0 || out->reply_capacity != 0)) {
        return "check request with payload";
    }
    if (out->deadline_us < 0) return "deadline out of range";
    return nullptr;
}

const char* decode_reply(const unsigned char* frame, size_t size, uint32_t call, uint32_t capacity,
                         reply* out) {
    if (const char* error = check_frame(frame, size, REPLY_HEADER, REPLY_MAGIC)) return error;
    out->call = get_le32(frame + 8);
    out->status = get_le32(frame + 12);
    out->size = get_le32(frame + 16);
    out->bytes = frame + REPLY_HEADER;
    if (out->status == MSG_BUSY && out->call == 0 && size == REPLY_HEADER && out->size == 0) {
        return nullptr;  // the refusal
    }
    if (out->call != call) return "reply to another call";
    if (out->status != MSG_OK && out->status != MSG_NO_OBJECT && out->status != MSG_NO_REPLY &&
        out->status != MSG_EXPIRED) {
        return "unknown reply status";
    }
    if (out->size != size - REPLY_HEADER) return "reply size disagrees with frame";
    if (out->size > capacity) return "reply longer than asked for";
    if (out->status != MSG_OK && out->size != 0) return "failed reply with bytes";
    return nullptr;
}

const char* answer(const std::string& connection, const unsigned char* frame, size_t size,
                   std::vector<unsigned char>* out) {
    request r;
    if (const char* error = decode_request(frame, size, &r)) return error;
    reply a;
    a.call = r.call;
    std::vector<unsigned char> bytes;
    if (r.kind == KIND_CHECK) {
        a.status = detail::registered_here(connection, r.object_id) ? MSG_OK : MSG_NO_OBJECT;
    } else if (r.deadline_us != 0 && detail::monotonic_us() >= r.deadline_us) {
        a.status = MSG_EXPIRED;
    } else {
        a.status = static_cast<uint32_t>(
            detail::deliver_served(connection, r.object_id, r.func_id, r.payload, r.payload_size,
                                   r.reply_capacity, r.deadline_us, &bytes));
    }
    a.bytes = bytes.data();
    a.size = static_cast<uint32_t>(bytes.size());
    encode_reply(a, out);
    return nullptr;
}

}  // namespace ipc
}  // namespace tevhost
