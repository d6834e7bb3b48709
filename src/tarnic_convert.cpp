// SPDX-License-Identifier: MIT
// Id/text maps, conversions and shell helpers. Owns nothing and keeps no state: all of it may run
// on any thread.

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "mordel.h"

#define TRACE_SOURCE tarnic_convert
#include "trace.h"

// ---- Id/text maps -------------------------------------------------------------------------------

namespace {

constexpr int end_id = -1;

// The id of the first row whose text passes the test; the closing row's, -1, when none does.
template <typename Test>
int first_id(const txt_map *row, Test test)
{
    while (row->id != end_id && !test(row->text)) ++row;
    return row->id;
}

// Lower case for A to Z alone. tolower would go by the locale: in a Turkish one, I is no capital i.
int fold(unsigned char byte) { return byte >= 'A' && byte <= 'Z' ? byte + ('a' - 'A') : byte; }

}  // namespace

int MapById(const id_map *map, int key)
{
    while (map->id != end_id && map->id != key) ++map;
    return map->value;
}

int MapByEvt(const id_map *map, int key)
{
    while (map->value != -1 && map->value != key) ++map;
    return map->id;
}

const char *TxtMapById(const txt_map *map, int id)
{
    while (map->id != end_id && map->id != id) ++map;
    return map->text;
}

int TxtMapByTxt(const txt_map *map, const char *text)
{
    return first_id(map,
                    [text](const char *row) { return ::strncmp(row, text, ::strlen(row)) == 0; });
}

int TxtMapByTxtNoCase(const txt_map *map, const char *text)
{
    return first_id(map, [text](const char *row) { return strCmpNoCase(row, text) == 0; });
}

int TxtMapByTxtStr(const txt_map *map, const char *text)
{
    return first_id(map, [text](const char *row) { return ::strstr(text, row) != nullptr; });
}

int strCmpNoCase(const char *a, const char *b)
{
    if (a == nullptr || b == nullptr) return (a != nullptr) - (b != nullptr);
    int left = 0;
    int right = 0;
    do {
        left = fold(static_cast<unsigned char>(*a++));
        right = fold(static_cast<unsigned char>(*b++));
    } while (left != 0 && left == right);
    return left - right;
}

// ---- Conversions --------------------------------------------------------------------------------

int ip2string(u32 ip, char *buf, int size)
{
    // The longest address and its NUL take 16 bytes; that 17 are asked for is part of the
    // interface.
    constexpr int least = 17;
    if (size < least) {
        TRACE_FILE("buffer size too small!!\n");
        return 1;
    }
    const auto room = static_cast<size_t>(size);
    ::memset(buf, 0, room);
    ::snprintf(buf, room, "%u.%u.%u.%u", ip >> 24, ip >> 16 & 255, ip >> 8 & 255, ip & 255);
    return 0;
}

int string2ip(const char *text, u32 *ip)
{
    // inet_addr returns INADDR_NONE for this valid address and for an error alike.
    if (::strcmp(text, "255.255.255.255") == 0) {
        *ip = INADDR_NONE;
        return 0;
    }
    *ip = ::inet_addr(text);
    return *ip == INADDR_NONE ? 1 : 0;
}

// Two straight pieces. The jumps from 11 to 28 at -80 dBm and from 92 to 100 at -36 dBm are meant.
int dbm2Rssi(int dbm)
{
    if (dbm >= -36) return 100;
    if (dbm < -91) return 1;
    if (dbm <= -81) return dbm + 92;
    return ((3 * dbm + 276) >> 1) + 10;  // 28 to 92
}

// ---- Shell helpers ------------------------------------------------------------------------------

namespace {

// A formatted command. A command that does not fit is not run at all: cut short, it would be
// another command.
struct command {
    char text[512];
    int length;

    command(const char *format, va_list args) : length(::vsnprintf(text, sizeof text, format, args))
    {}
    bool fits() const { return length >= 0 && static_cast<size_t>(length) < sizeof text; }
};

}  // namespace

int _system(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const command cmd(format, args);
    va_end(args);
    if (cmd.fits()) (void)!::system(cmd.text);  // callers ask for the length, not the status
    return cmd.length;
}

FILE *_system_read(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const command cmd(format, args);
    va_end(args);
    return cmd.fits() ? ::popen(cmd.text, "re") : nullptr;
}

int _system_close(FILE *stream) { return stream == nullptr ? 0 : ::pclose(stream); }
