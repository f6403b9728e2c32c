// tev_ash_facade: the one object of a process through which applications use the
// library. Obtain it with tev_ash_get_instance(); every operation checks its
// pointer arguments and forwards to the control layer, returning its result
// unchanged (0 for success, a 0xC103xxxx code of the library, or a result of the
// handler service or a director).
//
// tev_ash_get_instance() may be called from any thread; the first call connects
// to the handler service and can block while it waits for it. Afterwards every
// operation may run concurrently without external synchronisation. The facade is
// never destroyed: its destructor is not public, so it cannot be deleted through
// the pointer tev_ash_get_instance() returns.
#ifndef TEV_ASH_FACADE_H
#define TEV_ASH_FACADE_H

#include <atomic>

#include "facade_template.h"
#include "tev_ash_types.h"
#include "zof.h"

namespace velmora {

class tev_ash_control;
class tev_ash_handler_facade;

class TEV_ASH_API tev_ash_facade : public facade_template {
public:
    // The process's facade, created on the first call. Never null.
    static tev_ash_facade* tev_ash_get_instance();

    // Start-up check: 0, or 0xC1030008 (trace line, 0xE926 notification) when
    // `obj_facade` is null.
    unsigned int initialize_facade(tev_ash_facade* obj_facade);

    tev_ash_facade(const tev_ash_facade&) = delete;
    tev_ash_facade& operator=(const tev_ash_facade&) = delete;

    // ---- Handlers and handler records. 0xC1030008 for a null out-pointer, and for
    // a zero id in tev_ash_copy.
    unsigned int tev_ash_create(unsigned int category, TEV_ASH_APP_TYPE app_type,
                                TEV_ASH_SERVICE_TYPE service_type, unsigned int* handler_id,
                                unsigned int src_handler_id);
    unsigned int tev_ash_remove(TEV_ASH_APP_TYPE app_type, unsigned int handler_id);
    unsigned int tev_ash_copy(unsigned int src_handler_id, unsigned int dst_handler_id);
    unsigned int tev_ash_reset(TEV_ASH_APP_TYPE app_type, TEV_ASH_SERVICE_TYPE service_type,
                               unsigned int handler_id);
    unsigned int tev_ash_create_info(unsigned int category, unsigned int* handler_id,
                                     unsigned int src_handler_id);
    unsigned int tev_ash_copy_info(unsigned int src_handler_id, unsigned int dst_handler_id);
    unsigned int tev_ash_reset_info(unsigned int handler_id);
    unsigned int tev_ash_remove_info(unsigned int handler_id);

    // ---- Links and navigation. 0xC1030008 for a null out-pointer.
    unsigned int tev_ash_set_link(unsigned int parent_category, unsigned int parent_handler_id,
                                  unsigned int child_category, unsigned int child_handler_id);
    unsigned int tev_ash_delete_link(unsigned int category, unsigned int handler_id);
    unsigned int tev_ash_get_child_count(unsigned int parent_handler_id, unsigned int* count);
    unsigned int tev_ash_get_child_count(unsigned int parent_handler_id, unsigned int* count,
                                         unsigned int child_category);
    unsigned int tev_ash_get_parent_id(unsigned int child_handler_id,
                                       unsigned int* parent_handler_id);
    unsigned int tev_ash_get_child_id(unsigned int parent_handler_id, unsigned int child_category,
                                      unsigned int* child_handler_id, unsigned int order);
    unsigned int tev_ash_get_child_id_direct(unsigned int parent_handler_id, unsigned int order,
                                             unsigned int* child_handler_id);
    unsigned int tev_ash_get_category(unsigned int handler_id, unsigned int* category);

    // ---- Member writes. 0xC1030008 for a null val_p.
    unsigned int tev_ash_set_member(unsigned int cmp_id, unsigned int handler_id,
                                    unsigned int member_id, char* val_p, unsigned int order);
    unsigned int tev_ash_set_member(unsigned int cmp_id, unsigned int handler_id,
                                    unsigned int member_id, char val, unsigned int order);
    unsigned int tev_ash_set_member(unsigned int cmp_id, unsigned int handler_id,
                                    unsigned int member_id, unsigned char val, unsigned int order);
    unsigned int tev_ash_set_member(unsigned int cmp_id, unsigned int handler_id,
                                    unsigned int member_id, short val, unsigned int order);
    unsigned int tev_ash_set_member(unsigned int cmp_id, unsigned int handler_id,
                                    unsigned int member_id, unsigned short val, unsigned int order);
    unsigned int tev_ash_set_member(unsigned int cmp_id, unsigned int handler_id,
                                    unsigned int member_id, long val, unsigned int order);
    unsigned int tev_ash_set_member(unsigned int cmp_id, unsigned int handler_id,
                                    unsigned int member_id, unsigned long val, unsigned int order);
    unsigned int tev_ash_set_member(unsigned int cmp_id, unsigned int handler_id,
                                    unsigned int member_id, unsigned int size, char* val_p,
                                    unsigned int order);

    // ---- Member reads. 0xC1030008 for a null ret_p, or a size of 0.
    unsigned int tev_ash_get_member(unsigned int handler_id, unsigned int member_id, char* ret_p,
                                    unsigned int order);
    unsigned int tev_ash_get_member(unsigned int cmp_id, unsigned int handler_id,
                                    unsigned int member_id, char* ret_p, unsigned int order);
    unsigned int tev_ash_get_member(unsigned int cmp_id, unsigned int handler_id,
                                    unsigned int member_id, unsigned char* ret_p,
                                    unsigned int order);
    unsigned int tev_ash_get_member(unsigned int cmp_id, unsigned int handler_id,
                                    unsigned int member_id, short* ret_p, unsigned int order);
    unsigned int tev_ash_get_member(unsigned int cmp_id, unsigned int handler_id,
                                    unsigned int member_id, unsigned short* ret_p,
                                    unsigned int order);
    unsigned int tev_ash_get_member(unsigned int cmp_id, unsigned int handler_id,
                                    unsigned int member_id, long* ret_p, unsigned int order);
    unsigned int tev_ash_get_member(unsigned int cmp_id, unsigned int handler_id,
                                    unsigned int member_id, unsigned long* ret_p,
                                    unsigned int order);
    unsigned int tev_ash_get_member(unsigned int cmp_id, unsigned int handler_id,
                                    unsigned int member_id, unsigned int size, char* ret_p,
                                    unsigned int order);

protected:
    // Only tev_ash_get_instance() makes the facade; the destructor frees the
    // control object and is reachable only to derived classes (tests).
    tev_ash_facade();
    ~tev_ash_facade() override;

private:
    static std::atomic<tev_ash_facade*> the_instance_;
    static std::atomic<Zof_Mutex_Semaphore*> mtx_;

    tev_ash_handler_facade* handler_facade_;
    tev_ash_control* control_;
};

}  // namespace velmora

#endif  // TEV_ASH_FACADE_H
