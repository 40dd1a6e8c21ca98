// Helpers shared by the libubox tests: hex pictures of blob buffers.
#pragma once

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libubox/blob.h>
#include <libubox/blobmsg.h>
}

namespace ubox_test {

// "00000010 8300000b" -> bytes; blanks are only for the reader.
inline std::vector<uint8_t> hex(const std::string &text)
{
    std::vector<uint8_t> out;
    std::string digits;
    for (char c : text) {
        if (std::isxdigit(static_cast<unsigned char>(c)))
            digits += c;
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return out;
}

// The padded bytes of one attribute.
inline std::vector<uint8_t> bytes(const blob_attr *attr)
{
    const auto *p = reinterpret_cast<const uint8_t *>(attr);
    return std::vector<uint8_t>(p, p + blob_pad_len(attr));
}

// Hex words, for readable failure messages.
inline std::string to_hex(const std::vector<uint8_t> &v)
{
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < v.size(); i++) {
        if (i && i % 4 == 0)
            s += ' ';
        s += digits[v[i] >> 4];
        s += digits[v[i] & 15];
    }
    return s;
}

// A zeroed blob_buf that frees itself.
struct Buf {
    blob_buf b{};
    Buf() = default;
    Buf(const Buf &) = delete;
    Buf &operator=(const Buf &) = delete;
    ~Buf() { blob_buf_free(&b); }
    blob_buf *get() { return &b; }
    blob_attr *head() const { return b.head; }
};

struct FreeDeleter {
    void operator()(void *p) const { std::free(p); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

// Copies raw bytes into 4-byte aligned storage.
struct Raw {
    std::vector<uint32_t> words;
    size_t size;
    explicit Raw(const std::vector<uint8_t> &v) : words((v.size() + 3) / 4 + 1), size(v.size())
    {
        std::memcpy(words.data(), v.data(), v.size());
    }
    void *data() { return words.data(); }
    blob_attr *attr() { return reinterpret_cast<blob_attr *>(words.data()); }
};

}  // namespace ubox_test

#define EXPECT_BYTES(attr, text) \
    EXPECT_EQ(ubox_test::to_hex(ubox_test::bytes(attr)), ubox_test::to_hex(ubox_test::hex(text)))
