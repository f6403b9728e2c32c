// A small application on the host: runs the handler service in its own process,
// creates a job handler, writes one of its members and reads it back. With a
// file name as argument the records go to that SQLite store instead of memory.
#include <cstdio>
#include <string>

#include "host/tev_host.h"
#include "tev_ash_facade.h"
#include "tevhost/embedded_service.h"

using namespace velmora;

int main(int argc, char** argv) {
    const unsigned int my_cmp_id = 0x1000;
    const auto app_type = static_cast<TEV_ASH_APP_TYPE>(1);

    std::string error;
    if (argc > 1 && !tevhost::store_use_file(argv[1], &error)) {
        std::fprintf(stderr, "cannot open store %s: %s\n", argv[1], error.c_str());
        return 1;
    }
    tevhost::embedded_service service(app_type);  // handler service + director, in-process
    if (service.status() != 0) {
        std::fprintf(stderr, "handler service: %s (result 0x%08X)\n", service.status_text(),
                     service.status());
        return 1;
    }

    tev_ash_facade* ash = tev_ash_facade::tev_ash_get_instance();
    unsigned int job = 0;
    long value = 0;
    unsigned int rc =
        ash->tev_ash_create(TEV_ASH_CAT_APLJOB, app_type, TEV_ASH_SERVICE_TYPE_NONE, &job, 0);
    if (rc == 0 && job == 0) {  // no handler service answered: the host tells why
        std::fprintf(stderr, "create: %s\n",
                     tevhost::send_status_text(tevhost::last_send_status()));
        return 1;
    }
    if (rc == 0) rc = ash->tev_ash_set_member(my_cmp_id, job, 0x00360000, 42L, 0);
    if (rc == 0) rc = ash->tev_ash_get_member(my_cmp_id, job, 0x00360000, &value, 0);
    if (rc != 0) {
        std::fprintf(stderr, "failed: result 0x%08X\n", rc);
        return 1;
    }
    std::printf("job handler %u: member 0x00360000 = %ld\n", job, value);
    return 0;
}
