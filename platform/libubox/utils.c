/*
 * utils.c - one-allocation structs and base64.
 */
#include <libubox/utils.h>

/* Each piece starts on this boundary, so any member type fits. */
#define CALLOC_A_ALIGN 16

static size_t
calloc_a_round(size_t len)
{
	return (len + CALLOC_A_ALIGN - 1) & ~(size_t) (CALLOC_A_ALIGN - 1);
}

void *
__calloc_a(size_t len, ...)
{
	va_list ap, ap1;
	size_t total = calloc_a_round(len);
	void **addr;
	char *block, *cur;

	va_start(ap, len);
	va_copy(ap1, ap);
	while ((addr = va_arg(ap, void **)) != NULL) {
		size_t piece = va_arg(ap, size_t);
		total += calloc_a_round(piece);
	}
	va_end(ap);

	block = calloc(1, total);
	if (!block) {
		va_end(ap1);
		return NULL;
	}

	cur = block + calloc_a_round(len);
	while ((addr = va_arg(ap1, void **)) != NULL) {
		size_t piece = va_arg(ap1, size_t);
		*addr = cur;
		cur += calloc_a_round(piece);
	}
	va_end(ap1);

	return block;
}

static const char b64_alphabet[] =
	"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int
b64_encode(const void *src, size_t src_len, void *dest, size_t dest_len)
{
	const unsigned char *in = src;
	char *out = dest;
	size_t i, o = 0;

	if (dest_len < B64_ENCODE_LEN(src_len))
		return -1;

	for (i = 0; i + 2 < src_len; i += 3) {
		unsigned int v = (unsigned int) in[i] << 16 | (unsigned int) in[i + 1] << 8 | in[i + 2];
		out[o++] = b64_alphabet[(v >> 18) & 63];
		out[o++] = b64_alphabet[(v >> 12) & 63];
		out[o++] = b64_alphabet[(v >> 6) & 63];
		out[o++] = b64_alphabet[v & 63];
	}
	if (i < src_len) {
		unsigned int v = (unsigned int) in[i] << 16;
		if (i + 1 < src_len)
			v |= (unsigned int) in[i + 1] << 8;
		out[o++] = b64_alphabet[(v >> 18) & 63];
		out[o++] = b64_alphabet[(v >> 12) & 63];
		out[o++] = i + 1 < src_len ? b64_alphabet[(v >> 6) & 63] : '=';
		out[o++] = '=';
	}
	out[o] = 0;
	return (int) o;
}

static int
b64_value(unsigned char c)
{
	const char *p;

	if (!c)
		return -1;
	p = strchr(b64_alphabet, c);
	return p ? (int) (p - b64_alphabet) : -1;
}

int
b64_decode(const void *src, void *dest, size_t dest_len)
{
	const unsigned char *in = src;
	unsigned char *out = dest;
	size_t len = strlen(src), i, o = 0;

	if (len % 4)
		return -1;

	for (i = 0; i < len; i += 4) {
		int v[4], pad = 0, k;
		unsigned int bits = 0;

		for (k = 0; k < 4; k++) {
			if (in[i + k] == '=' && i + 4 == len && k >= 2) {
				v[k] = 0;
				pad++;
			} else if (pad || (v[k] = b64_value(in[i + k])) < 0) {
				return -1;
			}
			bits = bits << 6 | (unsigned int) v[k];
		}
		if (o + 3 - (size_t) pad + 1 > dest_len)
			return -1;
		out[o++] = (unsigned char) (bits >> 16);
		if (pad < 2)
			out[o++] = (unsigned char) (bits >> 8);
		if (pad < 1)
			out[o++] = (unsigned char) bits;
	}
	if (o + 1 > dest_len)
		return -1;
	out[o] = 0;
	return (int) o;
}
