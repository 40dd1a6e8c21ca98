// Feeds arbitrary bytes to the broker as the input of two clients: the
// first byte of each chunk picks the client and the chunk length. The
// broker must never crash, and a doomed client must not harm the other.
#include "broker.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	ubusd::Limits lim;
	lim.max_out_bytes = 1u << 16;
	lim.sequential_ids = true;  // clients 1024 and 1025, then objects and types
	ubusd::Broker br(lim, 1);
	uint32_t ids[2] = {br.add_client("root", "root"), br.add_client("user", "users")};
	size_t off = 0;
	while (off < size) {
		uint8_t ctl = data[off++];
		size_t len = ctl & 0x7f;
		if (len > size - off)
			len = size - off;
		uint32_t id = ids[ctl >> 7];
		if (br.client(id))
			br.on_input(id, {data + off, len});
		off += len;
		for (uint32_t d : br.take_doomed())
			br.remove_client(d);
		for (uint32_t c : br.take_dirty())
			if (ubusd::Client *cl = br.client(c)) {
				cl->out.clear();
				cl->out_bytes = 0;
			}
	}
	return 0;
}
