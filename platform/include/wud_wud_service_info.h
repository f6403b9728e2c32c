// The platform record store: handler records with a category and typed members,
// linked into trees. Every operation is static, takes the calling component's id
// first, returns 0 on success and a non-zero code on failure, and is safe for
// concurrent callers. A failed call changes nothing and writes no out-value.
#ifndef WUD_WUD_SERVICE_INFO_H
#define WUD_WUD_SERVICE_INFO_H

namespace velmora {

class wud_wud_service_info {
public:
    // Makes a record of `category`; its id goes to *handler_id.
    static unsigned int wud_wud_service_info_make_current(const unsigned int& cmp_id,
                                                          const unsigned int& category,
                                                          const unsigned char& flag,
                                                          unsigned int* handler_id);
    // Makes a record of `category` with the member values of `src_handler_id`.
    static unsigned int wud_wud_service_info_make_and_copy_current(
        const unsigned int& cmp_id, const unsigned int& category, const unsigned char& flag,
        const unsigned int& src_handler_id, unsigned int* handler_id);
    // Copies the member values of one existing record onto another.
    static unsigned int wud_wud_service_info_copy_current(const unsigned int& cmp_id,
                                                          const unsigned int& src_handler_id,
                                                          const unsigned int& dst_handler_id);
    // Gives every member of the record its initial value again.
    static unsigned int wud_wud_service_info_init_current(const unsigned int& cmp_id,
                                                          const unsigned int& handler_id);
    // Deletes the record; it leaves its parent's children.
    static unsigned int wud_wud_service_info_delete_current(const unsigned int& cmp_id,
                                                            const unsigned int& handler_id);
    static unsigned int wud_wud_service_info_set_link(const unsigned int& cmp_id,
                                                      const unsigned int& parent_category,
                                                      const unsigned int& parent_handler_id,
                                                      const unsigned int& child_category,
                                                      const unsigned int& child_handler_id);
    // Removes the link from the record to its parent.
    static unsigned int wud_wud_service_info_delete_link(const unsigned int& cmp_id,
                                                         const unsigned int& category,
                                                         const unsigned int& handler_id);
    static unsigned int wud_wud_service_info_get_child_link(const unsigned int& cmp_id,
                                                            const unsigned int& parent_category,
                                                            const unsigned int& parent_handler_id,
                                                            const unsigned int& child_category,
                                                            const unsigned int& order,
                                                            unsigned int* child_handler_id);
    static unsigned int wud_wud_service_info_get_child_link_num(
        const unsigned int& cmp_id, const unsigned int& parent_category,
        const unsigned int& parent_handler_id, const unsigned int& child_category,
        unsigned int* count);
    static unsigned int wud_wud_service_info_get_child_link_direct(
        const unsigned int& cmp_id, const unsigned int& parent_handler_id,
        const unsigned int& order, unsigned int* child_handler_id);
    static unsigned int wud_wud_service_info_get_child_link_num_direct(
        const unsigned int& cmp_id, const unsigned int& parent_handler_id, unsigned int* count);
    static unsigned int wud_wud_service_info_get_parent_link(const unsigned int& cmp_id,
                                                             const unsigned int& child_category,
                                                             const unsigned int& child_handler_id,
                                                             unsigned int* parent_handler_id);
    static unsigned int wud_wud_service_info_get_job_category_by_id(
        const unsigned int& cmp_id, const unsigned int& handler_id, unsigned int* category);
    // Writes the member's whole value (the store knows its size) into `value`.
    static unsigned int wud_wud_service_info_get_current(const unsigned int& cmp_id,
                                                         const unsigned int& handler_id,
                                                         const unsigned int& member_id,
                                                         void* value);
    // Writes a member: 8, 8, 16, 16, 32 and 32 bits wide, or the member's own
    // size read from `value` for the pointer form.
    static unsigned int wud_wud_service_info_set_current(const unsigned int& cmp_id,
                                                         const unsigned int& handler_id,
                                                         const unsigned int& member_id, char value);
    static unsigned int wud_wud_service_info_set_current(const unsigned int& cmp_id,
                                                         const unsigned int& handler_id,
                                                         const unsigned int& member_id,
                                                         unsigned char value);
    static unsigned int wud_wud_service_info_set_current(const unsigned int& cmp_id,
                                                         const unsigned int& handler_id,
                                                         const unsigned int& member_id, short value);
    static unsigned int wud_wud_service_info_set_current(const unsigned int& cmp_id,
                                                         const unsigned int& handler_id,
                                                         const unsigned int& member_id,
                                                         unsigned short value);
    static unsigned int wud_wud_service_info_set_current(const unsigned int& cmp_id,
                                                         const unsigned int& handler_id,
                                                         const unsigned int& member_id, long value);
    static unsigned int wud_wud_service_info_set_current(const unsigned int& cmp_id,
                                                         const unsigned int& handler_id,
                                                         const unsigned int& member_id,
                                                         unsigned long value);
    static unsigned int wud_wud_service_info_set_current(const unsigned int& cmp_id,
                                                         const unsigned int& handler_id,
                                                         const unsigned int& member_id, void* value);
};

}  // namespace velmora

#endif  // WUD_WUD_SERVICE_INFO_H
