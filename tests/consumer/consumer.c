/* SPDX-License-Identifier: MIT */
/* One call, from C99. */
#include <mordel.h>

int main(void)
{
    char text[17];
    return ip2string(0xC0A80101, text, sizeof text) == 0 && puts(text) >= 0 ? 0 : 1;
}
