// Bounded text helpers shared by the whole daemon.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

// Copies at most N-1 bytes of src into dst and always terminates it. The
// record fields have fixed sizes that are part of the data model (16-byte
// interface names, 65-byte host names), so truncation is the rule, not an
// error.
template <size_t N> inline void copy_str(char (&dst)[N], std::string_view src) noexcept
{
    static_assert(N > 0);
    size_t n = src.size() < N - 1 ? src.size() : N - 1;
    // An empty view may hold no pointer at all (a JSON null, say), and
    // memcpy must not be given one.
    if (n > 0)
        std::memcpy(dst, src.data(), n);
    dst[n] = '\0';
}

// Same, but keeps at most `limit` characters (the record's own rule, for
// example 15 characters of an interface name), still within the array.
template <size_t N> inline void copy_str(char (&dst)[N], std::string_view src, size_t limit) noexcept
{
    copy_str(dst, src.substr(0, limit < src.size() ? limit : src.size()));
}
