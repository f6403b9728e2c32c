// Client of the platform message service: one synchronous request and reply per
// send. One client may carry concurrent sends from several threads.
#ifndef VLQ_MC_CLIENT_H
#define VLQ_MC_CLIENT_H

namespace velmora {

class vlq_mc_client {
public:
    vlq_mc_client();
    virtual ~vlq_mc_client();
    vlq_mc_client(const vlq_mc_client&) = delete;
    vlq_mc_client& operator=(const vlq_mc_client&) = delete;

    // Non-zero when object `object_id` of connection `connection` can be reached.
    static int vlq_mc_check_facade(const char* connection, long object_id);

    // Sends `req_len` bytes of `req` with `func_id` to object `object_id` of
    // `connection` and waits for the reply. On entry *rpl_len is the size of
    // `rpl`; at most that many reply bytes are written. Returns 0 when a reply
    // arrived (and sets *rpl_len to the bytes written), non-zero otherwise.
    int vlq_mc_send_sync_message(long object_id, long func_id, char* req, unsigned int req_len,
                                 char* rpl, unsigned int* rpl_len, const char* connection);
};

}  // namespace velmora

#endif  // VLQ_MC_CLIENT_H
