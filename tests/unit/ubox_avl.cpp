// The avl tree against a reference multimap under random inserts and deletes,
// checking the tree's invariants after every step; plus the list splices and
// the multi-part allocation.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <cstdint>
#include <map>
#include <random>
#include <vector>

#include <libubox/avl-cmp.h>
#include <libubox/avl.h>
#include <libubox/list.h>
#include <libubox/utils.h>

namespace {

struct Item {
	avl_node node{};
	int key = 0;
	int seq = 0;
};

int cmp_int(const void *a, const void *b, void *)
{
	int x = *(const int *)a, y = *(const int *)b;
	return (x > y) - (x < y);
}

// Returns the height of the subtree and checks links, order and balance on the way.
int check_subtree(const avl_tree *t, const avl_node *n, const avl_node *parent, int &count)
{
	if (!n)
		return 0;
	count++;
	EXPECT_EQ(n->parent, parent);
	if (n->left) {
		EXPECT_LE(cmp_int(n->left->key, n->key, nullptr), 0);
	}
	if (n->right) {
		EXPECT_GE(cmp_int(n->right->key, n->key, nullptr), 0);
	}
	int l = check_subtree(t, n->left, n, count);
	int r = check_subtree(t, n->right, n, count);
	EXPECT_EQ(n->balance, r - l) << "stored balance of key " << *(const int *)n->key;
	EXPECT_LE(std::abs(r - l), 1);
	return 1 + std::max(l, r);
}

void check_tree(avl_tree *t, const std::multimap<int, int> &ref)
{
	int count = 0;
	int h = check_subtree(t, t->root, nullptr, count);
	ASSERT_EQ((size_t)count, ref.size());
	ASSERT_EQ(t->count, ref.size());
	// an AVL tree of n nodes is at most about 1.44 log2(n + 2) high
	if (count) {
		EXPECT_LE(h, (int)(1.45 * std::log2(count + 2)) + 1);
	}

	// the list walks keys in order, equal keys in insertion order, leaders first of each run
	auto it = ref.begin();
	Item *e;
	int prev_key = INT32_MIN;
	avl_for_each_element(t, e, node) {
		ASSERT_NE(it, ref.end());
		EXPECT_EQ(e->key, it->first);
		EXPECT_EQ(e->seq, it->second);
		EXPECT_EQ(e->node.leader, e->key != prev_key);
		prev_key = e->key;
		++it;
	}
	EXPECT_EQ(it, ref.end());
}

TEST(UboxAvl, RandomInsertDeleteKeepsTheTreeBalancedAndOrdered)
{
	std::mt19937 rng(12345);
	avl_tree t;
	avl_init(&t, cmp_int, true, nullptr);
	std::vector<std::unique_ptr<Item>> live;
	std::multimap<int, int> ref;
	int seq = 0;
	for (int step = 0; step < 4000; step++) {
		bool insert = live.empty() || rng() % 3 != 0;
		if (insert) {
			auto it = std::make_unique<Item>();
			it->key = (int)(rng() % 200);
			it->seq = seq++;
			it->node.key = &it->key;
			ASSERT_EQ(avl_insert(&t, &it->node), 0);
			ref.emplace(it->key, it->seq);	// multimap keeps equal keys in insertion order
			live.push_back(std::move(it));
		} else {
			size_t i = rng() % live.size();
			Item *it = live[i].get();
			avl_delete(&t, &it->node);
			auto range = ref.equal_range(it->key);
			for (auto r = range.first; r != range.second; ++r) {
				if (r->second == it->seq) {
					ref.erase(r);
					break;
				}
			}
			live.erase(live.begin() + (long)i);
		}
		if (step % 50 == 0 || step > 3900)
			check_tree(&t, ref);
		if (HasFatalFailure())
			return;
	}
	check_tree(&t, ref);

	// lookups: exact finds the first of equal keys, the nearest forms go down or up
	for (int k = -1; k <= 201; k++) {
		auto lb = ref.lower_bound(k);
		Item *e = nullptr;
		e = avl_find_element(&t, &k, e, node);
		if (lb != ref.end() && lb->first == k) {
			ASSERT_NE(e, nullptr);
			EXPECT_EQ(e->seq, lb->second) << "first of the run for " << k;
		} else {
			EXPECT_EQ(e, nullptr);
		}
		Item *ge = nullptr;
		ge = avl_find_ge_element(&t, &k, ge, node);
		if (lb == ref.end()) {
			EXPECT_EQ(ge, nullptr);
		} else if (ge) {
			EXPECT_EQ(ge->key, lb->first);
		} else {
			ADD_FAILURE() << "no >= match for " << k;
		}
		Item *le = nullptr;
		le = avl_find_le_element(&t, &k, le, node);
		auto ub = ref.upper_bound(k);
		if (ub == ref.begin()) {
			EXPECT_EQ(le, nullptr);
		} else if (le) {
			EXPECT_EQ(le->key, std::prev(ub)->first);
		} else {
			ADD_FAILURE() << "no <= match for " << k;
		}
	}

	// emptying while iterating leaves nothing behind
	Item *e, *tmp;
	size_t removed = 0;
	avl_remove_all_elements(&t, e, node, tmp) {
		EXPECT_EQ(tmp, e);
		removed++;
	}
	EXPECT_EQ(removed, ref.size());
	EXPECT_TRUE(avl_is_empty(&t));
	EXPECT_EQ(t.root, nullptr);
	EXPECT_TRUE(list_empty(&t.list_head));
}

TEST(UboxAvl, UniqueKeysAndStringComparator)
{
	struct Named {
		avl_node node{};
		const char *name;
	};
	AVL_TREE(t, avl_strcmp, false, nullptr);
	Named a{{}, "beta"}, b{{}, "alpha"}, c{{}, "gamma"}, dup{{}, "beta"};
	for (Named *n : {&a, &b, &c, &dup})
		n->node.key = n->name;
	EXPECT_EQ(avl_insert(&t, &a.node), 0);
	EXPECT_EQ(avl_insert(&t, &b.node), 0);
	EXPECT_EQ(avl_insert(&t, &c.node), 0);
	EXPECT_EQ(avl_insert(&t, &dup.node), -1) << "duplicates refused";
	EXPECT_EQ(t.count, 3u);
	std::vector<std::string> order;
	Named *n, *tmp;
	avl_for_each_element_reverse(&t, n, node) order.push_back(n->name);
	EXPECT_EQ(order, (std::vector<std::string>{"gamma", "beta", "alpha"}));
	EXPECT_TRUE(avl_is_first(&t, &b.node));
	EXPECT_TRUE(avl_is_last(&t, &c.node));
	avl_for_each_element_safe(&t, n, node, tmp) avl_delete(&t, &n->node);
	EXPECT_TRUE(avl_is_empty(&t));
}

TEST(UboxList, SpliceMoveAndDelete)
{
	struct E {
		list_head l;
		int v;
	} e[6];
	LIST_HEAD(a);
	LIST_HEAD(b);
	for (int i = 0; i < 3; i++) {
		e[i].v = i;
		list_add_tail(&e[i].l, &a);	// a: 0 1 2
	}
	for (int i = 3; i < 6; i++) {
		e[i].v = i;
		list_add(&e[i].l, &b);		// b: 5 4 3
	}
	auto values = [](list_head *h) {
		std::vector<int> v;
		E *p;
		list_for_each_entry(p, h, l) v.push_back(p->v);
		return v;
	};
	list_splice_tail_init(&b, &a);
	EXPECT_EQ(values(&a), (std::vector<int>{0, 1, 2, 5, 4, 3}));
	EXPECT_TRUE(list_empty(&b));
	list_move(&e[3].l, &b);
	list_move_tail(&e[0].l, &b);
	EXPECT_EQ(values(&b), (std::vector<int>{3, 0}));
	list_splice_init(&b, &a);
	EXPECT_EQ(values(&a), (std::vector<int>{3, 0, 1, 2, 5, 4}));
	list_del(&e[1].l);
	EXPECT_EQ(e[1].l.next, nullptr);
	list_del_init(&e[2].l);
	EXPECT_TRUE(list_empty(&e[2].l));
	std::vector<int> rev;
	E *p, *q;
	list_for_each_entry_reverse(p, &a, l) rev.push_back(p->v);
	EXPECT_EQ(rev, (std::vector<int>{4, 5, 0, 3}));
	list_for_each_entry_safe(p, q, &a, l) list_del(&p->l);
	EXPECT_TRUE(list_empty(&a));
}

TEST(UboxUtils, CallocAPartsAreZeroedAlignedAndDisjoint)
{
	char *s = nullptr;
	uint64_t *u = nullptr;
	char *base = (char *)calloc_a(3, &s, (size_t)5, &u, sizeof(uint64_t) * 4);
	ASSERT_NE(base, nullptr);
	EXPECT_GE(s, base + 3);
	EXPECT_GE((char *)u, s + 5);
	EXPECT_EQ((uintptr_t)u % alignof(uint64_t), 0u);
	for (int i = 0; i < 4; i++)
		EXPECT_EQ(u[i], 0u);
	memset(base, 1, 3);
	memset(s, 2, 5);
	u[3] = 7;	// writing the last part stays inside the allocation (ASan checks)
	free(base);

	EXPECT_EQ(be32_to_cpu(cpu_to_be32(0x01020304u)), 0x01020304u);
	uint32_t v = cpu_to_be32(0x01020304u);
	EXPECT_EQ(((uint8_t *)&v)[0], 1);
	uint64_t w = cpu_to_be64(0x0102030405060708ull);
	EXPECT_EQ(((uint8_t *)&w)[7], 8);
	int arr[7];
	EXPECT_EQ(ARRAY_SIZE(arr), 7u);
}

} // namespace
