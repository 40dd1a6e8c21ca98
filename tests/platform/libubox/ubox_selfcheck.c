/*
 * ubox_selfcheck - a quick look at the libubox stand-in: runs a uloop timer,
 * builds a nested blobmsg message, prints it as JSON (compact and
 * indented), parses it back and checks what comes out. Prints one OK line
 * per check and exits non-zero on the first mismatch.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>

static const char expect_compact[] =
	"{\"name\":\"selfcheck\",\"count\":3,\"ok\":true,"
	"\"list\":[1,\"two\"],\"nested\":{\"depth\":2,\"ratio\":0.500000}}";

static int failures;
static int timer_runs;

static void check(int ok, const char *what)
{
	if (ok) {
		printf("OK %s\n", what);
	} else {
		printf("FAIL %s\n", what);
		failures++;
	}
}

static void on_timer(struct uloop_timeout *t)
{
	(void) t;
	timer_runs++;
	uloop_end();
}

static void build(struct blob_buf *b)
{
	void *arr, *tbl;

	blob_buf_init(b, 0);
	blobmsg_add_string(b, "name", "selfcheck");
	blobmsg_add_u32(b, "count", 3);
	blobmsg_add_u8(b, "ok", 1);
	arr = blobmsg_open_array(b, "list");
	blobmsg_add_u32(b, NULL, 1);
	blobmsg_add_string(b, NULL, "two");
	blobmsg_close_array(b, arr);
	tbl = blobmsg_open_table(b, "nested");
	blobmsg_add_u32(b, "depth", 2);
	blobmsg_add_double(b, "ratio", 0.5);
	blobmsg_close_table(b, tbl);
}

static void check_parse(struct blob_buf *b)
{
	enum { P_NAME, P_COUNT, P_NESTED, P_MAX };
	static const struct blobmsg_policy policy[P_MAX] = {
		[P_NAME] = { .name = "name", .type = BLOBMSG_TYPE_STRING },
		[P_COUNT] = { .name = "count", .type = BLOBMSG_TYPE_INT32 },
		[P_NESTED] = { .name = "nested", .type = BLOBMSG_TYPE_TABLE },
	};
	struct blob_attr *tb[P_MAX];
	int ret = blobmsg_parse(policy, P_MAX, tb, blob_data(b->head), blob_len(b->head));

	check(ret == 0, "blobmsg_parse returns 0");
	check(tb[P_NAME] && !strcmp(blobmsg_get_string(tb[P_NAME]), "selfcheck"),
	      "parsed name is \"selfcheck\"");
	check(tb[P_COUNT] && blobmsg_get_u32(tb[P_COUNT]) == 3, "parsed count is 3");
	check(tb[P_NESTED] && blobmsg_check_array(tb[P_NESTED], BLOBMSG_TYPE_UNSPEC) == 2,
	      "nested table has 2 members");
}

int main(void)
{
	struct blob_buf b = { 0 }, back = { 0 };
	struct uloop_timeout t = { .cb = on_timer };
	char *compact, *indented;

	check(uloop_init() == 0, "uloop_init");
	uloop_timeout_set(&t, 10);
	check(uloop_run() == 0 && timer_runs == 1, "uloop timer fired once and ended the loop");
	uloop_done();

	build(&b);
	compact = blobmsg_format_json(b.head, true);
	indented = blobmsg_format_json_indent(b.head, true, 0);
	printf("%s\n%s\n", compact ? compact : "(null)", indented ? indented : "(null)");
	check(compact && !strcmp(compact, expect_compact), "compact JSON as expected");
	check(indented && !strncmp(indented, "{\n\t\"name\": \"selfcheck\",\n", 24),
	      "indented JSON uses tabs and \": \"");

	blob_buf_init(&back, 0);
	check(compact && blobmsg_add_json_from_string(&back, compact), "JSON parses back");
	check(blob_attr_equal(b.head, back.head), "round trip gives the same bytes");
	check_parse(&b);

	free(compact);
	free(indented);
	blob_buf_free(&b);
	blob_buf_free(&back);
	if (failures) {
		printf("ubox_selfcheck: %d check(s) failed\n", failures);
		return 1;
	}
	printf("ubox_selfcheck: all checks passed\n");
	return 0;
}
