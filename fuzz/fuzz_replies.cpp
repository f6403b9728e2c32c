// Answers every request of the handler facade with arbitrary reply bytes, as a
// misbehaving handler service could: short, long or garbled replies must be
// read within the offered length and never crash the caller.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/tev_host_testing.h"
#include "tev_ash_handler_facade.h"

using namespace velmora;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static tev_ash_handler_facade* facade = [] {
        tevhost::set_check_script([](const std::string&, long) { return 1; });
        return tev_ash_handler_facade::tev_ash_handler_get_instance();
    }();
    if (size < 1) return 0;
    const std::vector<unsigned char> reply(bytes + 1, bytes + size);
    tevhost::message_spy spy([&](const tevhost::sent_message&, std::vector<unsigned char>& out) {
        out = reply;
        return true;
    });
    unsigned int handler_id = 0;
    unsigned char conn_id = 0;
    long obj_id = 0;
    char name[16];
    const auto app = static_cast<TEV_ASH_APP_TYPE>(1);
    const auto service = static_cast<TEV_ASH_SERVICE_TYPE>(0);
    switch (bytes[0] % 7) {
        case 0:
            facade->tev_ash_handler_create(TEV_ASH_CAT_APLJOB, app, service, &handler_id, 0);
            break;
        case 1: facade->tev_ash_handler_remove(app, 1); break;
        case 2: facade->tev_ash_handler_reset(app, service, 1); break;
        case 3: facade->tev_ash_handler_ctrl_notify_start(conn_id, "FUZZ_CONNECTER"); break;
        case 4: facade->tev_ash_handler_ctrl_notify_init_end(1); break;
        case 5: facade->tev_ash_handler_ctrl_notify_stop(1); break;
        default: facade->tev_ash_handler_ctrl_get_director_observer(1, app, obj_id, name); break;
    }
    return 0;
}
