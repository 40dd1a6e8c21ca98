#include "bus/mac_text.h"

#include <cstring>

namespace
{

int hex_digit(char c) noexcept
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

int mac_text_valid(const char *text) noexcept
{
    if (!text)
        return -1;
    size_t len = std::strlen(text);
    if (len == 12) {
        for (size_t i = 0; i < 12; ++i)
            if (hex_digit(text[i]) < 0)
                return -1;
        return 0;
    }
    if (len != 17)
        return -1;
    for (size_t i = 0; i < 17; ++i) {
        bool ok = i % 3 == 2 ? (text[i] == '-' || text[i] == ':') : hex_digit(text[i]) >= 0;
        if (!ok)
            return -1;
    }
    return 0;
}

int mac_text_to_bytes(const char *text, uint8_t out[6]) noexcept
{
    if (!text)
        return -1;
    const char *p = text;
    for (int i = 0; i < 6; ++i) {
        if (*p == ':' || *p == '-')
            ++p;
        int hi = hex_digit(p[0]);
        if (hi < 0)
            return -1;
        int lo = hex_digit(p[1]);
        if (lo < 0)
            return -1;
        out[i] = static_cast<uint8_t>(hi << 4 | lo);
        p += 2;
    }
    return 0;
}

int macstr2num(const char *text, uint8_t out[6], const char *separator) noexcept
{
    if (!text || !out)
        return -1;
    const char *p = text;
    for (int i = 0; i < 6; ++i) {
        if (separator && *p == *separator)
            ++p;
        int hi = hex_digit(p[0]);
        if (hi < 0)
            return -1;
        char c = p[1];
        if (c == '\0')
            return -1; // a pair cut by the end: nothing beyond it is read
        int lo;
        if (c >= '0' && c <= '9')
            lo = c - '0';
        else if (c >= 'a' && c <= 'f')
            lo = c - 'a' + 10;
        else
            lo = c - 'A' + 10;
        out[i] = static_cast<uint8_t>(hi << 4 | lo);
        p += 2;
    }
    return 0;
}
