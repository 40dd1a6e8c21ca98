/*
 * avl.c - height-balanced search trees whose nodes also sit on an ordered
 * list. The list gives in-order iteration without walking the tree.
 *
 * Here the node's "balance" member holds the height of the node's subtree
 * (a signed char is plenty: a height of 127 would need 2^63 nodes); it is
 * internal to this file. After every change the heights are recomputed on
 * the path to the root and any node whose subtrees differ by more than one
 * level is rotated back into shape.
 */
#include <libubox/avl.h>
#include <libubox/avl-cmp.h>
#include <libubox/blob.h>

#include <string.h>

static int
avl_height(const struct avl_node *n)
{
	return n ? n->balance : 0;
}

static void
avl_update(struct avl_node *n)
{
	int l = avl_height(n->left), r = avl_height(n->right);

	n->balance = (signed char) (1 + (l > r ? l : r));
}

/* Puts child where node hangs from its parent (or at the root). */
static void
avl_replace(struct avl_tree *tree, struct avl_node *node, struct avl_node *child)
{
	struct avl_node *parent = node->parent;

	if (child)
		child->parent = parent;
	if (!parent)
		tree->root = child;
	else if (parent->left == node)
		parent->left = child;
	else
		parent->right = child;
}

static void
avl_rotate_left(struct avl_tree *tree, struct avl_node *x)
{
	struct avl_node *y = x->right;

	avl_replace(tree, x, y);
	x->right = y->left;
	if (x->right)
		x->right->parent = x;
	y->left = x;
	x->parent = y;
	avl_update(x);
	avl_update(y);
}

static void
avl_rotate_right(struct avl_tree *tree, struct avl_node *x)
{
	struct avl_node *y = x->left;

	avl_replace(tree, x, y);
	x->left = y->right;
	if (x->left)
		x->left->parent = x;
	y->right = x;
	x->parent = y;
	avl_update(x);
	avl_update(y);
}

static void
avl_rebalance(struct avl_tree *tree, struct avl_node *n)
{
	while (n) {
		int diff;

		avl_update(n);
		diff = avl_height(n->right) - avl_height(n->left);
		if (diff > 1) {
			if (avl_height(n->right->right) < avl_height(n->right->left))
				avl_rotate_right(tree, n->right);
			avl_rotate_left(tree, n);
			n = n->parent;
		} else if (diff < -1) {
			if (avl_height(n->left->left) < avl_height(n->left->right))
				avl_rotate_left(tree, n->left);
			avl_rotate_right(tree, n);
			n = n->parent;
		}
		n = n->parent;
	}
}

static int
avl_cmp(const struct avl_tree *tree, const void *k1, const void *k2)
{
	return tree->comp(k1, k2, tree->cmp_ptr);
}

void
avl_init(struct avl_tree *tree, avl_tree_comp comp, bool allow_dups, void *ptr)
{
	INIT_LIST_HEAD(&tree->list_head);
	tree->root = NULL;
	tree->count = 0;
	tree->comp = comp;
	tree->allow_dups = allow_dups;
	tree->cmp_ptr = ptr;
}

static struct avl_node *
avl_list_node(const struct avl_tree *tree, const struct list_head *l)
{
	if (l == &tree->list_head)
		return NULL;
	return container_of(l, struct avl_node, list);
}

/* With duplicates, the first node of the run of keys equal to node's. */
static struct avl_node *
avl_run_start(const struct avl_tree *tree, struct avl_node *node)
{
	struct avl_node *prev;

	while ((prev = avl_list_node(tree, node->list.prev)) &&
	       avl_cmp(tree, prev->key, node->key) == 0)
		node = prev;
	return node;
}

struct avl_node *
avl_find(const struct avl_tree *tree, const void *key)
{
	struct avl_node *n = tree->root;

	while (n) {
		int c = avl_cmp(tree, key, n->key);

		if (c == 0)
			return avl_run_start(tree, n);
		n = c < 0 ? n->left : n->right;
	}
	return NULL;
}

struct avl_node *
avl_find_greaterequal(const struct avl_tree *tree, const void *key)
{
	struct avl_node *n = tree->root, *best = NULL;

	while (n) {
		int c = avl_cmp(tree, key, n->key);

		if (c == 0)
			return avl_run_start(tree, n);
		if (c < 0) {
			best = n;
			n = n->left;
		} else {
			n = n->right;
		}
	}
	return best;
}

struct avl_node *
avl_find_lessequal(const struct avl_tree *tree, const void *key)
{
	struct avl_node *n = tree->root, *best = NULL;

	while (n) {
		int c = avl_cmp(tree, key, n->key);

		if (c == 0)
			return avl_run_start(tree, n);
		if (c > 0) {
			best = n;
			n = n->right;
		} else {
			n = n->left;
		}
	}
	return best;
}

int
avl_insert(struct avl_tree *tree, struct avl_node *node)
{
	struct avl_node *parent = NULL, *cur = tree->root;
	struct avl_node *prev;
	int c = 0;

	/* equal keys go right, so a duplicate lands after the ones already there */
	while (cur) {
		c = avl_cmp(tree, node->key, cur->key);
		if (c == 0 && !tree->allow_dups)
			return -1;
		parent = cur;
		cur = c < 0 ? cur->left : cur->right;
	}

	node->parent = parent;
	node->left = node->right = NULL;
	node->balance = 1;

	if (!parent) {
		tree->root = node;
		list_add(&node->list, &tree->list_head);
	} else if (c < 0) {
		parent->left = node;
		list_add_tail(&node->list, &parent->list);
	} else {
		parent->right = node;
		list_add(&node->list, &parent->list);
	}

	prev = avl_list_node(tree, node->list.prev);
	node->leader = !prev || avl_cmp(tree, prev->key, node->key) != 0;

	tree->count++;
	avl_rebalance(tree, parent);
	return 0;
}

void
avl_delete(struct avl_tree *tree, struct avl_node *node)
{
	struct avl_node *next = avl_list_node(tree, node->list.next);
	struct avl_node *fix;

	if (node->leader && next && avl_cmp(tree, next->key, node->key) == 0)
		next->leader = true;
	list_del(&node->list);

	if (node->left && node->right) {
		/* the in-order successor takes the node's place */
		struct avl_node *s = node->right;

		while (s->left)
			s = s->left;
		fix = s;
		if (s->parent != node) {
			fix = s->parent;
			avl_replace(tree, s, s->right);
			s->right = node->right;
			s->right->parent = s;
		}
		avl_replace(tree, node, s);
		s->left = node->left;
		s->left->parent = s;
	} else {
		fix = node->parent;
		avl_replace(tree, node, node->left ? node->left : node->right);
	}

	node->parent = node->left = node->right = NULL;
	tree->count--;
	avl_rebalance(tree, fix);
}

int
avl_strcmp(const void *k1, const void *k2, void *ptr)
{
	(void) ptr;
	return strcmp(k1, k2);
}

int
avl_blobcmp(const void *k1, const void *k2, void *ptr)
{
	const struct blob_attr *a1 = k1, *a2 = k2;
	size_t l1 = blob_pad_len(a1), l2 = blob_pad_len(a2);

	(void) ptr;
	if (l1 != l2)
		return l1 < l2 ? -1 : 1;
	return memcmp(a1, a2, l1);
}
