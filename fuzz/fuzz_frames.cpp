// Feeds arbitrary bytes to the frame decoders of the message service between
// processes, as a broken or hostile peer could send them: a frame is either
// refused with words or decoded consistently, a decoded frame encodes back to
// the same bytes, and a request that is served gets a reply its sender accepts.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "facade_template.h"
#include "gen_ipc.h"
#include "host/tev_host.h"
#include "ipc_frame.h"

namespace ipc = tevhost::ipc;

namespace {

// Object 1 answers with the request reversed; object 2 never answers.
class reverse_echo : public velmora::facade_template {
public:
    void dispatch(long, char* buf, unsigned int len, gen_ipc_msghdr hdr) override {
        std::string reply(buf, len);
        gen_ipc_reply(hdr, std::string(reply.rbegin(), reply.rend()).data(), len);
    }
};

void require(bool condition) {
    if (!condition) std::abort();
}

uint32_t field(const std::uint8_t* bytes, std::size_t size, std::size_t at) {
    if (size < at + 4) return 0;
    return bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16 | uint32_t(bytes[at + 3]) << 24;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const bool registered = [] {
        static reverse_echo echo;
        static velmora::facade_template silent;
        return tevhost::register_object("FUZZ", 1, &echo) &&
               tevhost::register_object("FUZZ", 2, &silent);
    }();
    require(registered);

    // As a request arriving at a serving process.
    ipc::request request;
    std::vector<unsigned char> reply;
    const char* refused = ipc::answer("FUZZ", bytes, size, &reply);
    require((refused == nullptr) == (ipc::decode_request(bytes, size, &request) == nullptr));
    if (refused == nullptr) {
        unsigned char header[ipc::REQUEST_HEADER];
        ipc::encode_request_header(request, header);
        require(std::memcmp(header, bytes, sizeof header) == 0);
        ipc::reply answer;
        require(ipc::decode_reply(reply.data(), reply.size(), request.call, request.reply_capacity,
                                  &answer) == nullptr);
    }

    // As a reply arriving at a sender that offered the most room.
    ipc::reply answer;
    if (ipc::decode_reply(bytes, size, field(bytes, size, 8), ipc::MAX_REPLY_BYTES, &answer) ==
        nullptr) {
        std::vector<unsigned char> again;
        ipc::encode_reply(answer, &again);
        require(again.size() == size && std::memcmp(again.data(), bytes, size) == 0);
    }
    return 0;
}
