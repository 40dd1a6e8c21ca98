// The text parsers of the policy mirrors with any bytes: day names, time
// slots (one or two options), MAC options and the small helpers. The input
// is cut at its first NUL into the first option and the second.
#include <cstdint>
#include <cstring>
#include <string>

#include "db/db_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string all(reinterpret_cast<const char *>(data), size);
    size_t cut = all.find('\0');
    std::string first = all.substr(0, cut);
    std::string second = cut == std::string::npos ? std::string() : all.substr(cut + 1);
    second = second.substr(0, second.find('\0'));

    (void)weekdays_to_mask(first.c_str());
    uint8_t slots[4];
    parse_time_slots(first.c_str(), second.empty() ? nullptr : second.c_str(), slots);
    uint8_t mac[6] = {};
    (void)mac_text_to_bytes17(first.c_str(), mac);
    (void)mac_text_is_set(first.c_str());
    uint32_t ip = 0;
    (void)ipv4_text_to_u32(first.c_str(), &ip);
    char a[5] = {};
    char b[5] = {};
    split_two_words(first, second.empty() ? std::string_view(" ") : std::string_view(second), a, sizeof(a), b,
                    sizeof(b));
    if (a[4] != '\0' || b[4] != '\0')
        __builtin_trap();
    return 0;
}
