// avl, list and utils.h helpers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

extern "C" {
#include <libubox/avl.h>
#include <libubox/avl-cmp.h>
#include <libubox/list.h>
#include <libubox/utils.h>
}

namespace {

struct Item {
    avl_node node{};
    int key = 0;
    std::string name;
};

int int_cmp(const void *a, const void *b, void *)
{
    int x = *static_cast<const int *>(a), y = *static_cast<const int *>(b);
    return x < y ? -1 : x > y;
}

// Checks order, parent links and balance; returns the height.
int check_subtree(const avl_tree *tree, const avl_node *n, const avl_node *parent)
{
    if (!n)
        return 0;
    EXPECT_EQ(n->parent, parent);
    if (n->left) {
        EXPECT_LE(tree->comp(n->left->key, n->key, tree->cmp_ptr), 0);
    }
    if (n->right) {
        EXPECT_GE(tree->comp(n->right->key, n->key, tree->cmp_ptr), 0);
    }
    int l = check_subtree(tree, n->left, n), r = check_subtree(tree, n->right, n);
    EXPECT_LE(std::abs(l - r), 1);
    return 1 + std::max(l, r);
}

std::vector<int> keys_in_order(avl_tree *tree)
{
    std::vector<int> out;
    Item *it;
    avl_for_each_element(tree, it, node) out.push_back(it->key);
    return out;
}

TEST(Avl, InsertFindDeleteKeepsOrderAndBalance)
{
    avl_tree tree;
    avl_init(&tree, int_cmp, false, nullptr);
    EXPECT_TRUE(avl_is_empty(&tree));
    std::vector<Item> items(500);
    std::vector<int> keys(500);
    for (int i = 0; i < 500; i++)
        keys[i] = i * 3;
    std::mt19937 rng(7);
    std::shuffle(keys.begin(), keys.end(), rng);
    for (int i = 0; i < 500; i++) {
        items[i].key = keys[i];
        items[i].node.key = &items[i].key;
        ASSERT_EQ(avl_insert(&tree, &items[i].node), 0);
    }
    EXPECT_EQ(tree.count, 500u);
    int h = check_subtree(&tree, tree.root, nullptr);
    EXPECT_LE(h, 13);  // 1.44 * log2(500) + 1
    std::vector<int> sorted = keys;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(keys_in_order(&tree), sorted);

    int k = 300;
    Item *found = avl_find_element(&tree, &k, found, node);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->key, 300);
    k = 301;
    EXPECT_EQ(avl_find(&tree, &k), nullptr);
    Item *ge = avl_find_ge_element(&tree, &k, ge, node);
    ASSERT_NE(ge, nullptr);
    EXPECT_EQ(ge->key, 303);
    Item *le = avl_find_le_element(&tree, &k, le, node);
    ASSERT_NE(le, nullptr);
    EXPECT_EQ(le->key, 300);
    k = 5000;
    EXPECT_EQ(avl_find_greaterequal(&tree, &k), nullptr);
    k = -1;
    EXPECT_EQ(avl_find_lessequal(&tree, &k), nullptr);

    // Delete every other item in random order.
    std::set<int> left(keys.begin(), keys.end());
    for (int i = 0; i < 500; i += 2) {
        avl_delete(&tree, &items[i].node);
        left.erase(items[i].key);
        if (i % 50 == 0)
            check_subtree(&tree, tree.root, nullptr);
    }
    EXPECT_EQ(tree.count, 250u);
    check_subtree(&tree, tree.root, nullptr);
    EXPECT_EQ(keys_in_order(&tree), std::vector<int>(left.begin(), left.end()));
}

TEST(Avl, DuplicatesRejectedUnlessAllowed)
{
    avl_tree tree;
    avl_init(&tree, int_cmp, false, nullptr);
    Item a, b;
    a.key = b.key = 1;
    a.node.key = &a.key;
    b.node.key = &b.key;
    EXPECT_EQ(avl_insert(&tree, &a.node), 0);
    EXPECT_EQ(avl_insert(&tree, &b.node), -1);
    EXPECT_EQ(tree.count, 1u);
}

TEST(Avl, DuplicatesKeepInsertionOrderAndLeader)
{
    avl_tree tree;
    avl_init(&tree, int_cmp, true, nullptr);
    std::vector<Item> items(5);
    const int keys[] = {2, 1, 2, 2, 3};
    const char *names[] = {"x", "y", "z", "w", "v"};
    for (int i = 0; i < 5; i++) {
        items[i].key = keys[i];
        items[i].name = names[i];
        items[i].node.key = &items[i].key;
        ASSERT_EQ(avl_insert(&tree, &items[i].node), 0);
    }
    std::string order;
    Item *it;
    avl_for_each_element(&tree, it, node) order += it->name;
    EXPECT_EQ(order, "yxzwv");
    int k = 2;
    Item *first = avl_find_element(&tree, &k, first, node);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->name, "x");
    EXPECT_TRUE(items[0].node.leader);
    EXPECT_FALSE(items[2].node.leader);
    avl_delete(&tree, &items[0].node);
    EXPECT_TRUE(items[2].node.leader);
    first = avl_find_element(&tree, &k, first, node);
    EXPECT_EQ(first->name, "z");
}

TEST(Avl, IterationMacros)
{
    avl_tree tree;
    avl_init(&tree, avl_strcmp, false, nullptr);
    std::vector<Item> items(4);
    const char *names[] = {"c", "a", "d", "b"};
    for (int i = 0; i < 4; i++) {
        items[i].name = names[i];
        items[i].node.key = items[i].name.c_str();
        avl_insert(&tree, &items[i].node);
    }
    Item *it, *tmp;
    EXPECT_EQ(avl_first_element(&tree, it, node)->name, "a");
    EXPECT_EQ(avl_last_element(&tree, it, node)->name, "d");
    EXPECT_TRUE(avl_is_first(&tree, &items[1].node));
    EXPECT_TRUE(avl_is_last(&tree, &items[2].node));
    it = avl_first_element(&tree, it, node);
    EXPECT_EQ(avl_next_element(it, node)->name, "b");
    EXPECT_EQ(avl_prev_element(avl_next_element(it, node), node)->name, "a");

    std::string rev;
    avl_for_each_element_reverse(&tree, it, node) rev += it->name;
    EXPECT_EQ(rev, "dcba");

    std::string safe;
    avl_for_each_element_safe(&tree, it, node, tmp) {
        safe += it->name;
        if (it->name == "b")
            avl_delete(&tree, &it->node);
    }
    EXPECT_EQ(safe, "abcd");
    EXPECT_EQ(tree.count, 3u);

    std::string all;
    avl_remove_all_elements(&tree, it, node, tmp) all += it->name;
    EXPECT_EQ(all, "acd");
    EXPECT_TRUE(avl_is_empty(&tree));
    EXPECT_TRUE(list_empty(&tree.list_head));
    EXPECT_EQ(tree.root, nullptr);
}

TEST(Avl, BlobCompare)
{
    const uint32_t a[2] = {cpu_to_be32(0x01000008), 1};
    const uint32_t b[2] = {cpu_to_be32(0x01000008), 2};
    const uint32_t c[1] = {cpu_to_be32(0x01000004)};
    EXPECT_LT(avl_blobcmp(a, b, nullptr), 0);
    EXPECT_EQ(avl_blobcmp(a, a, nullptr), 0);
    EXPECT_GT(avl_blobcmp(a, c, nullptr), 0);
}

struct Entry {
    int v;
    list_head list;
};

TEST(List, AddDelIterate)
{
    LIST_HEAD(head);
    EXPECT_TRUE(list_empty(&head));
    Entry e[4] = {{1, {}}, {2, {}}, {3, {}}, {4, {}}};
    list_add_tail(&e[1].list, &head);
    list_add_tail(&e[2].list, &head);
    list_add(&e[0].list, &head);
    list_add_tail(&e[3].list, &head);
    std::vector<int> got;
    Entry *p, *n;
    list_for_each_entry(p, &head, list) got.push_back(p->v);
    EXPECT_EQ(got, (std::vector<int>{1, 2, 3, 4}));
    EXPECT_TRUE(list_is_first(&e[0].list, &head));
    EXPECT_TRUE(list_is_last(&e[3].list, &head));
    EXPECT_EQ(list_first_entry(&head, Entry, list)->v, 1);
    EXPECT_EQ(list_last_entry(&head, Entry, list)->v, 4);

    list_del(&e[1].list);
    EXPECT_EQ(e[1].list.next, nullptr);
    EXPECT_EQ(e[1].list.prev, nullptr);
    got.clear();
    list_for_each_entry_reverse(p, &head, list) got.push_back(p->v);
    EXPECT_EQ(got, (std::vector<int>{4, 3, 1}));

    list_move_tail(&e[0].list, &head);
    list_move(&e[3].list, &head);
    got.clear();
    list_for_each_entry_safe(p, n, &head, list) {
        got.push_back(p->v);
        list_del_init(&p->list);
        EXPECT_TRUE(list_empty(&p->list));
    }
    EXPECT_EQ(got, (std::vector<int>{4, 3, 1}));
    EXPECT_TRUE(list_empty(&head));
}

TEST(List, Splice)
{
    LIST_HEAD(a);
    LIST_HEAD(b);
    Entry e[4] = {{1, {}}, {2, {}}, {3, {}}, {4, {}}};
    list_add_tail(&e[0].list, &a);
    list_add_tail(&e[1].list, &a);
    list_add_tail(&e[2].list, &b);
    list_add_tail(&e[3].list, &b);
    list_splice_tail_init(&b, &a);
    EXPECT_TRUE(list_empty(&b));
    std::vector<int> got;
    list_head *pos, *tmp;
    list_for_each(pos, &a) got.push_back(list_entry(pos, Entry, list)->v);
    EXPECT_EQ(got, (std::vector<int>{1, 2, 3, 4}));
    list_splice_init(&a, &b);
    got.clear();
    list_for_each_prev_safe(pos, tmp, &b) got.push_back(container_of(pos, Entry, list)->v);
    EXPECT_EQ(got, (std::vector<int>{4, 3, 2, 1}));
}

TEST(Utils, ByteOrder)
{
    uint8_t raw[8];
    uint32_t be = cpu_to_be32(0x01020304);
    std::memcpy(raw, &be, 4);
    EXPECT_EQ(raw[0], 1);
    EXPECT_EQ(raw[3], 4);
    EXPECT_EQ(be32_to_cpu(be), 0x01020304u);
    EXPECT_EQ(be16_to_cpu(cpu_to_be16(0x1234)), 0x1234);
    EXPECT_EQ(be64_to_cpu(cpu_to_be64(0x0102030405060708ULL)), 0x0102030405060708ULL);
    uint64_t be64 = cpu_to_be64(0x0102030405060708ULL);
    std::memcpy(raw, &be64, 8);
    EXPECT_EQ(raw[0], 1);
    EXPECT_EQ(raw[7], 8);
    EXPECT_EQ(le32_to_cpu(cpu_to_le32(5u)), 5u);
    EXPECT_EQ(const_cpu_to_be32(0x01020304), be);
    static_assert(__constant_swap16(0x1234) == 0x3412);
    static_assert(__constant_swap64(0x0102030405060708ULL) == 0x0807060504030201ULL);
}

TEST(Utils, ArraySize)
{
    int a[7];
    (void) a;
    EXPECT_EQ(ARRAY_SIZE(a), 7u);
}

int fall(int x)
{
    int r = 0;
    switch (x) {
    case 0:
        r += 1;
        fallthrough;
    case 1:
        r += 2;
        break;
    default:
        break;
    }
    return r;
}

TEST(Utils, FallthroughMacro)
{
    EXPECT_EQ(fall(0), 3);
    EXPECT_EQ(fall(1), 2);
}

TEST(Utils, CallocA)
{
    struct S {
        int x;
        char *name;
        uint64_t *vals;
    };
    char *name;
    uint64_t *vals;
    S *s = static_cast<S *>(calloc_a(sizeof(S), &name, 6, &vals, 3 * sizeof(uint64_t)));
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->x, 0);
    EXPECT_GE(name, reinterpret_cast<char *>(s + 1));
    EXPECT_GE(reinterpret_cast<char *>(vals), name + 6);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(vals) % alignof(uint64_t), 0u);
    std::strcpy(name, "hello");
    vals[2] = 9;
    EXPECT_EQ(vals[0], 0u);
    std::free(s);
}

TEST(Utils, Base64)
{
    const struct {
        const char *in, *out;
    } cases[] = {{"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="},
                 {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}};
    for (const auto &c : cases) {
        char enc[32], dec[32];
        size_t n = std::strlen(c.in);
        EXPECT_EQ(b64_encode(c.in, n, enc, sizeof(enc)), static_cast<int>(std::strlen(c.out)));
        EXPECT_STREQ(enc, c.out);
        EXPECT_EQ(b64_decode(enc, dec, sizeof(dec)), static_cast<int>(n));
        EXPECT_STREQ(dec, c.in);
    }
    char small[4];
    EXPECT_EQ(b64_encode("foo", 3, small, sizeof(small)), -1);
    char out[16];
    EXPECT_EQ(b64_decode("Zm9", out, sizeof(out)), -1);
    EXPECT_EQ(b64_decode("Zm=v", out, sizeof(out)), -1);
    EXPECT_EQ(b64_decode("Z!9v", out, sizeof(out)), -1);
    EXPECT_EQ(b64_decode("Zm9v", out, 3), -1);
    EXPECT_EQ(B64_ENCODE_LEN(3), 5);
    EXPECT_EQ(B64_DECODE_LEN(4), 4);
}

}  // namespace
