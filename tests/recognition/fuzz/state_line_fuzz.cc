// Lines of a hand-edited delta file: the section-line reader takes any bytes
// and hands out only a 12-character UCI name.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "recognition/fing_state.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    char name[13];
    std::memset(name, 'x', sizeof(name));
    std::string_view line(reinterpret_cast<const char *>(data), size);
    if (fing_state_section_line(line, name)) {
        if (name[12] != '\0' || std::strlen(name) != 12 || !fing_state_name_ok(name))
            abort();
    }
    return 0;
}
