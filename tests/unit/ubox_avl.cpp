// libubox's avl tree and list, the one place that tests them: a table of the lookup, order and delete rules of
// the facts sheet (list.h, avl.h: equal keys kept in insertion order, avl_find and avl_find_greaterequal give the
// first of equal keys and avl_find_lessequal the last, which rpcd walks back from), the tree against a reference
// multimap under random inserts and deletes with its invariants checked, the list corners, and calloc_a.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <libubox/avl-cmp.h>
#include <libubox/avl.h>
#include <libubox/list.h>
#include <libubox/utils.h>

namespace {

struct Item {
	avl_node node{};
	int key = 0;
	int seq = 0;	// insertion number, or a letter naming the item in the table below
};

int cmp_int(const void *a, const void *b, void *)
{
	int x = *(const int *)a, y = *(const int *)b;
	return (x > y) - (x < y);
}

Item *item(avl_node *n)
{
	return n ? container_of(n, Item, node) : nullptr;
}

// The items in list order as "key+name" words, e.g. "3b 5a"; a wrong leader flag shows as "(leader?)".
std::string order(avl_tree *t)
{
	std::string r;
	Item *e;
	int prev = INT32_MIN;
	avl_for_each_element(t, e, node) {
		r += (r.empty() ? "" : " ") + std::to_string(e->key) + char(e->seq);
		if (e->node.leader != (e->key != prev))
			r += "(leader?)";
		prev = e->key;
	}
	return r;
}

TEST(UboxAvl, LookupsOrderAndDeletesFollowTheRules)
{
	// 3b 3f 5a 5c 5e 7d once inserted (equal keys in insertion order)
	std::map<char, Item> items;
	AVL_TREE(t, cmp_int, true, nullptr);
	EXPECT_TRUE(avl_is_empty(&t));
	int four = 4;
	EXPECT_EQ(avl_find(&t, &four), nullptr);
	EXPECT_EQ(avl_find_lessequal(&t, &four), nullptr);
	EXPECT_EQ(avl_find_greaterequal(&t, &four), nullptr);
	for (auto [key, name] : std::vector<std::pair<int, char>>{{5, 'a'}, {3, 'b'}, {5, 'c'}, {7, 'd'}, {5, 'e'}, {3, 'f'}}) {
		Item &it = items[name];
		it.key = key;
		it.seq = name;
		it.node.key = &it.key;
		ASSERT_EQ(avl_insert(&t, &it.node), 0);
	}
	EXPECT_EQ(order(&t), "3b 3f 5a 5c 5e 7d");
	EXPECT_TRUE(avl_is_first(&t, &items['b'].node));
	EXPECT_TRUE(avl_is_last(&t, &items['d'].node));
	Item *e = nullptr;
	EXPECT_EQ(avl_first_element(&t, e, node), &items['b']);
	EXPECT_EQ(avl_last_element(&t, e, node), &items['d']);

	// op: f find, l lessequal, g greaterequal, x delete the item named `want` (then `want` is what `order` shows)
	struct Step {
		char op;
		int key;
		char want;	// the item found, '-' for none
		const char *order = nullptr;
	};
	const Step steps[] = {
		{'f', 5, 'a'}, {'f', 3, 'b'}, {'f', 4, '-'}, {'f', 8, '-'},
		{'l', 5, 'e'}, {'l', 6, 'e'}, {'l', 3, 'f'}, {'l', 4, 'f'}, {'l', 9, 'd'}, {'l', 2, '-'},
		{'g', 5, 'a'}, {'g', 4, 'a'}, {'g', 0, 'b'}, {'g', 6, 'd'}, {'g', 8, '-'},
		{'x', 0, 'a', "3b 3f 5c 5e 7d"},	// the first of a run goes: the next one leads
		{'f', 5, 'c'}, {'g', 5, 'c'}, {'l', 5, 'e'},
		{'x', 0, 'e', "3b 3f 5c 7d"},		// the last of a run goes
		{'l', 5, 'c'}, {'l', 6, 'c'}, {'g', 5, 'c'},
		{'x', 0, 'c', "3b 3f 7d"},		// the run is gone
		{'f', 5, '-'}, {'l', 5, 'f'}, {'g', 5, 'd'},
	};
	for (const Step &s : steps) {
		SCOPED_TRACE(std::string(1, s.op) + " " + std::to_string(s.key) + " " + s.want);
		if (s.op == 'x') {
			avl_delete(&t, &items[s.want].node);
			EXPECT_EQ(order(&t), s.order);
			continue;
		}
		avl_node *n = s.op == 'f' ? avl_find(&t, &s.key)
			: s.op == 'l' ? avl_find_lessequal(&t, &s.key) : avl_find_greaterequal(&t, &s.key);
		EXPECT_EQ(item(n), s.want == '-' ? nullptr : &items[s.want]);
	}
}

// rpcd matches its access lists by taking avl_find_le_element on a name and walking back with avl_prev_element
// until avl_is_first: every entry of that name must be seen.
TEST(UboxAvl, WalkingBackFromTheLessEqualMatchSeesEveryEqualKey)
{
	struct Acl {
		avl_node avl{};
		const char *object;
		int n;
	} acl[] = {{{}, "file", 1}, {{}, "session", 2}, {{}, "session", 3}, {{}, "uci", 4}, {{}, "session", 5}};
	AVL_TREE(t, avl_strcmp, true, nullptr);
	for (Acl &a : acl) {
		a.avl.key = a.object;
		ASSERT_EQ(avl_insert(&t, &a.avl), 0);
	}
	Acl *a = nullptr;
	a = avl_find_le_element(&t, "session", a, avl);
	std::vector<int> seen;
	while (a) {
		if (strcmp(a->object, "session"))
			break;
		seen.push_back(a->n);
		if (avl_is_first(&t, &a->avl))
			break;
		a = avl_prev_element(a, avl);
	}
	EXPECT_EQ(seen, (std::vector<int>{5, 3, 2}));
	Acl dup{{}, "x", 0};
	AVL_TREE(unique, avl_strcmp, false, nullptr);
	dup.avl.key = dup.object;
	EXPECT_EQ(avl_insert(&unique, &dup.avl), 0);
	EXPECT_EQ(avl_insert(&unique, &acl[0].avl), 0);
	Acl again{{}, "x", 0};
	again.avl.key = again.object;
	EXPECT_EQ(avl_insert(&unique, &again.avl), -1) << "a tree without duplicates refuses an equal key";
}

// Returns the height of the subtree and checks links, order and stored balance on the way.
int check_subtree(const avl_node *n, const avl_node *parent, int &count)
{
	if (!n)
		return 0;
	count++;
	EXPECT_EQ(n->parent, parent);
	EXPECT_TRUE(!n->left || cmp_int(n->left->key, n->key, nullptr) <= 0);
	EXPECT_TRUE(!n->right || cmp_int(n->right->key, n->key, nullptr) >= 0);
	int l = check_subtree(n->left, n, count);
	int r = check_subtree(n->right, n, count);
	EXPECT_EQ(n->balance, r - l);
	EXPECT_LE(std::abs(r - l), 1);
	return 1 + std::max(l, r);
}

void check_tree(avl_tree *t, const std::multimap<int, int> &ref)
{
	int count = 0;
	int h = check_subtree(t->root, nullptr, count);
	ASSERT_EQ((size_t)count, ref.size());
	ASSERT_EQ(t->count, ref.size());
	EXPECT_LE(h, (int)(1.45 * std::log2(count + 2)) + 1);	// an AVL tree's height bound
	auto it = ref.begin();
	Item *e;
	int prev_key = INT32_MIN;
	avl_for_each_element(t, e, node) {	// keys in order, equal keys in insertion order, leaders first of a run
		ASSERT_NE(it, ref.end());
		EXPECT_EQ(e->key, it->first);
		EXPECT_EQ(e->seq, it->second);
		EXPECT_EQ(e->node.leader, e->key != prev_key);
		prev_key = e->key;
		++it;
	}
	EXPECT_EQ(it, ref.end());
}

TEST(UboxAvl, RandomInsertsAndDeletesKeepTheTreeBalancedAndOrdered)
{
	std::mt19937 rng(12345);
	avl_tree t;
	avl_init(&t, cmp_int, true, nullptr);
	std::vector<std::unique_ptr<Item>> live;
	std::multimap<int, int> ref;
	for (int step = 0, seq = 0; step < 4000; step++) {
		if (live.empty() || rng() % 3 != 0) {
			auto it = std::make_unique<Item>();
			it->key = (int)(rng() % 200);
			it->seq = seq++;
			it->node.key = &it->key;
			ASSERT_EQ(avl_insert(&t, &it->node), 0);
			ref.emplace(it->key, it->seq);	// a multimap keeps equal keys in insertion order
			live.push_back(std::move(it));
		} else {
			size_t i = rng() % live.size();
			Item *it = live[i].get();
			avl_delete(&t, &it->node);
			auto range = ref.equal_range(it->key);
			ref.erase(std::find_if(range.first, range.second, [&](auto &r) { return r.second == it->seq; }));
			live.erase(live.begin() + (long)i);
		}
		if (step % 50 == 0)
			check_tree(&t, ref);
		if (HasFatalFailure())
			return;
	}
	check_tree(&t, ref);

	for (int k = -1; k <= 201; k++) {	// the first of equal keys for find and >=, the last for <=
		auto lb = ref.lower_bound(k), ub = ref.upper_bound(k);
		Item *e = item(avl_find(&t, &k));
		EXPECT_EQ(e ? e->seq : -1, lb != ref.end() && lb->first == k ? lb->second : -1) << k;
		Item *ge = item(avl_find_greaterequal(&t, &k));
		EXPECT_EQ(ge ? ge->seq : -1, lb != ref.end() ? lb->second : -1) << k;
		Item *le = item(avl_find_lessequal(&t, &k));
		EXPECT_EQ(le ? le->seq : -1, ub != ref.begin() ? std::prev(ub)->second : -1) << k;
	}

	// deleting every other element while walking, then emptying the tree while iterating
	Item *e, *tmp;
	bool odd = false;
	avl_for_each_element_safe(&t, e, node, tmp) {
		if ((odd = !odd)) {
			avl_delete(&t, &e->node);
			auto range = ref.equal_range(e->key);
			ref.erase(std::find_if(range.first, range.second, [&](auto &r) { return r.second == e->seq; }));
		}
	}
	check_tree(&t, ref);
	size_t removed = 0;
	avl_remove_all_elements(&t, e, node, tmp) removed++;
	EXPECT_EQ(removed, ref.size());
	EXPECT_TRUE(avl_is_empty(&t));
	EXPECT_EQ(t.root, nullptr);
}

TEST(UboxList, AddMoveSpliceAndDeleteWhileWalking)
{
	struct E {
		list_head l;
		int v;
	} e[6];
	LIST_HEAD(a);
	LIST_HEAD(b);
	auto values = [](list_head *h) {
		std::vector<int> v;
		E *p;
		list_for_each_entry(p, h, l) v.push_back(p->v);
		return v;
	};
	EXPECT_TRUE(list_empty(&a));
	for (int i = 0; i < 6; i++) {
		e[i].v = i;
		list_add_tail(&e[i].l, i < 3 ? &a : &b);	// a: 0 1 2
	}
	for (int i = 3; i < 6; i++)
		list_move(&e[i].l, &b);				// b: 5 4 3
	EXPECT_TRUE(list_is_first(&e[0].l, &a));
	EXPECT_TRUE(list_is_last(&e[2].l, &a));
	EXPECT_EQ(list_first_entry(&b, E, l)->v, 5);
	EXPECT_EQ(list_last_entry(&b, E, l)->v, 3);
	list_splice_tail_init(&b, &a);
	EXPECT_EQ(values(&a), (std::vector<int>{0, 1, 2, 5, 4, 3}));
	EXPECT_TRUE(list_empty(&b));
	list_move(&e[3].l, &b);
	list_move_tail(&e[0].l, &b);
	list_splice_init(&b, &a);
	EXPECT_EQ(values(&a), (std::vector<int>{3, 0, 1, 2, 5, 4}));
	list_del(&e[1].l);
	EXPECT_EQ(e[1].l.next, nullptr);	// list_del leaves NULL links, no poison
	list_del_init(&e[2].l);
	EXPECT_TRUE(list_empty(&e[2].l));
	std::vector<int> rev;
	E *p, *q;
	list_for_each_entry_reverse(p, &a, l) rev.push_back(p->v);
	EXPECT_EQ(rev, (std::vector<int>{4, 5, 0, 3}));
	list_for_each_entry_safe(p, q, &a, l) {
		if (p->v != 0)
			list_del(&p->l);
	}
	EXPECT_EQ(values(&a), (std::vector<int>{0}));
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
	u[3] = 7;	// the last part stays inside the allocation (ASan checks)
	free(base);
	uint32_t v = cpu_to_be32(0x01020304u);
	EXPECT_EQ(((uint8_t *)&v)[0], 1);
	EXPECT_EQ(be32_to_cpu(v), 0x01020304u);
}

} // namespace
