/*
 * avl-cmp.h - ready-made comparators for avl trees.
 */
#ifndef LIBUBOX_AVL_CMP_H
#define LIBUBOX_AVL_CMP_H

/* Keys are NUL-terminated strings, compared with strcmp. */
int avl_strcmp(const void *k1, const void *k2, void *ptr);
/* Keys are blob attributes, compared by padded length, then bytes. */
int avl_blobcmp(const void *k1, const void *k2, void *ptr);

#endif
