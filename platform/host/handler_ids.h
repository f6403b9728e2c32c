// The process-wide handler-id counter every record store backend takes ids
// from, so an id is never reused while the process lives, whichever backend
// made it. Safe from any thread (one atomic counter).
#ifndef TEVASH_HOST_HANDLER_IDS_H
#define TEVASH_HOST_HANDLER_IDS_H

namespace tevhost {
namespace detail {

// Takes the next handler id. The id returned is at least `floor` (a persistent
// store passes the first id its file has not handed out yet); 0 when the
// 32-bit ids are used up.
unsigned int take_handler_id(unsigned int floor);

}  // namespace detail
}  // namespace tevhost

#endif  // TEVASH_HOST_HANDLER_IDS_H
