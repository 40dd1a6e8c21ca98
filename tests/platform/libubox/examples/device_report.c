/*
 * device_report - a small program written the way one writes against
 * libubox on a router: a uloop timer and a pipe, a nested blobmsg message,
 * blobmsg_parse with policies, and JSON in both directions.
 *
 * Build: cc device_report.c -lblobmsg_json -lubox
 */
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <libubox/uloop.h>
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>

enum {
	DEV_NAME,
	DEV_IP,
	DEV_ONLINE,
	DEV_PORTS,
	DEV_STATS,
	__DEV_MAX
};

static const struct blobmsg_policy dev_policy[__DEV_MAX] = {
	[DEV_NAME] = { .name = "name", .type = BLOBMSG_TYPE_STRING },
	[DEV_IP] = { .name = "ip", .type = BLOBMSG_TYPE_STRING },
	[DEV_ONLINE] = { .name = "online", .type = BLOBMSG_TYPE_BOOL },
	[DEV_PORTS] = { .name = "ports", .type = BLOBMSG_TYPE_ARRAY },
	[DEV_STATS] = { .name = "stats", .type = BLOBMSG_TYPE_TABLE },
};

enum {
	STATS_RX,
	STATS_LOAD,
	__STATS_MAX
};

static const struct blobmsg_policy stats_policy[__STATS_MAX] = {
	[STATS_RX] = { .name = "rx", .type = BLOBMSG_CAST_INT64 },
	[STATS_LOAD] = { .name = "load", .type = BLOBMSG_TYPE_DOUBLE },
};

static struct blob_buf b;
static int pipe_fds[2];
static int ticks;

static void build_device(void)
{
	void *arr, *tbl;

	blob_buf_init(&b, 0);
	blobmsg_add_string(&b, "name", "printer");
	blobmsg_add_string(&b, "ip", "192.168.1.20");
	blobmsg_add_u8(&b, "online", 1);
	arr = blobmsg_open_array(&b, "ports");
	blobmsg_add_u32(&b, NULL, 631);
	blobmsg_add_u32(&b, NULL, 9100);
	blobmsg_close_array(&b, arr);
	tbl = blobmsg_open_table(&b, "stats");
	blobmsg_add_u64(&b, "rx", 5000000000ULL);
	blobmsg_add_double(&b, "load", 0.25);
	blobmsg_close_table(&b, tbl);
}

static void print_json(struct blob_attr *attr, int indent)
{
	char *s = indent < 0 ? blobmsg_format_json(attr, true)
			     : blobmsg_format_json_indent(attr, true, indent);

	printf("%s\n", s ? s : "(null)");
	free(s);
}

static void parse_device(void)
{
	struct blob_attr *tb[__DEV_MAX], *st[__STATS_MAX];
	int ret;

	ret = blobmsg_parse(dev_policy, __DEV_MAX, tb, blob_data(b.head), blob_len(b.head));
	printf("parse: %d\n", ret);
	printf("name=%s ip=%s online=%d ports=%d\n",
	       blobmsg_get_string(tb[DEV_NAME]), blobmsg_get_string(tb[DEV_IP]),
	       blobmsg_get_bool(tb[DEV_ONLINE]),
	       blobmsg_check_array(tb[DEV_PORTS], BLOBMSG_TYPE_INT32));

	blobmsg_parse(stats_policy, __STATS_MAX, st, blobmsg_data(tb[DEV_STATS]),
		      blobmsg_data_len(tb[DEV_STATS]));
	printf("rx=%llu load=%.2f\n", (unsigned long long) blobmsg_cast_u64(st[STATS_RX]),
	       blobmsg_get_double(st[STATS_LOAD]));
}

static void json_to_blob(void)
{
	static const char text[] =
		"{\"host\":\"nas\",\"tags\":[\"a\",\"b\"],\"up\":true,\"port\":445,"
		"\"big\":4294967296,\"ratio\":1.5,\"none\":null}";
	struct blob_attr *cur;
	size_t rem;

	blob_buf_init(&b, 0);
	printf("json ok: %d\n", blobmsg_add_json_from_string(&b, text));
	print_json(b.head, -1);
	printf("types:");
	blobmsg_for_each_attr(cur, b.head, rem)
		printf(" %s:%d", blobmsg_name(cur), blobmsg_type(cur));
	printf("\n");
}

static void hex_and_empty(void)
{
	const unsigned char *p;
	struct blob_attr *tb[__DEV_MAX];
	size_t i;

	blob_buf_init(&b, 0);
	blobmsg_add_string(&b, "s", "ab");
	p = (const unsigned char *) b.head;
	printf("hex:");
	for (i = 0; i < blob_pad_len(b.head); i++)
		printf("%s%02x", i % 4 ? "" : " ", p[i]);
	printf("\n");

	blob_buf_init(&b, 0);
	printf("empty: %d\n", blobmsg_parse(dev_policy, __DEV_MAX, tb,
					     blob_data(b.head), blob_len(b.head)));
}

static void pipe_cb(struct uloop_fd *u, unsigned int events)
{
	char buf[32];
	ssize_t n = read(u->fd, buf, sizeof(buf) - 1);

	(void) events;
	if (n <= 0)
		return;
	buf[n] = 0;
	printf("fd read %d bytes: %s", (int) n, buf);

	build_device();
	print_json(b.head, -1);
	print_json(b.head, 0);
	parse_device();
	json_to_blob();
	hex_and_empty();
	uloop_end();
}

static struct uloop_fd pipe_fd = { .cb = pipe_cb };

static void tick_cb(struct uloop_timeout *t)
{
	printf("tick %d\n", ++ticks);
	if (ticks < 2) {
		uloop_timeout_set(t, 5);
		return;
	}
	if (write(pipe_fds[1], "ping\n", 5) != 5)
		uloop_end();
}

static struct uloop_timeout tick = { .cb = tick_cb };

int main(void)
{
	int ret;

	setvbuf(stdout, NULL, _IOLBF, 0);
	if (uloop_init() < 0 || pipe(pipe_fds) < 0)
		return 1;

	pipe_fd.fd = pipe_fds[0];
	uloop_fd_add(&pipe_fd, ULOOP_READ);
	uloop_timeout_set(&tick, 10);

	ret = uloop_run();
	printf("loop ended: %d\n", ret);

	uloop_fd_delete(&pipe_fd);
	uloop_done();
	blob_buf_free(&b);
	close(pipe_fds[0]);
	close(pipe_fds[1]);
	return 0;
}
