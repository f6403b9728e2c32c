// Small helpers shared by the test suites, on top of the host seams in
// host/tev_host.h.
#ifndef TEV_TEST_SUPPORT_H
#define TEV_TEST_SUPPORT_H

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace tevtest {

// Makes vlq_mc_check_facade answer 1 for object 1 of "TEV_ASH_SRV" (and 0 for
// anything else), so the first use of the handler facade does not wait for a
// handler service. Stays in force until tevhost::set_check_script(nullptr).
void answer_service_checks();

// The texts of the trace lines captured so far, in order.
std::vector<std::string> trace_texts();

// Wire bytes: a value as four little-endian bytes, and parts put end to end.
using bytes = std::vector<unsigned char>;
bytes le32(std::uint32_t v);
bytes join(std::initializer_list<bytes> parts);

// The whole content of a file ("" when it cannot be read).
std::string file_text(const std::string& path);

// A fresh, empty in-memory record store with no schema and no armed failure for
// its lifetime; call logging and armed failures are switched off again at the end.
struct fresh_store {
    fresh_store();
    ~fresh_store();
};

// Record store helpers of the host store tests.
namespace records {

// The component id and record categories the store tests use, and an out-value
// that a failed call must leave as it was.
constexpr unsigned int CMP = 0xC103, ROOT = 0x2, JOB = 0x4, SET_A = 0x8, SET_B = 0x10;
constexpr unsigned int SENTINEL = 0xDEADBEEF;

// Store calls as component CMP, each expected to succeed.
unsigned int make(unsigned int category);
void link(unsigned int parent, unsigned int child);  // each under its own category
// The direct children of `parent` in link order; also checks that the order past
// the last one is refused without writing the out-value.
std::vector<unsigned int> children(unsigned int parent);
// A four-byte member as a little-endian value; checks the read wrote no more.
uint32_t read_u32(unsigned int id, unsigned int member);

}  // namespace records

// A fresh directory under /tmp, removed with the files in it.
class temp_dir {
public:
    temp_dir();
    ~temp_dir();
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    const std::string& dir() const { return dir_; }

private:
    std::string dir_;
};

}  // namespace tevtest

#endif  // TEV_TEST_SUPPORT_H
