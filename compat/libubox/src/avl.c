/*
 * AVL tree with parent links. Every node is also threaded on the tree's list in
 * key order; equal keys (when allowed) keep their insertion order because an
 * equal key always descends to the right.
 */
#include <string.h>

#include "libubox/avl.h"
#include "libubox/avl-cmp.h"
#include "libubox/blob.h"

void
avl_init(struct avl_tree *tree, avl_tree_comp comp, bool allow_dups, void *ptr)
{
	INIT_LIST_HEAD(&tree->list_head);
	tree->root = NULL;
	tree->count = 0;
	tree->allow_dups = allow_dups;
	tree->comp = comp;
	tree->cmp_ptr = ptr;
}

static inline int
avl_cmp(const struct avl_tree *tree, const void *a, const void *b)
{
	return tree->comp(a, b, tree->cmp_ptr);
}

static struct avl_node *
avl_list_node(struct list_head *l)
{
	return container_of(l, struct avl_node, list);
}

/* Moves back to the first node of a run of keys equal to node's key. */
static struct avl_node *
avl_run_start(const struct avl_tree *tree, struct avl_node *node)
{
	while (!node->leader && node->list.prev != &tree->list_head)
		node = avl_list_node(node->list.prev);
	return node;
}

/* Moves on to the last node of a run of keys equal to node's key. */
static struct avl_node *
avl_run_end(const struct avl_tree *tree, struct avl_node *node)
{
	while (node->list.next != &tree->list_head && !avl_list_node(node->list.next)->leader)
		node = avl_list_node(node->list.next);
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

/*
 * The nearest node at or below / at or above key. Of several nodes equal to the result's key, lessequal returns
 * the last and greaterequal (like avl_find) the first, in list order: callers walk back from a lessequal result
 * with avl_prev_element to see every node of its key.
 */
struct avl_node *
avl_find_lessequal(const struct avl_tree *tree, const void *key)
{
	struct avl_node *n = tree->root, *best = NULL;

	while (n) {
		int c = avl_cmp(tree, key, n->key);

		if (c == 0)
			return avl_run_end(tree, n);
		if (c < 0) {
			n = n->left;
		} else {
			best = n;
			n = n->right;
		}
	}
	return best ? avl_run_end(tree, best) : NULL;
}

struct avl_node *
avl_find_greaterequal(const struct avl_tree *tree, const void *key)
{
	struct avl_node *n = tree->root, *best = NULL;

	while (n) {
		int c = avl_cmp(tree, key, n->key);

		if (c == 0)
			return avl_run_start(tree, n);
		if (c > 0) {
			n = n->right;
		} else {
			best = n;
			n = n->left;
		}
	}
	return best ? avl_run_start(tree, best) : NULL;
}

static void
avl_replace_child(struct avl_tree *tree, struct avl_node *parent,
		  struct avl_node *old, struct avl_node *repl)
{
	if (!parent)
		tree->root = repl;
	else if (parent->left == old)
		parent->left = repl;
	else
		parent->right = repl;
}

static void
avl_rotate_left(struct avl_tree *tree, struct avl_node *x)
{
	struct avl_node *y = x->right;

	x->right = y->left;
	if (y->left)
		y->left->parent = x;
	y->parent = x->parent;
	avl_replace_child(tree, x->parent, x, y);
	y->left = x;
	x->parent = y;
}

static void
avl_rotate_right(struct avl_tree *tree, struct avl_node *x)
{
	struct avl_node *y = x->left;

	x->left = y->right;
	if (y->right)
		y->right->parent = x;
	y->parent = x->parent;
	avl_replace_child(tree, x->parent, x, y);
	y->right = x;
	x->parent = y;
}

/*
 * Restores balance at p (balance +2 or -2). Returns the new root of the
 * subtree and tells through *shrunk whether the subtree got one level lower
 * than it was before the rotation.
 */
static struct avl_node *
avl_rebalance(struct avl_tree *tree, struct avl_node *p, bool *shrunk)
{
	if (p->balance > 0) {
		struct avl_node *r = p->right;

		if (r->balance >= 0) {
			avl_rotate_left(tree, p);
			if (r->balance == 0) {
				p->balance = 1;
				r->balance = -1;
				*shrunk = false;
			} else {
				p->balance = 0;
				r->balance = 0;
				*shrunk = true;
			}
			return r;
		} else {
			struct avl_node *rl = r->left;

			avl_rotate_right(tree, r);
			avl_rotate_left(tree, p);
			p->balance = rl->balance > 0 ? -1 : 0;
			r->balance = rl->balance < 0 ? 1 : 0;
			rl->balance = 0;
			*shrunk = true;
			return rl;
		}
	} else {
		struct avl_node *l = p->left;

		if (l->balance <= 0) {
			avl_rotate_right(tree, p);
			if (l->balance == 0) {
				p->balance = -1;
				l->balance = 1;
				*shrunk = false;
			} else {
				p->balance = 0;
				l->balance = 0;
				*shrunk = true;
			}
			return l;
		} else {
			struct avl_node *lr = l->right;

			avl_rotate_left(tree, l);
			avl_rotate_right(tree, p);
			p->balance = lr->balance < 0 ? 1 : 0;
			l->balance = lr->balance > 0 ? -1 : 0;
			lr->balance = 0;
			*shrunk = true;
			return lr;
		}
	}
}

int
avl_insert(struct avl_tree *tree, struct avl_node *new_node)
{
	struct avl_node *parent = NULL, *n = tree->root, *pred = NULL;
	bool left = false;

	while (n) {
		int c = avl_cmp(tree, new_node->key, n->key);

		if (c == 0 && !tree->allow_dups)
			return -1;
		parent = n;
		if (c < 0) {
			n = n->left;
			left = true;
		} else {
			pred = n;
			n = n->right;
			left = false;
		}
	}

	new_node->parent = parent;
	new_node->left = new_node->right = NULL;
	new_node->balance = 0;
	new_node->leader = !(pred && avl_cmp(tree, pred->key, new_node->key) == 0);
	if (!parent)
		tree->root = new_node;
	else if (left)
		parent->left = new_node;
	else
		parent->right = new_node;

	/* the predecessor in the tree is the predecessor in the list */
	list_add(&new_node->list, pred ? &pred->list : &tree->list_head);
	tree->count++;

	for (n = new_node; parent; n = parent, parent = n->parent) {
		bool shrunk;

		parent->balance += (parent->left == n) ? -1 : 1;
		if (parent->balance == 0)
			break;
		if (parent->balance == 1 || parent->balance == -1)
			continue;
		avl_rebalance(tree, parent, &shrunk);
		break;
	}
	return 0;
}

/* p lost one level on its left (from_left) or right side; fix balances upwards. */
static void
avl_retrace_delete(struct avl_tree *tree, struct avl_node *p, bool from_left)
{
	while (p) {
		struct avl_node *top = p;

		p->balance += from_left ? 1 : -1;
		if (p->balance == 1 || p->balance == -1)
			return;
		if (p->balance != 0) {
			bool shrunk;

			top = avl_rebalance(tree, p, &shrunk);
			if (!shrunk)
				return;
		}
		p = top->parent;
		if (p)
			from_left = p->left == top;
	}
}

void
avl_delete(struct avl_tree *tree, struct avl_node *node)
{
	struct avl_node *parent = node->parent;

	/* a leader leaving hands the role to the next equal key */
	if (node->leader && node->list.next != &tree->list_head) {
		struct avl_node *next = avl_list_node(node->list.next);

		if (!next->leader)
			next->leader = true;
	}
	list_del(&node->list);
	tree->count--;

	if (node->left && node->right) {
		struct avl_node *s = node->right, *from;
		bool from_left;

		while (s->left)
			s = s->left;

		if (s->parent != node) {
			from = s->parent;
			from_left = true;
			from->left = s->right;
			if (s->right)
				s->right->parent = from;
			s->right = node->right;
			node->right->parent = s;
		} else {
			from = s;
			from_left = false;
		}
		s->left = node->left;
		node->left->parent = s;
		s->parent = parent;
		s->balance = node->balance;
		avl_replace_child(tree, parent, node, s);
		avl_retrace_delete(tree, from, from_left);
	} else {
		struct avl_node *child = node->left ? node->left : node->right;
		bool from_left = parent && parent->left == node;

		if (child)
			child->parent = parent;
		avl_replace_child(tree, parent, node, child);
		avl_retrace_delete(tree, parent, from_left);
	}
	node->parent = node->left = node->right = NULL;
}

int
avl_strcmp(const void *k1, const void *k2, void *ptr)
{
	(void)ptr;
	return strcmp((const char *)k1, (const char *)k2);
}

int
avl_blobcmp(const void *k1, const void *k2, void *ptr)
{
	const struct blob_attr *a = (const struct blob_attr *)k1;
	const struct blob_attr *b = (const struct blob_attr *)k2;
	size_t len = blob_raw_len(a);

	(void)ptr;
	if (blob_raw_len(b) < len)
		len = blob_raw_len(b);
	return memcmp(a, b, len);
}
