/*
 * libiwinfo stand-in: the helper header that iwinfo.h pulls in last. It
 * brings the UCI and bus headers along, as the real one does, and declares
 * the library's one UCI context, so that a program cannot take the name.
 */
#ifndef __IWINFO_UTILS_H_
#define __IWINFO_UTILS_H_

#include <sys/socket.h>
#include <net/if.h>
#include <uci.h>
#include <libubus.h>

#ifndef ARRAY_SIZE
#define ARRAY_SIZE(x) (sizeof(x) / sizeof(x[0]))
#endif

extern struct uci_context *uci_ctx;

#endif
