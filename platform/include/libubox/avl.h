/*
 * avl.h - balanced binary search trees whose nodes are also kept on an
 * ordered list, so that iteration is a plain list walk.
 *
 * The node and tree layouts are the ones other platform headers embed
 * (libubus keeps its objects in these trees).
 */
#ifndef LIBUBOX_AVL_H
#define LIBUBOX_AVL_H

#include <stddef.h>
#include <stdbool.h>

#include "list.h"

struct avl_node {
	/* position on the tree's ordered list; first member on purpose */
	struct list_head list;
	struct avl_node *parent;
	struct avl_node *left;
	struct avl_node *right;
	/* the key, owned by the user; the comparator reads it */
	const void *key;
	/* height of the right subtree minus height of the left one */
	signed char balance;
	/* with duplicates allowed: true for the first node of a run of equal keys */
	bool leader;
};

/* Returns <0, 0 or >0 as k1 sorts before, equal to or after k2. */
typedef int (*avl_tree_comp) (const void *k1, const void *k2, void *ptr);

struct avl_tree {
	struct list_head list_head;
	struct avl_node *root;
	unsigned int count;
	bool allow_dups;
	avl_tree_comp comp;
	void *cmp_ptr;
};

enum avl_find_mode {
	AVL_FIND_EQUAL,
	AVL_FIND_LESSEQUAL,
	AVL_FIND_GREATEREQUAL
};

/* Designators out of declaration order: C only, as on the router. */
#define AVL_TREE_INIT(_name, _comp, _allow_dups, _cmp_ptr)		\
	{								\
		.list_head = LIST_HEAD_INIT(_name.list_head),		\
		.comp = _comp,						\
		.allow_dups = _allow_dups,				\
		.cmp_ptr = _cmp_ptr					\
	}

#define AVL_TREE(_name, _comp, _allow_dups, _cmp_ptr)			\
	struct avl_tree _name =						\
		AVL_TREE_INIT(_name, _comp, _allow_dups, _cmp_ptr)

void avl_init(struct avl_tree *, avl_tree_comp, bool, void *);
struct avl_node *avl_find(const struct avl_tree *, const void *);
struct avl_node *avl_find_greaterequal(const struct avl_tree *tree, const void *key);
struct avl_node *avl_find_lessequal(const struct avl_tree *tree, const void *key);
int avl_insert(struct avl_tree *, struct avl_node *);
void avl_delete(struct avl_tree *, struct avl_node *);

static inline bool
avl_is_first(struct avl_tree *tree, struct avl_node *node)
{
	return tree->list_head.next == &node->list;
}

static inline bool
avl_is_last(struct avl_tree *tree, struct avl_node *node)
{
	return tree->list_head.prev == &node->list;
}

static inline bool
avl_is_empty(struct avl_tree *tree)
{
	return tree->count == 0;
}

/* Internal: the element holding the node found, or NULL. */
#define __avl_find_element(tree, key, element, node_element, avl_find_func) \
	({								\
		struct avl_node *_avlnode = avl_find_func(tree, key);	\
		_avlnode ? container_of(_avlnode, __typeof__(*(element)), node_element) : NULL; \
	})

#define avl_find_element(tree, key, element, node_element)		\
	((typeof(*(element)) *)__avl_find_element(tree, key, element, node_element, avl_find))
#define avl_find_le_element(tree, key, element, node_element)		\
	((typeof(*(element)) *)__avl_find_element(tree, key, element, node_element, avl_find_lessequal))
#define avl_find_ge_element(tree, key, element, node_element)		\
	((typeof(*(element)) *)__avl_find_element(tree, key, element, node_element, avl_find_greaterequal))

#define avl_first_element(tree, element, node_member)			\
	container_of((tree)->list_head.next, __typeof__(*(element)), node_member.list)
#define avl_last_element(tree, element, node_member)			\
	container_of((tree)->list_head.prev, __typeof__(*(element)), node_member.list)
#define avl_next_element(element, node_member)				\
	container_of((&(element)->node_member.list)->next, __typeof__(*(element)), node_member.list)
#define avl_prev_element(element, node_member)				\
	container_of((&(element)->node_member.list)->prev, __typeof__(*(element)), node_member.list)

/* Walk from first to last, both included. */
#define avl_for_element_range(first, last, element, node_member)	\
	for (element = (first);						\
	     element->node_member.list.prev != &(last)->node_member.list; \
	     element = avl_next_element(element, node_member))

#define avl_for_element_range_reverse(first, last, element, node_member) \
	for (element = (last);						\
	     element->node_member.list.next != &(first)->node_member.list; \
	     element = avl_prev_element(element, node_member))

#define avl_for_each_element(tree, element, node_member)		\
	for (element = avl_first_element(tree, element, node_member);	\
	     &element->node_member.list != &(tree)->list_head;		\
	     element = avl_next_element(element, node_member))

#define avl_for_each_element_reverse(tree, element, node_member)	\
	for (element = avl_last_element(tree, element, node_member);	\
	     &element->node_member.list != &(tree)->list_head;		\
	     element = avl_prev_element(element, node_member))

#define avl_for_element_to_last(tree, first, element, node_member)	\
	for (element = (first); &element->node_member.list != &(tree)->list_head; \
	     element = avl_next_element(element, node_member))

#define avl_for_first_to_element(tree, last, element, node_member)	\
	avl_for_element_range(avl_first_element(tree, element, node_member), last, element, node_member)

/* The current element may be deleted inside the loop; ptr is scratch. */
#define avl_for_each_element_safe(tree, element, node_member, ptr)	\
	for (element = avl_first_element(tree, element, node_member),	\
	     ptr = avl_next_element(element, node_member);		\
	     &element->node_member.list != &(tree)->list_head;		\
	     element = ptr, ptr = avl_next_element(ptr, node_member))

#define avl_for_each_element_reverse_safe(tree, element, node_member, ptr) \
	for (element = avl_last_element(tree, element, node_member),	\
	     ptr = avl_prev_element(element, node_member);		\
	     &element->node_member.list != &(tree)->list_head;		\
	     element = ptr, ptr = avl_prev_element(ptr, node_member))

/* Unlinks every node (the tree ends empty); the body may free element. */
#define avl_remove_all_elements(tree, element, node_member, ptr)	\
	for (element = avl_first_element(tree, element, node_member),	\
	     ptr = avl_next_element(element, node_member),		\
	     INIT_LIST_HEAD(&(tree)->list_head),			\
	     (tree)->root = NULL, (tree)->count = 0;			\
	     &(element)->node_member.list != &(tree)->list_head;	\
	     element = ptr, ptr = avl_next_element(ptr, node_member))

#endif
