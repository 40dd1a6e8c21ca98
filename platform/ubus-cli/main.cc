// ubus: the bus command line. list, call, send, listen and wait_for, with
// the output forms and exit codes scripts on the router rely on.
extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
#include <libubus.h>
}

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

namespace {

struct Options {
	const char *socket = nullptr;
	int timeout = 30;
	bool timeout_given = false;
	bool simple = false;
	int verbose = 0;
};

Options opt;
blob_buf b;

// How a command failed: `echo` asks for the full command line in the
// message (and the negated exit code) when stderr is no terminal.
struct Result {
	int ret = 0;
	bool echo = false;
};

void usage(const char *prog)
{
	std::fprintf(stderr,
		"Usage: %s [<options>] <command> [arguments...]\n"
		"Options:\n"
		" -s <socket>:\t\tSet the unix domain socket to connect to\n"
		" -t <timeout>:\t\tSet the timeout (in seconds) for a command to complete\n"
		" -S:\t\t\tUse simplified output (for scripts)\n"
		" -v:\t\t\tMore verbose output\n"
		"\n"
		"Commands:\n"
		" - list [<path>]\t\t\tList objects\n"
		" - call <path> <method> [<message>]\tCall an object method\n"
		" - listen [<path>...]\t\t\tListen for events\n"
		" - send <type> [<message>]\t\tSend an event\n"
		" - wait_for <object> [<object>...]\tWait for multiple objects to appear on ubus\n"
		"\n", prog);
}

const char *type_name(uint32_t type)
{
	switch (type) {
	case BLOBMSG_TYPE_INT8: return "Boolean";
	case BLOBMSG_TYPE_INT32: return "Integer";
	case BLOBMSG_TYPE_STRING: return "String";
	case BLOBMSG_TYPE_ARRAY: return "Array";
	case BLOBMSG_TYPE_TABLE: return "Table";
	default: return "(unknown)";
	}
}

void print_object(ubus_context *, ubus_object_data *o, void *)
{
	if (!opt.verbose) {
		std::printf("%s\n", o->path);
		return;
	}
	std::printf("'%s' @%08x\n", o->path, o->id);
	if (!o->signature)
		return;
	blob_attr *method;
	size_t rem;
	blob_for_each_attr(method, o->signature, rem) {
		if (!blobmsg_check_attr(method, true))
			continue;
		std::printf("\t\"%s\":{", blobmsg_name(method));
		blob_attr *arg;
		size_t arem;
		bool first = true;
		blobmsg_for_each_attr(arg, method, arem) {
			if (blobmsg_type(arg) != BLOBMSG_TYPE_INT32 || !blobmsg_check_attr(arg, true))
				continue;
			std::printf("%s\"%s\":\"%s\"", first ? "" : ",", blobmsg_name(arg),
				    type_name(blobmsg_get_u32(arg)));
			first = false;
		}
		std::printf("}\n");
	}
}

Result cmd_list(ubus_context *ctx, int argc, char **argv)
{
	if (argc > 1)
		return {-2};
	return {ubus_lookup(ctx, argc ? argv[0] : nullptr, print_object, nullptr)};
}

void print_reply(ubus_request *, int, blob_attr *msg)
{
	char *s = blobmsg_format_json_indent(msg, true, opt.simple ? -1 : 0);
	if (s)
		std::printf("%s\n", s);
	std::free(s);
}

Result cmd_call(ubus_context *ctx, int argc, char **argv)
{
	if (argc < 2 || argc > 3)
		return {-2};
	blob_buf_init(&b, 0);
	if (argc == 3 && !blobmsg_add_json_from_string(&b, argv[2]))
		return {UBUS_STATUS_PARSE_ERROR, true};
	uint32_t id;
	if (int ret = ubus_lookup_id(ctx, argv[0], &id))
		return {ret};
	return {ubus_invoke(ctx, id, argv[1], b.head, print_reply, nullptr, opt.timeout * 1000), true};
}

Result cmd_send(ubus_context *ctx, int argc, char **argv)
{
	if (argc < 1 || argc > 2)
		return {-2};
	blob_buf_init(&b, 0);
	if (argc == 2 && !blobmsg_add_json_from_string(&b, argv[1]))
		return {UBUS_STATUS_PARSE_ERROR};
	return {ubus_send_event(ctx, argv[0], b.head)};
}

void print_event(ubus_context *, ubus_event_handler *, const char *type, blob_attr *msg)
{
	char *s = blobmsg_format_json(msg, true);
	std::printf("{ \"%s\": %s }\n", type, s ? s : "{}");
	std::free(s);
	std::fflush(stdout);
}

void end_loop(uloop_timeout *)
{
	uloop_end();
}

Result cmd_listen(ubus_context *ctx, int argc, char **argv)
{
	static ubus_event_handler ev;
	ev.cb = print_event;
	static const char *const all[] = {"*"};
	const char *const *patterns = argc ? argv : all;
	int n = argc ? argc : 1;
	for (int i = 0; i < n; i++)
		if (int ret = ubus_register_event_handler(ctx, &ev, patterns[i]))
			return {ret};
	ubus_add_uloop(ctx);
	static uloop_timeout stop;
	stop.cb = end_loop;
	if (opt.timeout_given)
		uloop_timeout_set(&stop, opt.timeout * 1000);
	uloop_run();
	return {0};
}

std::set<std::string> waiting;
bool wait_timed_out = false;

void object_added(ubus_context *, ubus_event_handler *, const char *, blob_attr *msg)
{
	static const blobmsg_policy path_policy[] = {{"path", BLOBMSG_TYPE_STRING}};
	blob_attr *tb[1];
	blobmsg_parse(path_policy, 1, tb, blob_data(msg), blob_len(msg));
	if (tb[0])
		waiting.erase(blobmsg_get_string(tb[0]));
	if (waiting.empty())
		uloop_end();
}

void wait_expired(uloop_timeout *)
{
	wait_timed_out = true;
	uloop_end();
}

Result cmd_wait_for(ubus_context *ctx, int argc, char **argv)
{
	if (argc < 1)
		return {-2};
	static ubus_event_handler ev;
	ev.cb = object_added;
	if (int ret = ubus_register_event_handler(ctx, &ev, "ubus.object.add"))
		return {ret};
	waiting.insert(argv, argv + argc);
	for (int i = 0; i < argc; i++) {
		uint32_t id;
		if (ubus_lookup_id(ctx, argv[i], &id) == 0)
			waiting.erase(argv[i]);
	}
	if (waiting.empty())
		return {0};
	ubus_add_uloop(ctx);
	static uloop_timeout expire;
	expire.cb = wait_expired;
	uloop_timeout_set(&expire, opt.timeout * 1000);
	uloop_run();
	return {wait_timed_out ? UBUS_STATUS_TIMEOUT : 0};
}

struct Command {
	const char *name;
	Result (*run)(ubus_context *, int, char **);
};

const Command commands[] = {
	{"list", cmd_list},
	{"call", cmd_call},
	{"send", cmd_send},
	{"listen", cmd_listen},
	{"wait_for", cmd_wait_for},
};

std::string command_line(int argc, char **argv)
{
	std::string s = "ubus";
	for (int i = 0; i < argc; i++)
		s += std::string(" ") + argv[i];
	return s;
}

// Reports a failed command and turns its status into the process's
// return value (taken modulo 256 by the exit status).
int report(Result r, const char *prog, int argc, char **argv)
{
	int ret = r.ret;
	if (ret && r.echo && !opt.simple && !isatty(STDERR_FILENO)) {
		std::fprintf(stderr, "Command failed: %s (%s)\n", command_line(argc, argv).c_str(),
			     ubus_strerror(ret));
		ret = -ret;
	}
	if (ret > 0 && !opt.simple)
		std::fprintf(stderr, "Command failed: %s\n", ubus_strerror(ret));
	if (ret == -2 && !opt.simple)
		usage(prog);
	return ret;
}

}  // namespace

int main(int argc, char **argv)
{
	const char *prog = argv[0];
	int ch;
	while ((ch = getopt(argc, argv, "vs:t:S")) != -1) {
		switch (ch) {
		case 's':
			opt.socket = optarg;
			break;
		case 't':
			opt.timeout = std::atoi(optarg);
			opt.timeout_given = true;
			break;
		case 'S':
			opt.simple = true;
			break;
		case 'v':
			opt.verbose++;
			break;
		default:
			if (!opt.simple)
				usage(prog);
			return 1;
		}
	}
	argc -= optind;
	argv += optind;
	if (argc < 1) {
		if (!opt.simple)
			usage(prog);
		return 1;
	}
	ubus_context *ctx = ubus_connect(opt.socket);
	if (!ctx) {
		if (!opt.simple)
			std::fprintf(stderr, "Failed to connect to ubus\n");
		return -1;
	}
	Result r{-2};
	for (const Command &c : commands)
		if (!std::strcmp(c.name, argv[0]))
			r = c.run(ctx, argc - 1, argv + 1);
	std::fflush(stdout);
	int ret = report(r, prog, argc, argv);
	ubus_free(ctx);
	blob_buf_free(&b);
	return ret;
}
