// One use of a libubox macro that the real headers write with the GNU keyword
// typeof. USE selects which; typeof_check.cmake compiles this file once in
// strict C++20 (which must fail, as against the router's headers) and once in
// GNU C++20 (which must build).
extern "C" {
#include <libubox/avl.h>
#include <libubox/list.h>
}

struct item {
    struct avl_node node;
    struct list_head entry;
    int key;
};

int use(struct avl_tree *tree, struct item *it)
{
    int k = 1;
    struct item *found = nullptr;
    (void)tree; (void)it; (void)k; (void)found;
#if USE == 1
    found = avl_find_element(tree, &k, found, node);
#elif USE == 2
    found = avl_find_ge_element(tree, &k, found, node);
#elif USE == 3
    found = avl_find_le_element(tree, &k, found, node);
#elif USE == 4
    found = list_next_entry(it, entry);
#elif USE == 5
    found = list_prev_entry(it, entry);
#endif
    return found ? found->key : 0;
}
