/*
 * blobmsg_json.c - JSON text from blobmsg elements, and blobmsg elements
 * from json-c objects.
 */
#include <libubox/blobmsg_json.h>

#include <float.h>
#include <inttypes.h>
#include <json-c/json.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Deeper indentation is written with this many tabs. */
#define JSON_MAX_TABS 16

/* ---- JSON to blobmsg -------------------------------------------------- */

static bool blobmsg_add_array(struct blob_buf *b, struct json_object *obj);

static bool
blobmsg_add_json_int(struct blob_buf *b, const char *name, struct json_object *obj)
{
	/* json-c clamps values beyond 64 bits to the INT64 limits */
	int64_t v = json_object_get_int64(obj);

	if (v >= INT32_MIN && v <= INT32_MAX)
		return blobmsg_add_u32(b, name, (uint32_t) (int32_t) v) == 0;
	return blobmsg_add_u64(b, name, (uint64_t) v) == 0;
}

static bool
blobmsg_add_json_nested(struct blob_buf *b, const char *name, struct json_object *obj,
			bool array)
{
	void *c = blobmsg_open_nested(b, name, array);
	bool ok;

	if (!c)
		return false;
	ok = array ? blobmsg_add_array(b, obj) : blobmsg_add_object(b, obj);
	blob_nest_end(b, c);
	return ok;
}

bool
blobmsg_add_json_element(struct blob_buf *b, const char *name, struct json_object *obj)
{
	switch (json_object_get_type(obj)) {
	case json_type_object:
		return blobmsg_add_json_nested(b, name, obj, false);
	case json_type_array:
		return blobmsg_add_json_nested(b, name, obj, true);
	case json_type_string:
		/* strlen: an embedded \u0000 ends the string */
		return blobmsg_add_string(b, name, json_object_get_string(obj)) == 0;
	case json_type_boolean:
		return blobmsg_add_u8(b, name, json_object_get_boolean(obj) ? 1 : 0) == 0;
	case json_type_int:
		return blobmsg_add_json_int(b, name, obj);
	case json_type_double:
		return blobmsg_add_double(b, name, json_object_get_double(obj)) == 0;
	case json_type_null:
	default:
		return blobmsg_add_field(b, BLOBMSG_TYPE_UNSPEC, name, NULL, 0) == 0;
	}
}

static bool
blobmsg_add_array(struct blob_buf *b, struct json_object *obj)
{
	size_t i, len = json_object_array_length(obj);

	for (i = 0; i < len; i++) {
		if (!blobmsg_add_json_element(b, NULL, json_object_array_get_idx(obj, i)))
			return false;
	}
	return true;
}

bool
blobmsg_add_object(struct blob_buf *b, struct json_object *obj)
{
	struct json_object_iterator it, end;

	if (!json_object_is_type(obj, json_type_object))
		return false;

	it = json_object_iter_begin(obj);
	end = json_object_iter_end(obj);
	for (; !json_object_iter_equal(&it, &end); json_object_iter_next(&it)) {
		if (!blobmsg_add_json_element(b, json_object_iter_peek_name(&it),
					      json_object_iter_peek_value(&it)))
			return false;
	}
	return true;
}

static bool
blobmsg_add_json_toplevel(struct blob_buf *b, struct json_object *obj)
{
	bool ok = false;

	if (!obj)
		return false;
	/* only an object has members to append; arrays and scalars are refused */
	if (json_object_is_type(obj, json_type_object))
		ok = blobmsg_add_object(b, obj);
	json_object_put(obj);
	return ok;
}

bool
blobmsg_add_json_from_string(struct blob_buf *b, const char *str)
{
	if (!str)
		return false;
	return blobmsg_add_json_toplevel(b, json_tokener_parse(str));
}

bool
blobmsg_add_json_from_file(struct blob_buf *b, const char *file)
{
	if (!file)
		return false;
	return blobmsg_add_json_toplevel(b, json_object_from_file(file));
}

/* ---- blobmsg to JSON text --------------------------------------------- */

struct strbuf {
	char *buf;
	size_t len;
	size_t size;
	bool failed;

	/* indentation: off when < 0, else the current level */
	bool indent;
	int level;

	blobmsg_json_format_t cb;
	void *priv;
};

static void
sb_put(struct strbuf *s, const char *str, size_t len)
{
	if (s->failed)
		return;

	if (s->len + len + 1 > s->size) {
		size_t size = s->size ? s->size : 256;
		char *mem;

		while (s->len + len + 1 > size)
			size *= 2;
		mem = realloc(s->buf, size);
		if (!mem) {
			s->failed = true;
			return;
		}
		s->buf = mem;
		s->size = size;
	}
	memcpy(s->buf + s->len, str, len);
	s->len += len;
	s->buf[s->len] = 0;
}

static void
sb_puts(struct strbuf *s, const char *str)
{
	sb_put(s, str, strlen(str));
}

static void
sb_newline(struct strbuf *s)
{
	static const char tabs[JSON_MAX_TABS + 1] = "\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t";
	int n = s->level;

	if (!s->indent)
		return;
	if (n > JSON_MAX_TABS)
		n = JSON_MAX_TABS;
	sb_put(s, "\n", 1);
	if (n > 0)
		sb_put(s, tabs, (size_t) n);
}

static void
sb_put_string(struct strbuf *s, const char *str)
{
	const unsigned char *p;
	const char *run = str;

	sb_put(s, "\"", 1);
	for (p = (const unsigned char *) str; *p; p++) {
		char esc[8];
		const char *rep = NULL;

		switch (*p) {
		case '"': rep = "\\\""; break;
		case '\\': rep = "\\\\"; break;
		case '\b': rep = "\\b"; break;
		case '\n': rep = "\\n"; break;
		case '\t': rep = "\\t"; break;
		case '\r': rep = "\\r"; break;
		default:
			if (*p < 0x20) {
				snprintf(esc, sizeof(esc), "\\u%04x", *p);
				rep = esc;
			}
			break;
		}
		if (!rep)
			continue;
		sb_put(s, run, (size_t) ((const char *) p - run));
		sb_puts(s, rep);
		run = (const char *) p + 1;
	}
	sb_put(s, run, (size_t) ((const char *) p - run));
	sb_put(s, "\"", 1);
}

static void format_element(struct strbuf *s, struct blob_attr *attr, bool without_name);

static void
format_list(struct strbuf *s, struct blob_attr *first, size_t len, bool array)
{
	struct blob_attr *pos;
	size_t rem = len;
	bool first_elem = true;

	sb_puts(s, array ? "[" : "{");
	s->level++;
	sb_newline(s);
	__blob_for_each_attr(pos, first, rem) {
		if (!first_elem) {
			sb_puts(s, ",");
			sb_newline(s);
		}
		/* an invalid element still takes its slot: ",," in the text */
		format_element(s, pos, array);
		first_elem = false;
	}
	s->level--;
	sb_newline(s);
	sb_puts(s, array ? "]" : "}");
}

static void
format_scalar(struct strbuf *s, struct blob_attr *attr)
{
	/* "%lf" prints every integer digit: DBL_MAX takes 309 of them, plus a
	 * sign and ".000000". */
	char num[DBL_MAX_10_EXP + 16];

	switch (blobmsg_type(attr)) {
	case BLOBMSG_TYPE_INT8:
		sb_puts(s, blobmsg_get_u8(attr) ? "true" : "false");
		return;
	case BLOBMSG_TYPE_INT16:
		snprintf(num, sizeof(num), "%d", (int) (int16_t) blobmsg_get_u16(attr));
		break;
	case BLOBMSG_TYPE_INT32:
		snprintf(num, sizeof(num), "%d", (int) (int32_t) blobmsg_get_u32(attr));
		break;
	case BLOBMSG_TYPE_INT64:
		snprintf(num, sizeof(num), "%" PRId64, (int64_t) blobmsg_get_u64(attr));
		break;
	case BLOBMSG_TYPE_DOUBLE:
		snprintf(num, sizeof(num), "%lf", blobmsg_get_double(attr));
		break;
	case BLOBMSG_TYPE_STRING:
		sb_put_string(s, blobmsg_get_string(attr));
		return;
	default:
		sb_puts(s, "null");
		return;
	}
	sb_puts(s, num);
}

static void
format_element(struct strbuf *s, struct blob_attr *attr, bool without_name)
{
	const char *custom;

	if (!blobmsg_check_attr(attr, false))
		return;

	if (!without_name && blob_is_extended(attr) && blobmsg_name(attr)[0]) {
		sb_put_string(s, blobmsg_name(attr));
		sb_puts(s, s->indent ? ": " : ":");
	}

	if (s->cb && (custom = s->cb(s->priv, attr)) != NULL) {
		sb_puts(s, custom);
		return;
	}

	switch (blobmsg_type(attr)) {
	case BLOBMSG_TYPE_TABLE:
	case BLOBMSG_TYPE_ARRAY:
		format_list(s, blobmsg_data(attr), blobmsg_data_len(attr),
			    blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY);
		break;
	default:
		format_scalar(s, attr);
		break;
	}
}

static void
strbuf_setup(struct strbuf *s, blobmsg_json_format_t cb, void *priv, int indent)
{
	memset(s, 0, sizeof(*s));
	s->cb = cb;
	s->priv = priv;
	if (indent >= 0) {
		s->indent = true;
		s->level = indent;
	}
}

static char *
strbuf_finish(struct strbuf *s)
{
	if (s->failed || !s->buf) {
		free(s->buf);
		return NULL;
	}
	return s->buf;
}

/* The container's own header must fit before its children can be walked. */
static bool
container_fits(const struct blob_attr *attr)
{
	const struct blobmsg_hdr *hdr = blob_data(attr);

	if (blob_raw_len(attr) < sizeof(struct blob_attr))
		return false;
	if (!blob_is_extended(attr))
		return true;
	if (blob_len(attr) < sizeof(struct blobmsg_hdr))
		return false;
	return (size_t) blobmsg_hdrlen(blobmsg_namelen(hdr)) <= blob_len(attr);
}

char *
blobmsg_format_json_with_cb(struct blob_attr *attr, bool list,
			    blobmsg_json_format_t cb, void *priv, int indent)
{
	struct strbuf s;

	if (!attr)
		return NULL;

	strbuf_setup(&s, cb, priv, indent);
	if (list && !container_fits(attr)) {
		sb_puts(&s, "{}");
	} else if (list) {
		/* a container's children; only an extended ARRAY gets brackets */
		bool array = blob_is_extended(attr) &&
			     blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY;

		format_list(&s, blobmsg_data(attr), blobmsg_data_len(attr), array);
	} else {
		format_element(&s, attr, false);
	}
	/* an invalid top element prints nothing, which is still a string */
	sb_put(&s, "", 0);
	return strbuf_finish(&s);
}

char *
blobmsg_format_json_value_with_cb(struct blob_attr *attr, blobmsg_json_format_t cb,
				  void *priv, int indent)
{
	struct strbuf s;

	if (!attr)
		return NULL;

	strbuf_setup(&s, cb, priv, indent);
	format_element(&s, attr, true);
	sb_put(&s, "", 0);
	return strbuf_finish(&s);
}
