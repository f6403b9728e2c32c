// The persistent record store backend. Not built yet: opening always fails and
// the host store keeps its in-memory backend.
#include <memory>
#include <string>

#include "store_backend.h"

namespace tevhost {
namespace detail {

std::unique_ptr<store_backend> make_file_backend(const std::string& /*path*/, std::string* error) {
    if (error != nullptr) *error = "persistent store not built yet";
    return nullptr;
}

}  // namespace detail
}  // namespace tevhost
