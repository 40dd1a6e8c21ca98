#include "registry/ip6_copy.h"

#include <cstdlib>
#include <cstring>

#include "registry/client_node.h"
#include "scan/ip6.h"

void copy_ip6_globals(client_node *node, const ip6_info *info) noexcept
{
    free_ip6_globals(node);
    node->ip6_state = info ? info->state : 0;
    if (!info)
        return;
    ip6_addr_node **tail = &node->ip6_globals;
    for (const ip6_addr_node *a = info->addresses; a; a = a->next) {
        auto *copy = static_cast<ip6_addr_node *>(malloc(sizeof(ip6_addr_node)));
        if (!copy)
            continue;
        copy->state = a->state;
        std::memcpy(copy->addr, a->addr, sizeof(copy->addr));
        copy->next = nullptr;
        *tail = copy;
        tail = &copy->next;
    }
}
