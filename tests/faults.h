// Calls of the C library, watched and made to fail. The test program is linked with --wrap for
// those in CMakeLists.txt, so that no test hook stands in the library itself.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace test {

// One watched call, in order.
struct call {
    std::string function;  // "open"
    std::string text;      // open: the path; write: the bytes; system, popen: the command
    int fd = -1;           // open: what it returned; what takes one: its argument
    int flags = 0;         // open: its flags
};

// While it lives, calls of the wrapped functions are recorded, and the nth call of `function`
// (counted from 1, from when the watch began) fails as that function does: null or -1, with
// errno `error`. nth 0 fails none; nth -1 fails every one. The rest reach the C library.
class watch {
public:
    explicit watch(std::string function = "", int nth = 0, int error = 12 /* ENOMEM */);
    ~watch();
    watch(const watch &) = delete;
    watch &operator=(const watch &) = delete;

    std::vector<call> calls(const std::string &function) const;
    std::vector<call> calls() const;  // of open, write, close, system and popen
    bool failed() const;              // whether the fault was reached
};

}  // namespace test
