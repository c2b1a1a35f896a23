/* Comparators for avl trees. */
#ifndef LIBUBOX_AVL_CMP_H
#define LIBUBOX_AVL_CMP_H

#ifdef __cplusplus
extern "C" {
#endif

/* strcmp on two NUL-terminated keys */
int avl_strcmp(const void *k1, const void *k2, void *ptr);
/* memcmp of two blob attributes over the shorter raw length */
int avl_blobcmp(const void *k1, const void *k2, void *ptr);

#ifdef __cplusplus
}
#endif

#endif
