// Named log files with rotation. One table for the process; no lock, callers serialise. Nothing is
// traced.

#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>

#include "guards.h"
#include "mordel.h"

constinit log_entry logList[8] = {};
constinit u8 isInit = 0;

namespace {

constexpr int slot_free = -1;
constexpr int slot_used = 1;
constexpr u16 lines_per_file = 128;

// The file of a log. A path that the system would refuse as too long is empty, which it refuses
// too: never another file's.
struct log_path {
    char text[PATH_MAX];

    // Of a slot; its fields end where they end, NUL or none.
    explicit log_path(const log_entry &slot)
        : log_path(slot.dir, sizeof slot.dir, slot.file, sizeof slot.file)
    {}
    log_path(const char *dir, int dir_most, const char *file, int file_most)
    {
        const int length =
            ::snprintf(text, sizeof text, "%.*s/%.*s", dir_most, dir, file_most, file);
        if (static_cast<size_t>(length) >= sizeof text) text[0] = '\0';
    }
};

unsigned long now() { return static_cast<unsigned long>(::time(nullptr)); }

// Without a NUL of its own: initLogSys has zeroed the slot.
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
    // Neither kept nor closed, on purpose: the stream stays open for good.
    if (::fopen(log_path(dir, INT_MAX, file, INT_MAX).text, "w+e") == nullptr) return -2;
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
    const log_path path(slot);
    mordel::stream_guard log{::fopen(path.text, "a+e")};
    if (!log) return;
    ::fprintf(log.get(), "%s|%s|%lu\n", first, second, now());
    ++slot.lines;
    log.reset();
    if (slot.lines != lines_per_file) return;
    char aside[sizeof path.text + 32];
    ::snprintf(aside, sizeof aside, "%s_%lu", path.text, now());
    (void)::rename(path.text, aside);  // counted anew even when it stays
    slot.lines = 0;
}
