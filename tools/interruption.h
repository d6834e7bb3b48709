// SPDX-License-Identifier: MIT
// Ctrl-C and its like while the kernel is being changed: noticed, not obeyed at once.
#pragma once

#include <csignal>
#include <iterator>
#include <string>

namespace tool {

// While one lives, SIGINT, SIGTERM and SIGHUP do not end the program. The first says that the step
// under way is finished and all is taken back; each further one says what is left to do. One that
// was ignored before (by nohup, by a shell's &) stays ignored. At most one lives at a time.
class interruption {
public:
    interruption();
    interruption(const interruption &) = delete;
    interruption &operator=(const interruption &) = delete;
    ~interruption();

    // The first of the three that came, or 0. The exit status is then 128 and this number.
    int signal() const;

    // What a further signal is told, until the next call: "eth0: 12 tc commands and the rules".
    // Cut after 400 bytes.
    void left(const std::string &what);

    // From now on the three come too late: nobody is told anything, and they do not end the program
    // either, also when this is gone. signal() says whether one came before, late() whether after.
    void over();
    static int late();

private:
    static constexpr int numbers[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};

    struct sigaction before_[std::size(numbers)] = {};
    sigset_t mask_before_{};
};

}  // namespace tool
