// Shared enumerations, constants and result codes of libtevash.
#ifndef TEV_ASH_TYPES_H
#define TEV_ASH_TYPES_H

#include <cstdint>

#define TEV_ASH_API __attribute__((visibility("default")))

namespace velmora {

// A handler's category: one bit of 0..24. Values other than the named ones may be
// carried in it (the record store keeps any 32-bit value).
enum TEV_ASH_CATEGORY : unsigned int {
    TEV_ASH_CAT_APLSVC_IMG = 0x1,
    TEV_ASH_CAT_AUTH = 0x2,
    TEV_ASH_CAT_APLJOB = 0x4,
    // Job-set categories below the job handler (level 4).
    TEV_ASH_CAT_JOBSET_03 = 0x8,
    TEV_ASH_CAT_JOBSET_04 = 0x10,
    TEV_ASH_CAT_JOBSET_05 = 0x20,
    TEV_ASH_CAT_JOBSET_06 = 0x40,
    TEV_ASH_CAT_JOBSET_07 = 0x80,
    TEV_ASH_CAT_JOBSET_08 = 0x100,
    TEV_ASH_CAT_JOBSET_09 = 0x200,
    TEV_ASH_CAT_JOBSET_10 = 0x400,
    TEV_ASH_CAT_JOBSET_11 = 0x800,
    TEV_ASH_CAT_JOBSET_12 = 0x1000,
    TEV_ASH_CAT_JOBSET_13 = 0x2000,
    TEV_ASH_CAT_JOBSET_14 = 0x4000,
    // Members only: no level, not a job-set category.
    TEV_ASH_CAT_DETACHED = 0x8000,
    TEV_ASH_CAT_JOBSET_16 = 0x10000,
    TEV_ASH_CAT_JOBSET_17 = 0x20000,
    TEV_ASH_CAT_JOBSET_18 = 0x40000,
    TEV_ASH_CAT_JOBSET_19 = 0x80000,
    TEV_ASH_CAT_JOBSET_20 = 0x100000,
    TEV_ASH_CAT_JOBSET_21 = 0x200000,
    // Level 3, below the job handler; not a job-set category.
    TEV_ASH_CAT_SUBJOB = 0x400000,
    TEV_ASH_CAT_JOBSET_23 = 0x800000,
    TEV_ASH_CAT_JOBSET_24 = 0x1000000,
};

// Application type: selects the director. The library gives the values no meaning.
enum TEV_ASH_APP_TYPE : std::int32_t {
    TEV_ASH_APP_TYPE_NONE = 0,
};

// Service type: passed through to the director unchanged.
enum TEV_ASH_SERVICE_TYPE : std::int32_t {
    TEV_ASH_SERVICE_TYPE_NONE = 0,
};

// Function ids of the handler service protocol (and of director notifications 2..4).
enum TEV_ASH_FUNC_ID : std::int32_t {
    TEV_ASH_FUNC_ADD_OBSERVER = 0,
    TEV_ASH_FUNC_REMOVE_OBSERVER = 1,
    TEV_ASH_FUNC_CREATE = 2,
    TEV_ASH_FUNC_REMOVE = 3,
    TEV_ASH_FUNC_RESET = 4,
    TEV_ASH_FUNC_CTRL_NOTIFY_START = 5,
    TEV_ASH_FUNC_CTRL_NOTIFY_INIT_END = 6,
    TEV_ASH_FUNC_CTRL_NOTIFY_STOP = 7,
    TEV_ASH_FUNC_CTRL_GET_DIRECTOR_OBSERVER = 8,
};

// The library's component id: trace module, upper half of its result codes, and
// the cmp_id of the record store calls it makes for itself.
constexpr unsigned int TEV_ASH_CMP_ID = 0xC103;

// Address of the handler service.
constexpr const char* TEV_ASH_SRV_NAME = "TEV_ASH_SRV";
constexpr long TEV_ASH_SRV_OBJ_ID = 1;

// Length of a connection name field: NUL-padded, unterminated when full.
constexpr unsigned int TEV_ASH_CONNECTION_NAME_LEN = 16;

// Result codes made by the library. Any other non-zero result is the handler
// service's or a director's, passed through unchanged.
constexpr unsigned int TEV_ASH_RC_OK = 0;
constexpr unsigned int TEV_ASH_RC_FAILURE = 0xC1030001;           // store failure, unknown member or category, refused access
constexpr unsigned int TEV_ASH_RC_NOT_EXIST = 0xC1030003;         // owning child or ancestor does not exist
constexpr unsigned int TEV_ASH_RC_OBSERVER_EXISTS = 0xC1030005;   // an observer is registered for the application type
constexpr unsigned int TEV_ASH_RC_NO_OBSERVER = 0xC1030006;       // no observer for the type or object id
constexpr unsigned int TEV_ASH_RC_NO_SERVICE = 0xC1030007;        // handler service did not answer at start-up
constexpr unsigned int TEV_ASH_RC_BAD_ARG = 0xC1030008;           // null pointer, zero id or size, refused copy pair

// Service-call notification codes.
constexpr unsigned int TEV_ASH_NOTIFY_NULL_ARG = 0xE924;
constexpr unsigned int TEV_ASH_NOTIFY_STARTUP = 0xE926;

}  // namespace velmora

#endif  // TEV_ASH_TYPES_H
