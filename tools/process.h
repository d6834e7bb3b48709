// Other programs, run without a shell.
#pragma once

#include <string>
#include <vector>

namespace tool {

struct run_result {
    bool missing = false;  // the program could not be started
    int status = 0;        // its exit status; 128 and the signal's number when it was killed
    std::string out;       // what it said on standard output
    std::string err;       // and on standard error
    bool ok() const { return !missing && status == 0; }
};

// Runs a program, found on the PATH, with a text as its standard input, and waits for its end.
run_result run(const std::vector<std::string> &command, const std::string &input = "");

// While one lives, the signals that a terminal or a supervisor ends a program with wait: what was
// begun is finished, or taken back, first. What is run inherits that.
class uninterrupted {
public:
    uninterrupted();
    uninterrupted(const uninterrupted &) = delete;
    uninterrupted &operator=(const uninterrupted &) = delete;
    ~uninterrupted();

private:
    struct state;
    state *before_;
};

}  // namespace tool
