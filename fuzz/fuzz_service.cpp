// Feeds arbitrary requests to the host handler service and to the sample
// director exactly as another process would send them: through the message
// client, with any function id, any request bytes and any reply capacity. The
// service must answer or ignore each one without crashing; the library's reply
// reading is driven by the same bytes on the way back. Host-only requests
// (status, monitor) are among them, the monitor's wait kept at 0.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "handler_service.h"
#include "host/tev_host_testing.h"
#include "host_system.h"
#include "sample_director.h"
#include "tev_ash_handler_facade.h"
#include "vlq_mc_client.h"

using namespace velmora;

namespace {

struct fixture {
    fixture() {
        tevhost::store_use_memory();
        system = new tevash_tools::host_system(static_cast<TEV_ASH_APP_TYPE>(1));
        director_id = system->director().get_obj_id();
    }
    tevash_tools::host_system* system;  // lives until exit
    long director_id = 0;
    vlq_mc_client client;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static fixture* f = new fixture;
    if (size < 3) return 0;
    const bool to_director = (bytes[0] & 0x80) != 0;
    long func_id = static_cast<long>(static_cast<std::int8_t>(bytes[0] << 1) >> 1) % 12;
    // Ids 10 and 11 stand for the host-only status and monitor requests.
    if (!to_director && func_id >= 10) func_id += tevash_tools::HOST_FUNC_STATUS - 10;
    unsigned int capacity = bytes[1] % 48;
    std::vector<char> request(bytes + 2, bytes + size);
    // A monitor waits up to its request's wait for a line: never in a fuzz run.
    if (func_id == tevash_tools::HOST_FUNC_MONITOR && request.size() >= 12)
        std::memset(request.data() + 8, 0, 4);
    std::vector<char> reply(capacity == 0 ? 1 : capacity, 0);
    // Never let the fuzzer withdraw the one registered director: that only
    // makes every later input uninteresting.
    if (!to_director && func_id == TEV_ASH_FUNC_REMOVE_OBSERVER) return 0;
    if (to_director) {
        f->client.vlq_mc_send_sync_message(
            f->director_id, func_id, request.data(), static_cast<unsigned int>(request.size()),
            reply.data(), &capacity, tevash_tools::sample_director::DEFAULT_CONNECTION);
    } else {
        f->client.vlq_mc_send_sync_message(TEV_ASH_SRV_OBJ_ID, func_id, request.data(),
                                           static_cast<unsigned int>(request.size()), reply.data(),
                                           &capacity, TEV_ASH_SRV_NAME);
    }
    // Keep the store small so that runs stay fast.
    if (tevhost::store_records().size() > 4096) tevhost::store_clear();
    return 0;
}
