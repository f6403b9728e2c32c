// Little-endian 32-bit fields, as every wire field and stored member value of
// the host platform is kept, whatever the width of `long` on the host.
// Pure functions; safe from any thread.
#ifndef TEVHOST_LE32_H
#define TEVHOST_LE32_H

#include <cstdint>

namespace tevhost {

inline void put_le32(unsigned char* at, uint32_t value) {
    at[0] = static_cast<unsigned char>(value);
    at[1] = static_cast<unsigned char>(value >> 8);
    at[2] = static_cast<unsigned char>(value >> 16);
    at[3] = static_cast<unsigned char>(value >> 24);
}

inline uint32_t get_le32(const unsigned char* at) {
    return static_cast<uint32_t>(at[0]) | static_cast<uint32_t>(at[1]) << 8 |
           static_cast<uint32_t>(at[2]) << 16 | static_cast<uint32_t>(at[3]) << 24;
}

}  // namespace tevhost

#endif  // TEVHOST_LE32_H
