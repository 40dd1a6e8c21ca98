/*
 * libiwinfo stand-in: the calls, constants and ops table of the wireless
 * information library, for a machine whose kernel has no Wi-Fi.
 *
 * The station element is the extended form that this platform's driver
 * build ships (144 bytes): the old element's prefix (signal, noise,
 * inactive, packet counters, then the two rate entries at offsets 20 and
 * 32), byte counters, and the rates, valid flags and MLD address of the
 * 2.4, 5 and 6 GHz links of a multi-link station. Walk a station buffer with
 * sizeof(struct iwinfo_assoclist_entry) and read fields by name.
 *
 * Like the real header, this one has no extern "C" guard.
 */
#ifndef __IWINFO_H_
#define __IWINFO_H_

#include <sys/types.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <fcntl.h>
#include <glob.h>
#include <ctype.h>
#include <dirent.h>
#include <stdint.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <net/if.h>
#include <errno.h>

#define IWINFO_BUFSIZE        24 * 1024
#define IWINFO_ESSID_MAX_SIZE 32

struct iwinfo_rate_entry {
	uint32_t rate;
	int8_t mcs;
	uint8_t is_40mhz:1;
	uint8_t is_short_gi:1;
	uint8_t is_ht:1;
	uint8_t is_vht:1;
	uint8_t is_he:1;
	uint8_t is_eht:1;
	uint8_t he_gi;
	uint8_t he_dcm;
	uint8_t mhz;
	uint8_t nss;
	uint8_t mhz_hi;
	uint8_t eht_gi;
};

struct iwinfo_assoclist_entry {
	uint8_t mac[6];                          /*   0 */
	int8_t signal;                           /*   6 */
	int8_t noise;                            /*   7 */
	uint32_t inactive;                       /*   8, ms */
	uint32_t rx_packets;                     /*  12 */
	uint32_t tx_packets;                     /*  16 */
	struct iwinfo_rate_entry rx_rate;        /*  20, rate in kbit/s */
	struct iwinfo_rate_entry tx_rate;        /*  32 */
	uint32_t rx_bytes;                       /*  44 */
	uint32_t tx_bytes;                       /*  48 */
	uint32_t connected_time;                 /*  52, s */
	uint32_t thr;                            /*  56 */
	struct iwinfo_rate_entry mlo_rx_rate_2g; /*  60 */
	struct iwinfo_rate_entry mlo_tx_rate_2g; /*  72 */
	struct iwinfo_rate_entry mlo_rx_rate_5g; /*  84 */
	struct iwinfo_rate_entry mlo_tx_rate_5g; /*  96 */
	struct iwinfo_rate_entry mlo_rx_rate_6g; /* 108 */
	struct iwinfo_rate_entry mlo_tx_rate_6g; /* 120 */
	uint8_t mlo_valid_2g;                    /* 132 */
	uint8_t mlo_valid_5g;                    /* 133 */
	uint8_t mlo_valid_6g;                    /* 134 */
	uint8_t mlo_addr[6];                     /* 135, zero for a non-MLO station */
};

struct iwinfo_ops {
	const char *name;
	int (*probe)(const char *ifname);
	int (*mode)(const char *, int *);
	int (*channel)(const char *, int *);
	int (*center_chan1)(const char *, int *);
	int (*center_chan2)(const char *, int *);
	int (*frequency)(const char *, int *);
	int (*frequency_offset)(const char *, int *);
	int (*txpower)(const char *, int *);
	int (*txpower_offset)(const char *, int *);
	int (*bitrate)(const char *, int *);
	int (*signal)(const char *, int *);
	int (*noise)(const char *, int *);
	int (*quality)(const char *, int *);
	int (*quality_max)(const char *, int *);
	int (*mbssid_support)(const char *, int *);
	int (*hwmodelist)(const char *, int *);
	int (*htmodelist)(const char *, int *);
	int (*htmode)(const char *, int *);
	int (*ssid)(const char *, char *);
	int (*bssid)(const char *, char *);
	int (*country)(const char *, char *);
	int (*hardware_id)(const char *, char *);
	int (*hardware_name)(const char *, char *);
	int (*encryption)(const char *, char *);
	int (*phyname)(const char *, char *);
	int (*assoclist)(const char *, char *, int *);
	int (*txpwrlist)(const char *, char *, int *);
	int (*scanlist)(const char *, char *, int *);
	int (*freqlist)(const char *, char *, int *);
	int (*countrylist)(const char *, char *, int *);
	int (*survey)(const char *, char *, int *);
	int (*lookup_phy)(const char *, char *);
	int (*phy_path)(const char *phyname, const char **path);
	void (*close)(void);
};

const char *iwinfo_type(const char *ifname);
const struct iwinfo_ops *iwinfo_backend(const char *ifname);
const struct iwinfo_ops *iwinfo_backend_by_name(const char *name);
void iwinfo_finish(void);

extern const struct iwinfo_ops wext_ops;
extern const struct iwinfo_ops madwifi_ops;
extern const struct iwinfo_ops nl80211_ops;
extern const struct iwinfo_ops wl_ops;

#include "iwinfo/utils.h"

#endif
