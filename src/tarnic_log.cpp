// SPDX-License-Identifier: MIT
// Named log files with rotation. Owns logList, one table for the process, and isInit. Takes no
// lock: callers serialise all calls. Traces nothing.

#include <fcntl.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <utility>

#include "guards.h"
#include "mordel.h"
#include "plain_file.h"

using namespace mordel;

constinit log_entry logList[8] = {};
constinit u8 isInit = 0;

namespace {

constexpr int slot_free = -1;
constexpr int slot_used = 1;
constexpr u16 lines_per_file = 128;

// The path of a log's file. A path that is too long for the system becomes empty, which the system
// refuses as well; cut short, it would name another file.
struct log_path {
    char text[PATH_MAX];

    // The path of a slot's file. A field without a NUL ends where its array ends.
    explicit log_path(const log_entry &slot)
        : log_path(slot.dir, sizeof slot.dir, slot.file, sizeof slot.file)
    {}
    log_path(const char *dir, int dir_most, const char *file, int file_most)
    {
        const int length =
            ::snprintf(text, sizeof text, "%.*s/%.*s", dir_most, dir, file_most, file);
        if (static_cast<size_t>(length) >= sizeof text) text[0] = '\0';
    }

    int open(int flags);

private:
    bool others_may_plant();
};

// Whether somebody besides root and us may write to the directory that the file lies in, and could
// have put a link to a file of ours in the log's place.
bool log_path::others_may_plant()
{
    char *const slash = ::strrchr(text, '/');
    if (slash == nullptr) return false;  // the empty path
    struct stat st;
    const char first = std::exchange(slash[1], '\0');
    const bool known = ::stat(text, &st) == 0;
    slash[1] = first;
    if (!known) return false;  // then the file cannot be opened either
    return (st.st_mode & (S_IWGRP | S_IWOTH)) != 0 || (st.st_uid != 0 && st.st_uid != ::geteuid());
}

// Opens the file, for reading too, and makes it if it is missing. flags: O_TRUNC or none. -1 when
// it cannot be opened, or others may have planted it.
int log_path::open(int flags)
{
    constexpr int always = O_RDWR | O_CREAT | O_CLOEXEC;
    constexpr mode_t mode = 0666;
    if (!others_may_plant()) return ::open(text, always | flags, mode);
    struct stat st;
    fd_guard fd{open_own_file(text, always, mode, &st)};
    if (fd && flags != 0 && ::ftruncate(fd.get(), 0) != 0) return -1;
    return fd.release();
}

unsigned long now() { return static_cast<unsigned long>(::time(nullptr)); }

// Copies a text into a field of a slot and writes no NUL behind it: initLogSys has zeroed the slot.
template <size_t Size>
void keep(char (&field)[Size], const char *text)
{
    ::memcpy(field, text, ::strnlen(text, Size - 1));
}

}  // namespace

u8 isLogSysInit(void) { return isInit; }

int initLogSys(void)
{
    ::memset(logList, 0, sizeof logList);
    for (log_entry &slot : logList) slot.state = slot_free;
    isInit = 1;
    return 1;
}

int createLog(const char *name, const char *file, const char *dir)
{
    // The descriptor is neither kept nor closed, on purpose: it stays open for good.
    if (log_path(dir, INT_MAX, file, INT_MAX).open(O_TRUNC) < 0) return -2;
    int index = 0;
    for (log_entry &slot : logList) {
        if (slot.state == slot_free) {
            keep(slot.name, name);
            keep(slot.file, file);
            keep(slot.dir, dir);
            slot.state = slot_used;
            return index;
        }
        ++index;
    }
    return -1;
}

void putlog(int index, const char *first, const char *second)
{
    if (index < 0 || index >= static_cast<int>(std::size(logList))) return;
    log_entry &slot = logList[index];
    if (slot.state != slot_used) return;
    log_path path(slot);
    fd_guard fd{path.open(0)};
    if (!fd) return;
    stream_guard log{::fdopen(fd.get(), "a+")};  // sets O_APPEND
    if (!log) return;
    (void)fd.release();  // the stream's from here on
    ::fprintf(log.get(), "%s|%s|%lu\n", first, second, now());
    ++slot.lines;
    log.reset();
    if (slot.lines != lines_per_file) return;
    char aside[sizeof path.text + 32];
    ::snprintf(aside, sizeof aside, "%s_%lu", path.text, now());
    (void)::rename(path.text, aside);  // counted anew even when it stays
    slot.lines = 0;
}
