// libubox's avl tree and list, where OpenWrt's callers depend on their corners: equal keys stay in insertion order,
// avl_find and avl_find_greaterequal give the first of equal keys and avl_find_lessequal the last (rpcd walks back
// from it over every equal key); lookups on an empty tree, first and last, deletes of each place in a run and while
// walking, with the tree's links and balance checked.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <libubox/avl.h>
#include <libubox/list.h>

namespace {

struct Item {
    avl_node node{};
    int key = 0;
    char name = 0;
};

int cmpInt(const void *a, const void *b, void *)
{
    const int x = *static_cast<const int *>(a), y = *static_cast<const int *>(b);
    return (x > y) - (x < y);
}

// Height of a subtree, its parent links and stored balance checked on the way.
int height(const avl_node *n, const avl_node *parent)
{
    if (n == nullptr)
        return 0;
    EXPECT_EQ(n->parent, parent);
    const int l = height(n->left, n), r = height(n->right, n);
    EXPECT_EQ(n->balance, r - l);
    EXPECT_LE(std::abs(r - l), 1);
    return 1 + std::max(l, r);
}

// The tree in list order as "3b 3f 5a"; "!" for each wrong leader flag, "<back?>" when the backward walk differs.
std::string order(avl_tree *t)
{
    std::string fwd, back, leaders;
    Item *e;
    int prev = -1;
    avl_for_each_element(t, e, node) {
        fwd += " " + std::to_string(e->key) + e->name;
        leaders += e->node.leader == (e->key != prev) ? "" : "!";
        prev = e->key;
    }
    avl_for_each_element_reverse(t, e, node) back.insert(0, " " + std::to_string(e->key) + e->name);
    height(t->root, nullptr);
    return (fwd + leaders + (back == fwd ? "" : " <back?>")).substr(fwd.empty() ? 0 : 1);
}

}  // namespace

TEST(UboxAvl, EqualKeysLookupsAndDeletes)
{
    // op: i insert, x delete the item named by `key`, o the order, f find, l lessequal, g greaterequal, w the walk
    // back from lessequal over equal keys as rpcd does, < the first element, > the last; '-' for none.
    const struct {
        char op;
        int key;
        const char *want;
    } steps[] = {
        {'f', 4, "-"}, {'l', 4, "-"}, {'g', 4, "-"}, {'<', 0, "-"}, {'w', 4, ""},
        {'i', 5, "a"}, {'i', 3, "b"}, {'i', 5, "c"}, {'i', 7, "d"}, {'i', 5, "e"}, {'i', 3, "f"},
        {'o', 0, "3b 3f 5a 5c 5e 7d"}, {'<', 0, "b"}, {'>', 0, "d"},
        {'f', 5, "a"}, {'f', 3, "b"}, {'f', 4, "-"}, {'f', 8, "-"},
        {'l', 5, "e"}, {'l', 6, "e"}, {'l', 3, "f"}, {'l', 4, "f"}, {'l', 9, "d"}, {'l', 2, "-"},
        {'g', 5, "a"}, {'g', 4, "a"}, {'g', 0, "b"}, {'g', 6, "d"}, {'g', 8, "-"},
        {'w', 5, "eca"}, {'w', 3, "fb"}, {'w', 7, "d"},
        {'x', 'a', "3b 3f 5c 5e 7d"}, {'f', 5, "c"}, {'g', 5, "c"}, {'l', 5, "e"}, {'w', 5, "ec"},  // a run's first
        {'x', 'e', "3b 3f 5c 7d"}, {'l', 5, "c"}, {'l', 6, "c"}, {'g', 5, "c"},                    // a run's last
        {'x', 'b', "3f 5c 7d"}, {'<', 0, "f"}, {'w', 3, "f"},                                       // the tree's first
        {'x', 'c', "3f 7d"}, {'f', 5, "-"}, {'l', 5, "f"}, {'g', 5, "d"},                           // the run is gone
        {'x', 'd', "3f"}, {'>', 0, "f"}, {'x', 'f', ""}, {'l', 9, "-"}, {'w', 3, ""},
    };
    std::map<char, Item> items;
    AVL_TREE(t, cmpInt, true, nullptr);
    for (const auto &s : steps) {
        SCOPED_TRACE(std::string(1, s.op) + " " + std::to_string(s.key) + " " + s.want);
        Item *it = s.op == 'i' || s.op == 'x' ? &items[s.op == 'i' ? s.want[0] : char(s.key)] : nullptr, *x = nullptr;
        if (s.op == 'i') {
            it->key = s.key, it->name = s.want[0], it->node.key = &it->key;
            ASSERT_EQ(avl_insert(&t, &it->node), 0);
        } else if (s.op == 'x' || s.op == 'o') {
            if (s.op == 'x')
                avl_delete(&t, &it->node);
            EXPECT_EQ(order(&t), s.want);
            EXPECT_EQ(avl_is_empty(&t), *s.want == '\0');
        } else {
            avl_node *n = s.op == 'f' ? avl_find(&t, &s.key)
                          : s.op == 'g' ? avl_find_greaterequal(&t, &s.key)
                          : s.op == 'l' || s.op == 'w' ? avl_find_lessequal(&t, &s.key)
                          : avl_is_empty(&t) ? nullptr
                          : s.op == '<' ? &avl_first_element(&t, x, node)->node : &avl_last_element(&t, x, node)->node;
            it = n ? container_of(n, Item, node) : nullptr;
            std::string got = it ? std::string(1, it->name) : "-";
            EXPECT_TRUE(!it || s.op != '<' || avl_is_first(&t, n));
            EXPECT_TRUE(!it || s.op != '>' || avl_is_last(&t, n));
            if (s.op == 'w')  // stops at another key or at the first node
                for (got.clear(); it && it->key == s.key; it = avl_is_first(&t, &it->node) ? nullptr : avl_prev_element(it, node))
                    got += it->name;
            EXPECT_EQ(got, s.want);
        }
    }
}

TEST(UboxAvl, RotationsAndDeletesWhileWalking)
{
    // Ascending keys rotate at every other insert; a tree without duplicates refuses an equal key. Every other
    // element goes inside the safe walk, the rest with avl_remove_all_elements.
    std::vector<Item> items(101);
    AVL_TREE(t, cmpInt, false, nullptr);
    for (int i = 0; i < 101; i++) {
        items[i].key = i % 100, items[i].node.key = &items[i].key;
        EXPECT_EQ(avl_insert(&t, &items[i].node), i < 100 ? 0 : -1);
    }
    EXPECT_EQ(height(t.root, nullptr), 7);
    Item *e, *tmp;
    avl_for_each_element_safe(&t, e, node, tmp) {
        if (e->key % 2 == 0)
            avl_delete(&t, &e->node);
    }
    EXPECT_EQ(t.count, 50u);
    EXPECT_LE(height(t.root, nullptr), 7);
    int expect = 1, removed = 0;
    avl_for_each_element(&t, e, node) EXPECT_EQ(e->key, std::exchange(expect, expect + 2));
    avl_remove_all_elements(&t, e, node, tmp) removed++;
    EXPECT_EQ(removed, 50);
    EXPECT_TRUE(avl_is_empty(&t));
}

TEST(UboxList, AddMoveSpliceAndDeleteWhileWalking)
{
    struct E { list_head l; int v; } e[6];
    LIST_HEAD(a);
    LIST_HEAD(b);
    auto values = [](list_head *h, bool reverse = false) {
        std::string s;
        E *p;
        if (reverse)
            list_for_each_entry_reverse(p, h, l) s += char('0' + p->v);
        else
            list_for_each_entry(p, h, l) s += char('0' + p->v);
        return s;
    };
    EXPECT_TRUE(list_empty(&a));
    for (int i = 0; i < 6; i++)
        e[i].v = i, i < 3 ? list_add_tail(&e[i].l, &a) : list_add(&e[i].l, &b);
    EXPECT_EQ(values(&a) + "|" + values(&b), "012|543");
    EXPECT_TRUE(list_is_first(&e[0].l, &a) && list_is_last(&e[2].l, &a));
    EXPECT_EQ(list_first_entry(&b, E, l)->v * 10 + list_last_entry(&b, E, l)->v, 53);
    list_splice_tail_init(&b, &a);
    EXPECT_EQ(values(&a) + "|" + values(&b), "012543|");
    list_move(&e[3].l, &b), list_move_tail(&e[0].l, &b), list_splice_init(&b, &a);
    EXPECT_EQ(values(&a), "301254");
    list_del(&e[1].l), list_del_init(&e[2].l);
    EXPECT_EQ(e[1].l.next, nullptr);  // list_del leaves NULL links, no poison
    EXPECT_TRUE(list_empty(&e[2].l));
    EXPECT_EQ(values(&a, true), "4503");
    E *p, *q;
    list_for_each_entry_safe(p, q, &a, l) {
        if (p->v != 0)
            list_del(&p->l);
    }
    EXPECT_EQ(values(&a), "0");
}
