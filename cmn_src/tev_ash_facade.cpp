// The public entry of the library: the facade singleton and its operations.
// Each operation checks its pointers, then forwards to the control operation of
// the same name and returns its result unchanged.
#include "tev_ash_facade.h"

#include "tev_ash_control.h"
#include "tev_ash_handler_facade.h"
#include "tev_ash_singleton.h"
#include "tev_ash_trace.h"

namespace velmora {

namespace {

using tev_ash_trace::FILE_FACADE;

// The typed reads with a component id: a null buffer is refused, anything else
// goes to the control read of the same type.
template <typename T>
unsigned int read_checked(tev_ash_control& control, unsigned int cmp_id, unsigned int handler_id,
                          unsigned int member_id, T* ret_p, unsigned int order) {
    if (ret_p == nullptr) {
        TEV_ASH_TRACE(FILE_FACADE, "tev_ash_get_member", "[Error]ret_p is NULL");
        return TEV_ASH_RC_BAD_ARG;
    }
    return control.get_member(cmp_id, handler_id, member_id, ret_p, order);
}

}  // namespace

std::atomic<tev_ash_facade*> tev_ash_facade::the_instance_{nullptr};
std::atomic<Zof_Mutex_Semaphore*> tev_ash_facade::mtx_{nullptr};

tev_ash_facade* tev_ash_facade::tev_ash_get_instance() {
    // The facade's mutex is held while the handler facade is created, so it is
    // always taken before the handler facade's, never the other way round.
    return tev_ash_singleton::get_or_create(the_instance_, mtx_, [] {
        auto* facade = new tev_ash_facade();
        facade->initialize_facade(facade);
        return facade;
    });
}

tev_ash_facade::tev_ash_facade()
    : handler_facade_(tev_ash_handler_facade::tev_ash_handler_get_instance()),
      control_(new tev_ash_control()) {}

tev_ash_facade::~tev_ash_facade() {
    delete control_;
    control_ = nullptr;
}

unsigned int tev_ash_facade::initialize_facade(tev_ash_facade* obj_facade) {
    if (obj_facade == nullptr) {
        TEV_ASH_TRACE(FILE_FACADE, "initialize_facade", "[Error]obj_facade is NULL");
        TEV_ASH_NOTIFY(TEV_ASH_NOTIFY_STARTUP, FILE_FACADE, "initialize_facade");
        return TEV_ASH_RC_BAD_ARG;
    }
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_facade::tev_ash_create(unsigned int category, TEV_ASH_APP_TYPE app_type,
                                            TEV_ASH_SERVICE_TYPE service_type,
                                            unsigned int* handler_id, unsigned int src_handler_id) {
    if (handler_id == nullptr) {
        TEV_ASH_TRACE(FILE_FACADE, "tev_ash_create", "[Error]handler_id is NULL");
        return TEV_ASH_RC_BAD_ARG;
    }
    return control_->create(static_cast<TEV_ASH_CATEGORY>(category), app_type, service_type,
                            handler_id, src_handler_id);
}

unsigned int tev_ash_facade::tev_ash_remove(TEV_ASH_APP_TYPE app_type, unsigned int handler_id) {
    return control_->remove(app_type, handler_id);
}

unsigned int tev_ash_facade::tev_ash_copy(unsigned int src_handler_id,
                                          unsigned int dst_handler_id) {
    if (src_handler_id == 0 || dst_handler_id == 0) {
        TEV_ASH_TRACE(FILE_FACADE, "tev_ash_copy", "[Error]handler_id is NULL");
        return TEV_ASH_RC_BAD_ARG;
    }
    return control_->copy(src_handler_id, dst_handler_id);
}

unsigned int tev_ash_facade::tev_ash_reset(TEV_ASH_APP_TYPE app_type,
                                           TEV_ASH_SERVICE_TYPE service_type,
                                           unsigned int handler_id) {
    return control_->reset(app_type, service_type, handler_id);
}

unsigned int tev_ash_facade::tev_ash_create_info(unsigned int category, unsigned int* handler_id,
                                                 unsigned int src_handler_id) {
    if (handler_id == nullptr) {
        TEV_ASH_TRACE(FILE_FACADE, "tev_ash_create_info", "[Error]handler_id is NULL");
        return TEV_ASH_RC_BAD_ARG;
    }
    return control_->create_info(static_cast<TEV_ASH_CATEGORY>(category), handler_id,
                                 src_handler_id);
}

unsigned int tev_ash_facade::tev_ash_copy_info(unsigned int src_handler_id,
                                               unsigned int dst_handler_id) {
    return control_->copy_info(src_handler_id, dst_handler_id);
}

unsigned int tev_ash_facade::tev_ash_reset_info(unsigned int handler_id) {
    return control_->reset_info(handler_id);
}

unsigned int tev_ash_facade::tev_ash_remove_info(unsigned int handler_id) {
    return control_->remove_info(handler_id);
}

unsigned int tev_ash_facade::tev_ash_set_link(unsigned int parent_category,
                                              unsigned int parent_handler_id,
                                              unsigned int child_category,
                                              unsigned int child_handler_id) {
    return control_->set_link(static_cast<TEV_ASH_CATEGORY>(parent_category), parent_handler_id,
                              static_cast<TEV_ASH_CATEGORY>(child_category), child_handler_id);
}

unsigned int tev_ash_facade::tev_ash_delete_link(unsigned int category, unsigned int handler_id) {
    return control_->delete_link(static_cast<TEV_ASH_CATEGORY>(category), handler_id);
}

unsigned int tev_ash_facade::tev_ash_get_child_count(unsigned int parent_handler_id,
                                                     unsigned int* count) {
    if (count == nullptr) {
        TEV_ASH_TRACE(FILE_FACADE, "tev_ash_get_child_count", "[Error]count pointer is NULL");
        return TEV_ASH_RC_BAD_ARG;
    }
    return control_->get_child_count(parent_handler_id, count);
}

unsigned int tev_ash_facade::tev_ash_get_child_count(unsigned int parent_handler_id,
                                                     unsigned int* count,
                                                     unsigned int child_category) {
    if (count == nullptr) {
        TEV_ASH_TRACE(FILE_FACADE, "tev_ash_get_child_count", "[Error]count pointer is NULL");
        return TEV_ASH_RC_BAD_ARG;
    }
    return control_->get_child_count(parent_handler_id, count,
                                     static_cast<TEV_ASH_CATEGORY>(child_category));
}

unsigned int tev_ash_facade::tev_ash_get_parent_id(unsigned int child_handler_id,
                                                   unsigned int* parent_handler_id) {
    if (parent_handler_id == nullptr) {
        TEV_ASH_TRACE(FILE_FACADE, "tev_ash_get_parent_id", "[Error]parent_handler_id is NULL");
        return TEV_ASH_RC_BAD_ARG;
    }
    return control_->get_parent_id(child_handler_id, parent_handler_id);
}

unsigned int tev_ash_facade::tev_ash_get_child_id(unsigned int parent_handler_id,
                                                  unsigned int child_category,
                                                  unsigned int* child_handler_id,
                                                  unsigned int order) {
    if (child_handler_id == nullptr) {
        TEV_ASH_TRACE(FILE_FACADE, "tev_ash_get_child_id", "[Error]child_handler_id is NULL");
        return TEV_ASH_RC_BAD_ARG;
    }
    return control_->get_child_id(parent_handler_id, static_cast<TEV_ASH_CATEGORY>(child_category),
                                  child_handler_id, order);
}

unsigned int tev_ash_facade::tev_ash_get_child_id_direct(unsigned int parent_handler_id,
                                                         unsigned int order,
                                                         unsigned int* child_handler_id) {
    if (child_handler_id == nullptr) {
        TEV_ASH_TRACE(FILE_FACADE, "tev_ash_get_child_id_direct",
                      "[Error]child_handler_id is NULL");
        return TEV_ASH_RC_BAD_ARG;
    }
    return control_->get_child_id_direct(parent_handler_id, order, child_handler_id);
}

unsigned int tev_ash_facade::tev_ash_get_category(unsigned int handler_id, unsigned int* category) {
    if (category == nullptr) {
        TEV_ASH_TRACE(FILE_FACADE, "tev_ash_get_category", "[Error]category pointer is NULL");
        return TEV_ASH_RC_BAD_ARG;
    }
    return control_->get_category(handler_id, reinterpret_cast<TEV_ASH_CATEGORY*>(category));
}

unsigned int tev_ash_facade::tev_ash_set_member(unsigned int cmp_id, unsigned int handler_id,
                                                unsigned int member_id, char* val_p,
                                                unsigned int order) {
    if (val_p == nullptr) {
        TEV_ASH_TRACE(FILE_FACADE, "tev_ash_set_member", "[Error]val_p is NULL");
        return TEV_ASH_RC_BAD_ARG;
    }
    return control_->set_member(cmp_id, handler_id, member_id, val_p, order);
}

unsigned int tev_ash_facade::tev_ash_set_member(unsigned int cmp_id, unsigned int handler_id,
                                                unsigned int member_id, char val,
                                                unsigned int order) {
    return control_->set_member(cmp_id, handler_id, member_id, val, order);
}

unsigned int tev_ash_facade::tev_ash_set_member(unsigned int cmp_id, unsigned int handler_id,
                                                unsigned int member_id, unsigned char val,
                                                unsigned int order) {
    return control_->set_member(cmp_id, handler_id, member_id, val, order);
}

unsigned int tev_ash_facade::tev_ash_set_member(unsigned int cmp_id, unsigned int handler_id,
                                                unsigned int member_id, short val,
                                                unsigned int order) {
    return control_->set_member(cmp_id, handler_id, member_id, val, order);
}

unsigned int tev_ash_facade::tev_ash_set_member(unsigned int cmp_id, unsigned int handler_id,
                                                unsigned int member_id, unsigned short val,
                                                unsigned int order) {
    return control_->set_member(cmp_id, handler_id, member_id, val, order);
}

unsigned int tev_ash_facade::tev_ash_set_member(unsigned int cmp_id, unsigned int handler_id,
                                                unsigned int member_id, long val,
                                                unsigned int order) {
    return control_->set_member(cmp_id, handler_id, member_id, val, order);
}

unsigned int tev_ash_facade::tev_ash_set_member(unsigned int cmp_id, unsigned int handler_id,
                                                unsigned int member_id, unsigned long val,
                                                unsigned int order) {
    return control_->set_member(cmp_id, handler_id, member_id, val, order);
}

unsigned int tev_ash_facade::tev_ash_set_member(unsigned int cmp_id, unsigned int handler_id,
                                                unsigned int member_id, unsigned int size,
                                                char* val_p, unsigned int order) {
    if (val_p == nullptr) {
        TEV_ASH_TRACE(FILE_FACADE, "tev_ash_set_member", "[Error]val_p is NULL");
        return TEV_ASH_RC_BAD_ARG;
    }
    return control_->set_member(cmp_id, handler_id, member_id, size, val_p, order);
}

unsigned int tev_ash_facade::tev_ash_get_member(unsigned int handler_id, unsigned int member_id,
                                                char* ret_p, unsigned int order) {
    if (ret_p == nullptr) {
        TEV_ASH_TRACE(FILE_FACADE, "tev_ash_get_member", "[Error]ret_p is NULL");
        return TEV_ASH_RC_BAD_ARG;
    }
    return control_->get_member(handler_id, member_id, ret_p, order);
}

unsigned int tev_ash_facade::tev_ash_get_member(unsigned int cmp_id, unsigned int handler_id,
                                                unsigned int member_id, char* ret_p,
                                                unsigned int order) {
    return read_checked(*control_, cmp_id, handler_id, member_id, ret_p, order);
}

unsigned int tev_ash_facade::tev_ash_get_member(unsigned int cmp_id, unsigned int handler_id,
                                                unsigned int member_id, unsigned char* ret_p,
                                                unsigned int order) {
    return read_checked(*control_, cmp_id, handler_id, member_id, ret_p, order);
}

unsigned int tev_ash_facade::tev_ash_get_member(unsigned int cmp_id, unsigned int handler_id,
                                                unsigned int member_id, short* ret_p,
                                                unsigned int order) {
    return read_checked(*control_, cmp_id, handler_id, member_id, ret_p, order);
}

unsigned int tev_ash_facade::tev_ash_get_member(unsigned int cmp_id, unsigned int handler_id,
                                                unsigned int member_id, unsigned short* ret_p,
                                                unsigned int order) {
    return read_checked(*control_, cmp_id, handler_id, member_id, ret_p, order);
}

unsigned int tev_ash_facade::tev_ash_get_member(unsigned int cmp_id, unsigned int handler_id,
                                                unsigned int member_id, long* ret_p,
                                                unsigned int order) {
    return read_checked(*control_, cmp_id, handler_id, member_id, ret_p, order);
}

unsigned int tev_ash_facade::tev_ash_get_member(unsigned int cmp_id, unsigned int handler_id,
                                                unsigned int member_id, unsigned long* ret_p,
                                                unsigned int order) {
    return read_checked(*control_, cmp_id, handler_id, member_id, ret_p, order);
}

unsigned int tev_ash_facade::tev_ash_get_member(unsigned int cmp_id, unsigned int handler_id,
                                                unsigned int member_id, unsigned int size,
                                                char* ret_p, unsigned int order) {
    if (size == 0 || ret_p == nullptr) {
        TEV_ASH_TRACE(FILE_FACADE, "tev_ash_get_member", "[Error]ret_p is NULL or size is Zero");
        return TEV_ASH_RC_BAD_ARG;
    }
    return control_->get_member(cmp_id, handler_id, member_id, size, ret_p, order);
}

}  // namespace velmora
