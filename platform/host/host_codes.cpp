// The words of the host's own result codes (host/tev_host.h): those the handler
// service answers with when the transport failed, and the record store's.
#include "host/tev_host.h"

namespace tevhost {

const char* host_code_text(unsigned int code) {
    switch (code) {
        case HOST_DIRECTOR_UNREACHABLE: return "director not reached: nothing was done";
        case HOST_ALREADY_REGISTERED: return "already registered in this process";
        case HOST_OUTCOME_UNKNOWN: return "no answer: the outcome is unknown";
        case HOST_DIRECTOR_UNRESPONSIVE: return "director not answering";
        case STORE_NO_RECORD: return "no such record";
        case STORE_BAD_CATEGORY: return "category 0 or not the record's";
        case STORE_NO_MEMBER: return "member unknown to the record and the schema";
        case STORE_WIDTH: return "member of another width";
        case STORE_HAS_PARENT: return "the child is already linked";
        case STORE_CYCLE: return "the link would make a cycle";
        case STORE_NO_LINK: return "no such link";
        case STORE_BAD_ARG: return "bad argument";
        case STORE_IO: return "record store file failed or busy, or ids used up";
        case STORE_ROLLED_BACK: return "the transaction was rolled back";
        case STORE_READ_ONLY: return "the record store is read-only";
        case STORE_RANGE: return "value outside the member's declared range";
        case STORE_INJECTED: return "injected failure";
        default: return "";
    }
}

}  // namespace tevhost
