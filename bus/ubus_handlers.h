// The method handlers of `lanroster` and `mac_oui`, and the state the
// small methods keep. All run on the uloop thread.
#pragma once

#include <cstdint>

#include "core/openwrt.h"

#define LR_UBUS_HANDLER(name)                                                                                \
    int name(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method,                \
             blob_attr *msg) noexcept

LR_UBUS_HANDLER(update);
LR_UBUS_HANDLER(get_ARP);
LR_UBUS_HANDLER(lan_update);
LR_UBUS_HANDLER(get);
LR_UBUS_HANDLER(history_list_get);
LR_UBUS_HANDLER(history_list_num_get);
LR_UBUS_HANDLER(history_dev_info_list_get);
LR_UBUS_HANDLER(device_type_set);
LR_UBUS_HANDLER(device_nickname_set);
LR_UBUS_HANDLER(offline_device_delete);
LR_UBUS_HANDLER(remove_device_by_mac);
LR_UBUS_HANDLER(update_fing_auth_status);
LR_UBUS_HANDLER(get_hist_list_new);
LR_UBUS_HANDLER(mac_oui_ubus_query);

// Policies, indexed by their enums.
enum { UPDATE_DELAY, UPDATE_INTERVAL, UPDATE_PRINT_NEIGH, UPDATE_REPORT_NEIGH, UPDATE_ATTR_MAX };
enum {
    GET_REQUEST_TYPE,
    GET_IPV4_ADDR,
    GET_IPV6_BYTE1,
    GET_IPV6_BYTE2,
    GET_IPV6_BYTE3,
    GET_IPV6_BYTE4,
    GET_ATTR_MAX
};
enum { HIST_REQUEST_TYPE, HIST_ATTR_MAX };
enum { DEV_INFO_AL_MAC, DEV_INFO_INTERFACE_LIST, DEV_INFO_ATTR_MAX };
enum { DEV_TYPE_DEVICE_TYPE, DEV_TYPE_DEVICE_MAC, DEV_TYPE_ATTR_MAX };
enum { NICKNAME_NICKNAME, NICKNAME_DEVICE_MAC, NICKNAME_ATTR_MAX };
enum { DEVICE_MAC, DEVICE_MAC_ATTR_MAX };
enum { AUTH_STATE, AUTH_STATE_ATTR_MAX };
enum {
    HIST_NEW_ONLINE_TYPE,
    HIST_NEW_V6,
    HIST_NEW_ACCESS_LIMIT,
    HIST_NEW_SPEED_LIMIT,
    HIST_NEW_QOS,
    HIST_NEW_TFSTATS,
    HIST_NEW_WIRELESS,
    HIST_NEW_QOS_SCHEDULE,
    HIST_NEW_HIGH_BANDWIDTH_OCCUPANCY,
    HIST_NEW_LANROSTER_FILE,
    HIST_NEW_ATTR_MAX
};
enum { MAC_OUI_MAC, MAC_OUI_ATTR_MAX };

extern const blobmsg_policy update_policy[UPDATE_ATTR_MAX];
extern const blobmsg_policy get_policy[GET_ATTR_MAX];
extern const blobmsg_policy hist_policy[HIST_ATTR_MAX];
extern const blobmsg_policy dev_info_policy[DEV_INFO_ATTR_MAX];
extern const blobmsg_policy dev_type_policy[DEV_TYPE_ATTR_MAX];
extern const blobmsg_policy nickname_policy[NICKNAME_ATTR_MAX];
extern const blobmsg_policy device_mac_policy[DEVICE_MAC_ATTR_MAX];
extern const blobmsg_policy auth_state_policy[AUTH_STATE_ATTR_MAX];
extern const blobmsg_policy hist_new_policy[HIST_NEW_ATTR_MAX];
extern const blobmsg_policy mac_oui_policy[MAC_OUI_ATTR_MAX];

// The timer the method `update` can arm; nothing gives it a callback.
extern uloop_timeout update_timer;
// Written by `update`, read by nothing else.
extern int32_t update_interval;

// Parses the request of `update`, where an empty message is a request with
// no keys (the library calls it a failure); every other handler keeps the
// library's result. 0 on success.
int parse_update_request(blob_attr *msg, blob_attr **tb) noexcept;
