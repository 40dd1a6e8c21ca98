/*
 * blob.c - building and reading blob attributes in a growable buffer.
 *
 * Nesting cookies are byte offsets of the parent head (plus BLOB_COOKIE, so
 * that a nest opened right under the root is not NULL): they stay valid
 * when the buffer moves on growth, where pointers do not.
 */
#include <libubox/blob.h>

#define BLOB_GROW_STEP 256

static bool
blob_buffer_grow(struct blob_buf *buf, int minlen)
{
	int delta = ((minlen / BLOB_GROW_STEP) + 1) * BLOB_GROW_STEP;
	void *mem;

	if (minlen < 0 || delta > BLOB_ATTR_LEN_MASK - buf->buflen)
		return false;

	mem = realloc(buf->buf, (size_t) buf->buflen + (size_t) delta);
	if (!mem)
		return false;

	buf->buf = mem;
	memset((char *) buf->buf + buf->buflen, 0, (size_t) delta);
	buf->buflen += delta;
	return true;
}

static void
blob_init(struct blob_attr *attr, int id, unsigned int len)
{
	len &= BLOB_ATTR_LEN_MASK;
	len |= ((unsigned int) id << BLOB_ATTR_ID_SHIFT) & BLOB_ATTR_ID_MASK;
	attr->id_len = cpu_to_be32(len);
}

static size_t
attr_offset(const struct blob_buf *buf, const struct blob_attr *attr)
{
	return (size_t) ((const char *) attr - (const char *) buf->buf);
}

static struct blob_attr *
offset_attr(const struct blob_buf *buf, size_t offset)
{
	return (struct blob_attr *) ((char *) buf->buf + offset);
}

bool
blob_buf_grow(struct blob_buf *buf, int required)
{
	size_t head = buf->head ? attr_offset(buf, buf->head) : 0;

	if (required <= 0)
		return true;
	if ((long) buf->buflen + required > BLOB_ATTR_LEN_MASK)
		return false;
	if (!buf->grow || !buf->grow(buf, required))
		return false;

	buf->head = offset_attr(buf, head);
	return true;
}

/* Places a new attribute at offset; the caller links it into its parent. */
static struct blob_attr *
blob_add(struct blob_buf *buf, size_t offset, int id, int payload)
{
	struct blob_attr *attr;
	size_t end;

	if (payload < 0 || payload > BLOB_ATTR_LEN_MASK)
		return NULL;

	end = offset + sizeof(struct blob_attr) + (size_t) payload;
	end = (end + BLOB_ATTR_ALIGN - 1) & ~(size_t) (BLOB_ATTR_ALIGN - 1);
	if (end > BLOB_ATTR_LEN_MASK)
		return NULL;
	if (end > (size_t) buf->buflen &&
	    !blob_buf_grow(buf, (int) (end - (size_t) buf->buflen)))
		return NULL;

	attr = offset_attr(buf, offset);
	blob_init(attr, id, (unsigned int) payload + sizeof(struct blob_attr));
	blob_fill_pad(attr);
	return attr;
}

int
blob_buf_init(struct blob_buf *buf, int id)
{
	if (!buf->grow)
		buf->grow = blob_buffer_grow;

	buf->head = buf->buf;
	if (!blob_add(buf, 0, id, 0))
		return -ENOMEM;

	return 0;
}

void
blob_buf_free(struct blob_buf *buf)
{
	free(buf->buf);
	buf->buf = NULL;
	buf->head = NULL;
	buf->buflen = 0;
}

void
blob_fill_pad(struct blob_attr *attr)
{
	char *bytes = (char *) attr;
	size_t len = blob_pad_len(attr);
	size_t raw = blob_raw_len(attr);

	if (len > raw)
		memset(bytes + raw, 0, len - raw);
}

void
blob_set_raw_len(struct blob_attr *attr, unsigned int len)
{
	uint32_t word = be32_to_cpu(attr->id_len);

	word &= ~(uint32_t) BLOB_ATTR_LEN_MASK;
	word |= len & BLOB_ATTR_LEN_MASK;
	attr->id_len = cpu_to_be32(word);
}

struct blob_attr *
blob_new(struct blob_buf *buf, int id, int payload)
{
	struct blob_attr *attr;

	if (!buf->head)
		return NULL;

	attr = blob_add(buf, attr_offset(buf, blob_next(buf->head)), id, payload);
	if (!attr)
		return NULL;

	blob_set_raw_len(buf->head, blob_pad_len(buf->head) + blob_pad_len(attr));
	return attr;
}

struct blob_attr *
blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len)
{
	struct blob_attr *attr;

	if (len < sizeof(struct blob_attr) || !ptr)
		return NULL;

	attr = blob_new(buf, 0, (int) (len - sizeof(struct blob_attr)));
	if (!attr)
		return NULL;

	memcpy(attr, ptr, len);
	return attr;
}

struct blob_attr *
blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len)
{
	struct blob_attr *attr;

	if (len > BLOB_ATTR_LEN_MASK)
		return NULL;

	attr = blob_new(buf, id, (int) len);
	if (!attr)
		return NULL;

	if (ptr && len)
		memcpy(blob_data(attr), ptr, len);
	return attr;
}

void *
blob_nest_start(struct blob_buf *buf, int id)
{
	size_t parent;
	struct blob_attr *head;

	if (!buf->head)
		return NULL;

	parent = attr_offset(buf, buf->head);
	head = blob_new(buf, id, 0);
	if (!head)
		return NULL;

	buf->head = head;
	return (void *) (uintptr_t) (parent + BLOB_COOKIE);
}

void
blob_nest_end(struct blob_buf *buf, void *cookie)
{
	struct blob_attr *parent;
	size_t end;

	if (!cookie || !buf->head)
		return;

	/* The open nest is always its parent's last child: the parent now ends where it ends. */
	parent = offset_attr(buf, (uintptr_t) cookie - BLOB_COOKIE);
	end = attr_offset(buf, blob_next(buf->head));
	blob_set_raw_len(parent, (unsigned int) (end - attr_offset(buf, parent)));
	buf->head = parent;
}

static const size_t blob_type_minlen[BLOB_ATTR_LAST] = {
	[BLOB_ATTR_STRING] = 1,
	[BLOB_ATTR_INT8] = sizeof(uint8_t),
	[BLOB_ATTR_INT16] = sizeof(uint16_t),
	[BLOB_ATTR_INT32] = sizeof(uint32_t),
	[BLOB_ATTR_INT64] = sizeof(uint64_t),
	[BLOB_ATTR_DOUBLE] = sizeof(double),
};

bool
blob_check_type(const void *ptr, unsigned int len, int type)
{
	const char *data = ptr;

	if (type < 0 || type >= BLOB_ATTR_LAST)
		return true;

	switch (type) {
	case BLOB_ATTR_INT8:
	case BLOB_ATTR_INT16:
	case BLOB_ATTR_INT32:
	case BLOB_ATTR_INT64:
		return len == blob_type_minlen[type];
	case BLOB_ATTR_STRING:
		return len >= 1 && data[len - 1] == 0;
	case BLOB_ATTR_DOUBLE:
		return len >= blob_type_minlen[type];
	default:
		return true;
	}
}

static bool
blob_check_attr(const struct blob_attr *attr, const struct blob_attr_info *info)
{
	const struct blob_attr_info *cur;
	size_t len = blob_len(attr);

	if (!info)
		return true;

	cur = &info[blob_id(attr)];
	/* info->type says how to check the payload; it need not equal the id */
	if (cur->type != BLOB_ATTR_UNSPEC &&
	    !blob_check_type(blob_data(attr), (unsigned int) len, (int) cur->type))
		return false;
	if (cur->minlen && len < cur->minlen)
		return false;
	if (cur->maxlen && len > cur->maxlen)
		return false;
	if (cur->validate && !cur->validate(cur, (struct blob_attr *) attr))
		return false;

	return true;
}

static int
blob_parse_children(struct blob_attr *first, size_t rem, struct blob_attr **data,
		    const struct blob_attr_info *info, int max)
{
	struct blob_attr *pos;
	int found = 0;

	__blob_for_each_attr(pos, first, rem) {
		unsigned int id = blob_id(pos);

		if (id >= (unsigned int) max || !blob_check_attr(pos, info))
			continue;
		if (!data[id])
			found++;
		data[id] = pos;
	}
	return found;
}

int
blob_parse(struct blob_attr *attr, struct blob_attr **data,
	   const struct blob_attr_info *info, int max)
{
	if (max <= 0)
		return 0;
	memset(data, 0, sizeof(*data) * (size_t) max);
	if (!attr || blob_raw_len(attr) < sizeof(struct blob_attr))
		return 0;

	return blob_parse_children(blob_data(attr), blob_len(attr), data, info, max);
}

int
blob_parse_untrusted(struct blob_attr *attr, size_t attr_len, struct blob_attr **data,
		     const struct blob_attr_info *info, int max)
{
	size_t len;

	if (max <= 0)
		return 0;
	memset(data, 0, sizeof(*data) * (size_t) max);
	if (!attr || attr_len < sizeof(struct blob_attr))
		return 0;

	len = blob_raw_len(attr);
	if (len < sizeof(struct blob_attr) || len > attr_len)
		return 0;

	return blob_parse_children(blob_data(attr), len - sizeof(struct blob_attr),
				   data, info, max);
}

struct blob_attr *
blob_memdup(const struct blob_attr *attr)
{
	size_t size = blob_pad_len(attr);
	struct blob_attr *copy = malloc(size);

	if (!copy)
		return NULL;

	memcpy(copy, attr, size);
	return copy;
}

bool
blob_attr_equal(const struct blob_attr *a1, const struct blob_attr *a2)
{
	if (!a1 && !a2)
		return true;
	if (!a1 || !a2)
		return false;
	if (blob_pad_len(a1) != blob_pad_len(a2))
		return false;

	return !memcmp(a1, a2, blob_pad_len(a1));
}
