// Feeds arbitrary bytes to every decoder of the message records, as a peer
// process could send them, and checks that a decoded record encodes back to the
// same bytes in the fields it covers.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tev_ash_messages.h"

using namespace velmora;

namespace {

template <typename Record>
void round_trip(const char* data, unsigned int len) {
    Record r;
    if (!decode(data, len, &r)) return;
    std::vector<char> out(Record::SIZE);
    encode(r, out.data());
    if (std::memcmp(out.data(), data, Record::SIZE) != 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size < 1) return 0;
    const long func_id = static_cast<long>(bytes[0] % 10);
    const char* data = reinterpret_cast<const char*>(bytes + 1);
    const auto len = static_cast<unsigned int>(size - 1);

    round_trip<tev_ash_remove_observer_req>(data, len);
    round_trip<tev_ash_create_req>(data, len);
    round_trip<tev_ash_create_rpl>(data, len);
    round_trip<tev_ash_remove_req>(data, len);
    round_trip<tev_ash_reset_req>(data, len);
    round_trip<tev_ash_result_rpl>(data, len);

    tev_ash_add_observer_req add;
    if (decode(data, len, &add)) {
        char out[tev_ash_add_observer_req::SIZE];
        encode(add, out);
        if (std::memcmp(out, data, sizeof out) != 0) std::abort();
    }
    tev_ash_ctrl_req ctrl;
    (void)decode(data, len, &ctrl);
    tev_ash_ctrl_rpl rpl;
    if (decode(data, len, func_id, &rpl)) {
        char out[tev_ash_ctrl_rpl::SIZE];
        encode(rpl, func_id, out);
        if (std::memcmp(out + 12, data + 12, 4) != 0) std::abort();
    }
    return 0;
}
