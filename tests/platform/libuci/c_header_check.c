/* The header as a C program sees it: the lookup flags are plain global
 * enumerators in C, and everything compiles under the strict warnings. */
#include <uci.h>

#include <stdlib.h>
#include <string.h>

int c_header_check(const char *confdir);

int c_header_check(const char *confdir)
{
	struct uci_context *ctx = uci_alloc_context();
	struct uci_ptr ptr;
	struct uci_element *e;
	char buf[] = "test.main.hostname";
	int found = 0;

	if (!ctx)
		return -1;
	uci_set_confdir(ctx, confdir);
	if (uci_lookup_ptr(ctx, &ptr, buf, true) != UCI_OK || !(ptr.flags & UCI_LOOKUP_COMPLETE)) {
		uci_free_context(ctx);
		return -2;
	}
	uci_foreach_element(&ptr.p->sections, e) {
		struct uci_section *s = uci_to_section(e);
		if (strcmp(s->type, "system") == 0)
			found++;
	}
	if (strcmp(ptr.o->v.string, "router") != 0)
		found = -3;
	uci_free_context(ctx);
	return found;
}
