// Synchronous message header and reply facility of the platform message service.
#ifndef GEN_IPC_H
#define GEN_IPC_H

// Identifies one received synchronous request. Its fields belong to the platform;
// users copy it and hand it back to gen_ipc_reply.
struct gen_ipc_msghdr {
    unsigned long long call_id;
};

// Answers the request that `hdr` identifies with `rpl_len` bytes from `rpl`. The
// sender receives at most as many bytes as it offered. Returns 0 on success,
// non-zero when the request is unknown or has already been answered.
int gen_ipc_reply(const gen_ipc_msghdr& hdr, const char* rpl, unsigned int rpl_len);

#endif  // GEN_IPC_H
