// SPDX-License-Identifier: MIT
// What a program does to files: recorded, and made to fail. The test program is linked with --wrap
// for open, write, fsync, rename and unlink, so that no test hook stands in the command itself.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace test {

struct operation {
    enum class kind {
        create,       // a new file with a name
        write,        // bytes at a file's end
        sync_file,    // the file's bytes are on the disk
        sync_folder,  // the names of all files are on the disk
        rename,
        unlink,
        mark  // of the test: what comes before was done, and has said so
    } what;
    std::string name = {};   // in its folder; mark: the test's word
    std::string other = {};  // rename: the new name; write: the bytes
    int file = 0;            // create, write, sync_file: the file's number, one for each create
};

// While it lives, what succeeds is recorded, and the nth call of `function` (counted from 1) fails
// with errno `error`; nth 0 fails none. A write that fails has written half of its bytes. One lives
// at a time.
class file_watch {
public:
    explicit file_watch(std::string function = "", int nth = 0, int error = 5 /* EIO */);
    ~file_watch();
    file_watch(const file_watch &) = delete;
    file_watch &operator=(const file_watch &) = delete;

    void mark(const std::string &word);
    const std::vector<operation> &operations() const { return operations_; }
    bool heal();  // no call fails any more; whether one has failed

    // For the wrapped calls
    bool fails(const std::string &function);
    void record(const operation &o) { operations_.push_back(o); }
    int files = 0;                   // created so far
    std::map<int, int> descriptors;  // descriptor to file; 0: a folder

private:
    std::string function_;
    int nth_;
    int error_;
    bool failed_ = false;
    std::vector<operation> operations_;
};

}  // namespace test
