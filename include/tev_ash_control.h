// tev_ash_control: the handler control layer between the public facade and its
// two back ends, the record store and the handler facade. It makes, copies,
// resets and removes handler records, links and walks handler trees, resolves the
// handler that owns a member, reads and writes members, and copies a job's
// handler tree. It holds no mutable state and takes no lock: its operations may
// run concurrently; each single store call is as atomic as the store makes it,
// a sequence of them (a two-step lookup, a resolution, a copy) is not.
//
// Every record store failure becomes 0xC1030001 with one trace line; the store's
// own code never reaches the caller. Results of the handler facade (create,
// remove, reset) pass through unchanged.
#ifndef TEV_ASH_CONTROL_H
#define TEV_ASH_CONTROL_H

#include "tev_ash_types.h"

namespace velmora {

class tev_ash_handler_facade;

// A row of the member table: a member and the category of the handler that owns it.
struct tev_ash_member_row {
    unsigned int member_id;
    unsigned int category;
};

// A row of the category table: a category and its level (distance from the root).
struct tev_ash_category_row {
    unsigned int category;
    unsigned int level;
};

class TEV_ASH_API tev_ash_control {
public:
    tev_ash_control();
    ~tev_ash_control();

    tev_ash_control(const tev_ash_control&) = delete;
    tev_ash_control& operator=(const tev_ash_control&) = delete;

    // ---- Handlers through the handler service (result of the service, unchanged).
    // REQUIRES: `handler_id` is not null.
    unsigned int create(TEV_ASH_CATEGORY category, TEV_ASH_APP_TYPE app_type,
                        TEV_ASH_SERVICE_TYPE service_type, unsigned int* handler_id,
                        unsigned int src_handler_id);
    unsigned int remove(TEV_ASH_APP_TYPE app_type, unsigned int handler_id);
    unsigned int reset(TEV_ASH_APP_TYPE app_type, TEV_ASH_SERVICE_TYPE service_type,
                       unsigned int handler_id);

    // ---- Handler records in the record store (0 or 0xC1030001).
    // A new record of `category`, a copy of `src_handler_id` unless it is 0.
    // REQUIRES: `handler_id` is not null.
    unsigned int create_info(TEV_ASH_CATEGORY category, unsigned int* handler_id,
                             unsigned int src_handler_id);
    unsigned int copy_info(unsigned int src_handler_id, unsigned int dst_handler_id);
    unsigned int reset_info(unsigned int handler_id);
    unsigned int remove_info(unsigned int handler_id);

    // ---- Links and navigation (0 or 0xC1030001). Out-pointers must not be null.
    unsigned int set_link(TEV_ASH_CATEGORY parent_category, unsigned int parent_handler_id,
                          TEV_ASH_CATEGORY child_category, unsigned int child_handler_id);
    unsigned int delete_link(TEV_ASH_CATEGORY category, unsigned int handler_id);
    // All direct children.
    unsigned int get_child_count(unsigned int parent_handler_id, unsigned int* count);
    // Children of `child_category`.
    unsigned int get_child_count(unsigned int parent_handler_id, unsigned int* count,
                                 TEV_ASH_CATEGORY child_category);
    unsigned int get_child_id_direct(unsigned int parent_handler_id, unsigned int order,
                                     unsigned int* child_handler_id);
    unsigned int get_child_id(unsigned int parent_handler_id, TEV_ASH_CATEGORY child_category,
                              unsigned int* child_handler_id, unsigned int order);
    unsigned int get_parent_id(unsigned int child_handler_id, unsigned int* parent_handler_id);
    unsigned int get_category(unsigned int handler_id, TEV_ASH_CATEGORY* category);

    // ---- Member and category tables (no store access, no allocation).
    unsigned int get_member_category(unsigned int member_id, TEV_ASH_CATEGORY* category);
    unsigned int get_category_level(TEV_ASH_CATEGORY category, unsigned int* level);
    // 1 when `category` is a job-set category, else 0.
    unsigned int is_category_job_set(TEV_ASH_CATEGORY category);

    // ---- Target handler resolution: the handler of the tree that owns `member_id`
    // (the named one, its child at `order`, or the AUTH root). 0, 0xC1030001 or
    // 0xC1030003.
    unsigned int search_target_handler_id(unsigned int handler_id, unsigned int member_id,
                                          unsigned int* target_handler_id, unsigned int order);

    // ---- Member reads. The store writes the member's whole value into `ret_p`;
    // `size` is not used. The read without `cmp_id` uses TEV_ASH_CMP_ID. A typed
    // read into long / unsigned long gives the 32-bit member sign- / zero-extended;
    // a failed read leaves the caller's variable as it was.
    unsigned int get_member(unsigned int cmp_id, unsigned int handler_id, unsigned int member_id,
                            unsigned int size, char* ret_p, unsigned int order);
    unsigned int get_member(unsigned int cmp_id, unsigned int handler_id, unsigned int member_id,
                            unsigned long* ret_p, unsigned int order);
    unsigned int get_member(unsigned int cmp_id, unsigned int handler_id, unsigned int member_id,
                            long* ret_p, unsigned int order);
    unsigned int get_member(unsigned int cmp_id, unsigned int handler_id, unsigned int member_id,
                            unsigned short* ret_p, unsigned int order);
    unsigned int get_member(unsigned int cmp_id, unsigned int handler_id, unsigned int member_id,
                            short* ret_p, unsigned int order);
    unsigned int get_member(unsigned int cmp_id, unsigned int handler_id, unsigned int member_id,
                            unsigned char* ret_p, unsigned int order);
    unsigned int get_member(unsigned int cmp_id, unsigned int handler_id, unsigned int member_id,
                            char* ret_p, unsigned int order);
    unsigned int get_member(unsigned int handler_id, unsigned int member_id, char* ret_p,
                            unsigned int order);

    // ---- Member writes. long / unsigned long values are written as 32 bits.
    unsigned int set_member(unsigned int cmp_id, unsigned int handler_id, unsigned int member_id,
                            unsigned int size, char* val_p, unsigned int order);
    unsigned int set_member(unsigned int cmp_id, unsigned int handler_id, unsigned int member_id,
                            unsigned long val, unsigned int order);
    unsigned int set_member(unsigned int cmp_id, unsigned int handler_id, unsigned int member_id,
                            long val, unsigned int order);
    unsigned int set_member(unsigned int cmp_id, unsigned int handler_id, unsigned int member_id,
                            unsigned short val, unsigned int order);
    unsigned int set_member(unsigned int cmp_id, unsigned int handler_id, unsigned int member_id,
                            short val, unsigned int order);
    unsigned int set_member(unsigned int cmp_id, unsigned int handler_id, unsigned int member_id,
                            unsigned char val, unsigned int order);
    unsigned int set_member(unsigned int cmp_id, unsigned int handler_id, unsigned int member_id,
                            char val, unsigned int order);
    unsigned int set_member(unsigned int cmp_id, unsigned int handler_id, unsigned int member_id,
                            char* val_p, unsigned int order);

    // ---- Copy of a job's handler tree: both APLJOB or both APLSVC_IMG handlers.
    // 0, 0xC1030001, or 0xC1030008 for a refused pair (nothing changed then).
    unsigned int copy(unsigned int src_handler_id, unsigned int dst_handler_id);

    // ---- Built-in tables.
    static const unsigned int MEMBER_MAX;                    // 910
    static const tev_ash_member_row s_member_table[910];     // sorted by member_id
    static const unsigned int CATEGORY_MAX;                  // 24
    static const tev_ash_category_row s_category_table[24];
    static const unsigned int ALL_JOB_SET_NUM;               // 21
    static const unsigned int s_job_set_list[21];

private:
    tev_ash_handler_facade* handler_facade_;
};

}  // namespace velmora

#endif  // TEV_ASH_CONTROL_H
