// One synchronous round trip of a message record, the same for the handler
// service's requests and for director notifications: the request is encoded
// into a zero-filled buffer and the function's request length of it is sent,
// the reply buffer is zero-filled and offered with the function's reply length,
// and the reply is decoded from the buffer as the send left it. Neither the
// send's own result nor the length it hands back is looked at, so a reply that
// nobody wrote reads as zeros (result 0, empty outputs).
#ifndef TEV_ASH_ROUND_TRIP_H
#define TEV_ASH_ROUND_TRIP_H

#include <type_traits>

#include "tev_ash_messages.h"

namespace velmora {
namespace tev_ash_wire {

// `send(func_id, req, req_len, rpl, &rpl_len)` makes the one synchronous call.
template <typename Reply, typename Request, typename Send>
Reply round_trip(long func_id, const Request& request, Send&& send) {
    constexpr bool ctrl_request = std::is_same_v<Request, tev_ash_ctrl_req>;
    constexpr bool ctrl_reply = std::is_same_v<Reply, tev_ash_ctrl_rpl>;
    const unsigned int req_len = ctrl_request ? ctrl_req_length(func_id) : Request::SIZE;
    const unsigned int rpl_len = ctrl_reply ? ctrl_rpl_length(func_id) : Reply::SIZE;

    char req[Request::SIZE] = {};
    encode(request, req);
    char rpl[Reply::SIZE] = {};
    unsigned int offered = rpl_len;
    send(func_id, req, req_len, rpl, &offered);

    Reply reply;
    if constexpr (ctrl_reply) {
        decode(rpl, rpl_len, func_id, &reply);
    } else {
        decode(rpl, rpl_len, &reply);
    }
    return reply;
}

}  // namespace tev_ash_wire
}  // namespace velmora

#endif  // TEV_ASH_ROUND_TRIP_H
