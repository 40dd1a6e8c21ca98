/*
 * blobmsg.c - building, validating and parsing named blob messages.
 */
#include <libubox/blobmsg.h>

#include <stdio.h>

/* The size each fixed-size blobmsg type must have; 0 = no fixed size. */
static size_t
blobmsg_fixed_len(int type)
{
	switch (type) {
	case BLOBMSG_TYPE_INT8:
		return 1;
	case BLOBMSG_TYPE_INT16:
		return 2;
	case BLOBMSG_TYPE_INT32:
		return 4;
	case BLOBMSG_TYPE_INT64:
		return 8;
	default:
		return 0;
	}
}

static bool
blobmsg_check_value(int type, const char *data, size_t len)
{
	switch (type) {
	case BLOBMSG_TYPE_INT8:
	case BLOBMSG_TYPE_INT16:
	case BLOBMSG_TYPE_INT32:
	case BLOBMSG_TYPE_INT64:
		return len == blobmsg_fixed_len(type);
	case BLOBMSG_TYPE_DOUBLE:
		return len >= 8;
	case BLOBMSG_TYPE_STRING:
		return len >= 1 && data[len - 1] == 0;
	default:
		/* UNSPEC holds anything; tables and arrays are not looked into */
		return true;
	}
}

static bool
blobmsg_check_name(const struct blob_attr *attr, bool name)
{
	const struct blobmsg_hdr *hdr;
	size_t namelen;

	if (!blob_is_extended(attr))
		return !name;

	if (blob_len(attr) < sizeof(struct blobmsg_hdr))
		return false;

	hdr = (const struct blobmsg_hdr *) blob_data(attr);
	namelen = blobmsg_namelen(hdr);
	if (name && !namelen)
		return false;
	if ((size_t) blobmsg_hdrlen((unsigned int) namelen) > blob_len(attr))
		return false;

	return hdr->name[namelen] == 0;
}

bool
blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len)
{
	size_t raw;

	if (!attr || len < sizeof(struct blob_attr))
		return false;

	raw = blob_raw_len(attr);
	if (raw < sizeof(struct blob_attr) || raw > len)
		return false;

	if (!blobmsg_check_name(attr, name))
		return false;

	if (blob_id(attr) > BLOBMSG_TYPE_LAST)
		return false;

	return blobmsg_check_value(blob_id(attr), blobmsg_data(attr), blobmsg_data_len(attr));
}

bool
blobmsg_check_attr(const struct blob_attr *attr, bool name)
{
	if (!attr)
		return false;

	return blobmsg_check_attr_len(attr, name, blob_raw_len(attr));
}

int
blobmsg_check_array_len(const struct blob_attr *attr, int type, size_t len)
{
	struct blob_attr *cur;
	size_t rem;
	bool name;
	int count = 0;

	if (type < 0 || type > BLOBMSG_TYPE_LAST)
		return -1;
	if (!blobmsg_check_attr_len(attr, false, len))
		return -1;

	switch (blobmsg_type(attr)) {
	case BLOBMSG_TYPE_TABLE:
		name = true;
		break;
	case BLOBMSG_TYPE_ARRAY:
		name = false;
		break;
	default:
		return -1;
	}

	blobmsg_for_each_attr(cur, attr, rem) {
		if (type != BLOBMSG_TYPE_UNSPEC && blobmsg_type(cur) != type)
			return -1;
		if (!blobmsg_check_attr_len(cur, name, rem))
			return -1;
		count++;
	}

	return count;
}

int
blobmsg_check_array(const struct blob_attr *attr, int type)
{
	if (!attr)
		return -1;

	return blobmsg_check_array_len(attr, type, blob_raw_len(attr));
}

bool
blobmsg_check_attr_list_len(const struct blob_attr *attr, int type, size_t len)
{
	return blobmsg_check_array_len(attr, type, len) >= 0;
}

bool
blobmsg_check_attr_list(const struct blob_attr *attr, int type)
{
	return blobmsg_check_array(attr, type) >= 0;
}

static bool
blobmsg_type_matches(enum blobmsg_type want, int have)
{
	if (want == BLOBMSG_TYPE_UNSPEC)
		return true;

	if (want == BLOBMSG_CAST_INT64)
		return have == BLOBMSG_TYPE_INT64 || have == BLOBMSG_TYPE_INT32 ||
		       have == BLOBMSG_TYPE_INT16 || have == BLOBMSG_TYPE_INT8;

	return (int) want == have;
}

/* Fills every policy slot named like attr that is still free and accepts its type. */
static void
blobmsg_parse_one(const struct blobmsg_policy *policy, int policy_len,
		  struct blob_attr **tb, struct blob_attr *attr)
{
	const struct blobmsg_hdr *hdr = (const struct blobmsg_hdr *) blob_data(attr);
	size_t namelen = blobmsg_namelen(hdr);
	int i;

	for (i = 0; i < policy_len; i++) {
		if (!policy[i].name || tb[i])
			continue;
		if (!blobmsg_type_matches(policy[i].type, blob_id(attr)))
			continue;
		if (strlen(policy[i].name) != namelen ||
		    memcmp(policy[i].name, hdr->name, namelen) != 0)
			continue;

		tb[i] = attr;
	}
}

int
blobmsg_parse(const struct blobmsg_policy *policy, int policy_len,
	      struct blob_attr **tb, void *data, unsigned int len)
{
	struct blob_attr *attr;
	size_t rem = len;

	if (policy_len > 0)
		memset(tb, 0, (size_t) policy_len * sizeof(*tb));
	else
		policy_len = 0;

	if (!data || !len)
		return -EINVAL;

	__blob_for_each_attr(attr, data, rem) {
		if (!blobmsg_check_attr_len(attr, false, rem))
			return -1;
		if (!blob_is_extended(attr))
			continue;

		blobmsg_parse_one(policy, policy_len, tb, attr);
	}

	return 0;
}

int
blobmsg_parse_array(const struct blobmsg_policy *policy, int policy_len,
		    struct blob_attr **tb, void *data, unsigned int len)
{
	struct blob_attr *attr;
	size_t rem = len;
	int i = 0;

	if (policy_len > 0)
		memset(tb, 0, (size_t) policy_len * sizeof(*tb));
	else
		policy_len = 0;

	if (!data)
		return 0;

	__blob_for_each_attr(attr, data, rem) {
		if (i >= policy_len)
			break;
		if (!blobmsg_check_attr_len(attr, false, rem))
			return -1;
		/* a mismatch leaves this position for the next element */
		if (!blobmsg_type_matches(policy[i].type, blob_id(attr)))
			continue;

		tb[i++] = attr;
	}

	return 0;
}

/* Appends an extended element with room for payload_len value bytes. */
static struct blob_attr *
blobmsg_new(struct blob_buf *buf, int type, const char *name, int payload_len, void **data)
{
	struct blob_attr *attr;
	struct blobmsg_hdr *hdr;
	size_t namelen;
	int hdrlen;

	if (!name)
		name = "";
	namelen = strlen(name);
	if (namelen > 0xffff || payload_len < 0)
		return NULL;

	hdrlen = blobmsg_hdrlen((unsigned int) namelen);
	if (payload_len > BLOB_ATTR_LEN_MASK - hdrlen)
		return NULL;

	attr = blob_new(buf, type, payload_len + hdrlen);
	if (!attr)
		return NULL;

	attr->id_len |= cpu_to_be32(BLOB_ATTR_EXTENDED);
	hdr = (struct blobmsg_hdr *) blob_data(attr);
	hdr->namelen = cpu_to_be16((uint16_t) namelen);
	/* name, NUL and the padding of the name header */
	memset(hdr->name, 0, (size_t) hdrlen - sizeof(struct blobmsg_hdr));
	memcpy(hdr->name, name, namelen);

	if (data)
		*data = blobmsg_data(attr);

	return attr;
}

int
blobmsg_add_field(struct blob_buf *buf, int type, const char *name,
		  const void *data, unsigned int len)
{
	struct blob_attr *attr;
	void *dest;

	if (len > BLOB_ATTR_LEN_MASK)
		return -1;

	attr = blobmsg_new(buf, type, name, (int) len, &dest);
	if (!attr)
		return -1;

	if (len > 0 && data)
		memcpy(dest, data, len);

	return 0;
}

void *
blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array)
{
	struct blob_attr *head;
	size_t parent;

	if (!buf->head)
		return NULL;

	parent = (size_t) ((char *) buf->head - (char *) buf->buf);
	head = blobmsg_new(buf, array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE,
			   name, 0, NULL);
	if (!head)
		return NULL;

	buf->head = head;
	return (void *) (uintptr_t) (parent + BLOB_COOKIE);
}

/* The element being built in place sits right after the current head's extent. */
static struct blob_attr *
blobmsg_pending_string(struct blob_buf *buf)
{
	return blob_next(buf->head);
}

void *
blobmsg_alloc_string_buffer(struct blob_buf *buf, const char *name, unsigned int maxlen)
{
	struct blob_attr *attr;
	void *data;

	if (maxlen > BLOB_ATTR_LEN_MASK)
		return NULL;

	attr = blobmsg_new(buf, BLOBMSG_TYPE_STRING, name, (int) maxlen, &data);
	if (!attr)
		return NULL;

	/* reserved, not yet part of the message: blobmsg_add_string_buffer commits it */
	blob_set_raw_len(buf->head, blob_pad_len(buf->head) - blob_pad_len(attr));
	blob_set_raw_len(attr, blob_raw_len(attr) - maxlen);

	return data;
}

void *
blobmsg_realloc_string_buffer(struct blob_buf *buf, unsigned int maxlen)
{
	struct blob_attr *attr = blobmsg_pending_string(buf);
	size_t data_off = (size_t) ((char *) blobmsg_data(attr) - (char *) buf->buf);
	size_t need = data_off + maxlen;

	if (maxlen > BLOB_ATTR_LEN_MASK)
		return NULL;

	if (need > (size_t) buf->buflen) {
		if (!blob_buf_grow(buf, (int) (need - (size_t) buf->buflen)))
			return NULL;
		attr = blobmsg_pending_string(buf);
	}

	return blobmsg_data(attr);
}

void
blobmsg_add_string_buffer(struct blob_buf *buf)
{
	struct blob_attr *attr = blobmsg_pending_string(buf);
	size_t len = strlen(blobmsg_data(attr)) + 1;

	blob_set_raw_len(attr, (unsigned int) (blob_raw_len(attr) + len));
	blob_fill_pad(attr);
	blob_set_raw_len(buf->head, blob_raw_len(buf->head) + blob_pad_len(attr));
}

/* The format comes from our caller, who is checked through blobmsg_printf. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
int
blobmsg_vprintf(struct blob_buf *buf, const char *name, const char *format, va_list arg)
{
	va_list arg2;
	char probe;
	char *sbuf;
	int len, ret;

	va_copy(arg2, arg);
	len = vsnprintf(&probe, sizeof(probe), format, arg2);
	va_end(arg2);
	if (len < 0)
		return -1;

	sbuf = blobmsg_alloc_string_buffer(buf, name, (unsigned int) len + 1);
	if (!sbuf)
		return -1;

	ret = vsnprintf(sbuf, (size_t) len + 1, format, arg);
	if (ret < 0)
		return -1;

	blobmsg_add_string_buffer(buf);
	return ret;
}
#pragma GCC diagnostic pop

int
blobmsg_printf(struct blob_buf *buf, const char *name, const char *format, ...)
{
	va_list ap;
	int ret;

	va_start(ap, format);
	ret = blobmsg_vprintf(buf, name, format, ap);
	va_end(ap);

	return ret;
}
