/*
 * Balanced binary tree (AVL) whose nodes are also threaded on a list in key
 * order, so ordered iteration is a plain list walk.
 */
#ifndef LIBUBOX_AVL_H
#define LIBUBOX_AVL_H

#include <stddef.h>
#include <stdbool.h>

#include "list.h"

#ifdef __cplusplus
extern "C" {
#endif

struct avl_node {
	struct list_head list;		/* first member: a node can be used as a list_head */
	struct avl_node *parent;
	struct avl_node *left;
	struct avl_node *right;
	const void *key;
	signed char balance;		/* height(right) - height(left) */
	bool leader;			/* first node of a run of equal keys */
};

typedef int (*avl_tree_comp) (const void *k1, const void *k2, void *ptr);

struct avl_tree {
	struct list_head list_head;
	struct avl_node *root;
	unsigned int count;
	bool allow_dups;
	avl_tree_comp comp;
	void *cmp_ptr;
};

void avl_init(struct avl_tree *tree, avl_tree_comp comp, bool allow_dups, void *ptr);
struct avl_node *avl_find(const struct avl_tree *tree, const void *key);
struct avl_node *avl_find_greaterequal(const struct avl_tree *tree, const void *key);
struct avl_node *avl_find_lessequal(const struct avl_tree *tree, const void *key);
int avl_insert(struct avl_tree *tree, struct avl_node *node);
void avl_delete(struct avl_tree *tree, struct avl_node *node);

#define AVL_TREE_INIT(_name, _comp, _allow_dups, _cmp_ptr)		\
	{								\
		.list_head = LIST_HEAD_INIT(_name.list_head),		\
		.root = NULL,						\
		.count = 0,						\
		.allow_dups = _allow_dups,				\
		.comp = _comp,						\
		.cmp_ptr = _cmp_ptr					\
	}

#define AVL_TREE(_name, _comp, _allow_dups, _cmp_ptr)			\
	struct avl_tree _name =						\
		AVL_TREE_INIT(_name, _comp, _allow_dups, _cmp_ptr)

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

#define __avl_node_to_element(node, element, node_member)		\
	((node) ? container_of(node, __typeof__(*(element)), node_member) : NULL)

#define avl_find_element(tree, key, element, node_member)		\
	({ struct avl_node *__avl_n = avl_find(tree, key);		\
	   (__typeof__(element)) __avl_node_to_element(__avl_n, element, node_member); })

#define avl_find_le_element(tree, key, element, node_member)		\
	({ struct avl_node *__avl_n = avl_find_lessequal(tree, key);	\
	   (__typeof__(element)) __avl_node_to_element(__avl_n, element, node_member); })

#define avl_find_ge_element(tree, key, element, node_member)		\
	({ struct avl_node *__avl_n = avl_find_greaterequal(tree, key);	\
	   (__typeof__(element)) __avl_node_to_element(__avl_n, element, node_member); })

#define avl_first_element(tree, element, node_member)			\
	container_of((tree)->list_head.next, __typeof__(*(element)), node_member.list)

#define avl_last_element(tree, element, node_member)			\
	container_of((tree)->list_head.prev, __typeof__(*(element)), node_member.list)

#define avl_next_element(element, node_member)				\
	container_of((&(element)->node_member.list)->next, __typeof__(*(element)), node_member.list)

#define avl_prev_element(element, node_member)				\
	container_of((&(element)->node_member.list)->prev, __typeof__(*(element)), node_member.list)

#define avl_for_each_element(tree, element, node_member)		\
	for (element = avl_first_element(tree, element, node_member);	\
	     &(element)->node_member.list != &(tree)->list_head;	\
	     element = avl_next_element(element, node_member))

#define avl_for_each_element_reverse(tree, element, node_member)	\
	for (element = avl_last_element(tree, element, node_member);	\
	     &(element)->node_member.list != &(tree)->list_head;	\
	     element = avl_prev_element(element, node_member))

#define avl_for_each_element_safe(tree, element, node_member, ptr)	\
	for (element = avl_first_element(tree, element, node_member),	\
	     ptr = avl_next_element(element, node_member);		\
	     &(element)->node_member.list != &(tree)->list_head;	\
	     element = ptr, ptr = avl_next_element(ptr, node_member))

#define avl_for_each_element_reverse_safe(tree, element, node_member, ptr) \
	for (element = avl_last_element(tree, element, node_member),	\
	     ptr = avl_prev_element(element, node_member);		\
	     &(element)->node_member.list != &(tree)->list_head;	\
	     element = ptr, ptr = avl_prev_element(ptr, node_member))

/*
 * Empties the tree: each pass unlinks the first element before the body runs,
 * so the body may free it (ptr holds the same element). The body must not
 * touch the tree.
 */
#define avl_remove_all_elements(tree, element, node_member, ptr)	\
	for (element = NULL, ptr = NULL;				\
	     !avl_is_empty(tree) &&					\
	     ((element = avl_first_element(tree, element, node_member)), \
	      avl_delete(tree, &(element)->node_member), (ptr = element), 1); )

#ifdef __cplusplus
}
#endif

#endif
