#include "db/db_util.h"

#include <arpa/inet.h>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

uci_option *uci_find_option(uci_context *ctx, uci_section *section, const char *name) noexcept
{
    if (!ctx || !section || !name)
        return nullptr;
    uci_element *e = nullptr;
    if (uci_lookup_next(ctx, &e, &section->options, name) != UCI_OK || !e)
        return nullptr;
    return uci_to_option(e);
}

const char *uci_option_string(uci_context *ctx, uci_section *section, const char *name) noexcept
{
    uci_option *o = uci_find_option(ctx, section, name);
    if (!o || o->type != UCI_TYPE_STRING)
        return nullptr;
    return o->v.string;
}

uci_section *uci_find_section(uci_context *ctx, uci_package *package, const char *name) noexcept
{
    if (!ctx || !package || !name)
        return nullptr;
    uci_element *e = nullptr;
    if (uci_lookup_next(ctx, &e, &package->sections, name) != UCI_OK || !e)
        return nullptr;
    return uci_to_section(e);
}

int mac_in_list(const uint8_t mac[6], const mac_list *list) noexcept
{
    if (!mac || !list || !list->macs || list->count < 1)
        return 0;
    for (int32_t i = 0; i < list->count; i++) {
        if (std::memcmp(list->macs[i], mac, 6) == 0)
            return 1;
    }
    return 0;
}

int mac_text_to_bytes17(const char *text, uint8_t out[6]) noexcept
{
    if (!text || !out || std::strlen(text) != 17)
        return -1;
    int pairs = 0;
    for (size_t at = 0; pairs < 6; pairs++, at += 3) {
        // Two characters at most, as "%2hhx" on a copy of the pair: the
        // separator between pairs is never looked at.
        char pair[3] = {text[at], text[at + 1], '\0'};
        unsigned char byte = 0;
        if (std::sscanf(pair, "%hhx", &byte) != 1)
            break;
        out[pairs] = byte;
    }
    return pairs;
}

int ipv4_text_to_u32(const char *text, uint32_t *out) noexcept
{
    if (!text || !out)
        return -1;
    struct in_addr a {
    };
    if (inet_pton(AF_INET, text, &a) != 1) {
        *out = 0;
        return 0;
    }
    *out = a.s_addr;
    return 1;
}

int mac_text_is_set(const char *text) noexcept
{
    if (!text || std::strlen(text) != 17 || std::strcmp(text, "00-00-00-00-00-00") == 0)
        return 0;
    if (text[0] == '0' && text[1] == '0')
        return 0;
    return 1;
}

void mac_copy(uint8_t out[6], const uint8_t in[6]) noexcept
{
    std::memcpy(out, in, 6);
}

namespace
{

void copy_word(std::string_view word, char *out, size_t size)
{
    if (!out || size == 0)
        return;
    size_t n = word.size() < size - 1 ? word.size() : size - 1;
    std::memcpy(out, word.data(), n);
    out[n] = '\0';
}

// atoi of at most two characters of `text`.
uint8_t two_digit_value(const char *text)
{
    char part[3] = {};
    std::memcpy(part, text, strnlen(text, 2));
    return static_cast<uint8_t>(std::atoi(part));
}

} // namespace

void split_two_words(std::string_view text, std::string_view delimiters, char *first, size_t first_size,
                     char *second, size_t second_size) noexcept
{
    char *outs[2] = {first, second};
    size_t sizes[2] = {first_size, second_size};
    size_t pos = 0;
    for (int w = 0; w < 2; w++) {
        pos = text.find_first_not_of(delimiters, pos);
        if (pos == std::string_view::npos)
            return;
        size_t end = text.find_first_of(delimiters, pos);
        if (end == std::string_view::npos)
            end = text.size();
        copy_word(text.substr(pos, end - pos), outs[w], sizes[w]);
        pos = end;
    }
}

uint8_t weekdays_to_mask(const char *text) noexcept
{
    static const char *const days[7] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    if (!text)
        return 0;
    uint8_t mask = 0;
    const char *p = text;
    while (*p) {
        while (*p && std::isspace(static_cast<unsigned char>(*p)))
            p++;
        if (!*p)
            break;
        char word[4] = {};
        for (int i = 0; i < 3 && *p; i++)
            word[i] = *p++;
        for (int d = 0; d < 7; d++) {
            if (std::strcmp(word, days[d]) == 0)
                mask |= static_cast<uint8_t>(1u << d);
        }
    }
    return mask;
}

void parse_time_slots(const char *slots, const char *slots_next_day, uint8_t out[4]) noexcept
{
    // The words are "HHMM"; five bytes keep one word and its terminator.
    constexpr size_t WORD = 5;
    out[0] = 0xff;
    out[1] = out[2] = out[3] = 0;
    if (slots) {
        char begin[WORD] = {};
        char end[WORD] = {};
        split_two_words(slots, " \t", begin, WORD, end, WORD);
        if (begin[0] && end[0]) {
            out[0] = two_digit_value(begin);
            out[1] = two_digit_value(begin + 2);
            out[2] = two_digit_value(end);
            out[3] = two_digit_value(end + 2);
        }
    }
    if (slots_next_day) {
        char begin[WORD] = {};
        char end[WORD] = {};
        split_two_words(slots_next_day, " \t", begin, WORD, end, WORD);
        if (end[0]) {
            out[2] = two_digit_value(end);
            out[3] = two_digit_value(end + 2);
        }
    }
}
