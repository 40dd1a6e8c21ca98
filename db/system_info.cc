#include "db/system_info.h"

struct system_info system_info = {};
bool is_mesh_agent = true;
char main_device_mac[18] = "";
char main_device_id[64] = "";
char self_mac[13] = "";
