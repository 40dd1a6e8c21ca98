/*
 * Constants shared by the bus library, the bus daemon and the command line.
 */
#ifndef __UBUS_COMMON_H
#define __UBUS_COMMON_H

#include <libubox/utils.h>

/* The socket the library connects to when the caller names none. */
#ifndef UBUS_UNIX_SOCKET
#define UBUS_UNIX_SOCKET "/var/run/ubus.sock"
#endif

/* The largest message body the daemon and the library accept. */
#ifndef UBUS_MAX_MSGLEN
#define UBUS_MAX_MSGLEN 1048576
#endif

#define UBUS_SIGNATURE_METHOD	(BLOBMSG_TYPE_LAST + 1)
#define UBUS_SIGNATURE_END	(BLOBMSG_TYPE_LAST + 2)

#ifndef __hidden
#define __hidden __attribute__((visibility("hidden")))
#endif

#endif
