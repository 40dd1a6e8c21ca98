/*
 * libmac-oui: vendor names of MAC address prefixes.
 *
 * The database is large, so a program loads it when it needs it and
 * releases it when it is done; every query needs a loaded database.
 * The calls are safe from several threads.
 */
#ifndef MAC_OUI_H
#define MAC_OUI_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Longest vendor text a query hands back, terminator included. */
#define MAC_OUI_VENDOR_SIZE 128

/* Loads the database: 0 on success (also when it is loaded already),
 * -1 when no registry file could be read. */
int load_mac_oui_database(void);

/* Gives the database's memory back; queries fail until the next load. */
void release_mac_oui_database(void);

/* Non-zero while the database is loaded. */
int mac_oui_database_ready(void);

/* Non-zero when `mac` is a MAC address text the library accepts: twelve
 * hexadecimal digits, or six pairs joined by one separator, ':' or '-',
 * used throughout. Either case. NULL is not accepted. */
int mac_oui_check_mac(const char *mac);

/* Vendor of the longest registered prefix of `mac` (MA-S 36 bits, then
 * MA-M 28 bits, then MA-L 24 bits), copied into `vendor` (`size` bytes,
 * always terminated, cut when longer). 0 on success, -1 when the database
 * is not loaded, an argument is NULL or no prefix is registered. */
int query_mac_oui(const uint8_t mac[6], char *vendor, size_t size);

#ifdef __cplusplus
}
#endif

#endif
