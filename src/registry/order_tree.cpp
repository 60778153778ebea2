#include "registry/order_tree.h"

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

namespace rtls {

namespace {

// A node with its sort key at hand, so that sorting need not fetch the nodes again and again.
struct placed_node {
    table_place place;
    stored_node* node;
};

} // namespace

static size_t priority_of(const stored_node* node)
{
    return seeded_hash(reinterpret_cast<uintptr_t>(node));
}

// Splits a tree at a place: what comes before it goes to `before`, the rest to `behind`.
static void split(const node_table& table, stored_node* tree, const table_place& place, stored_node*& before,
                  stored_node*& behind)
{
    stored_node** end_of_before = &before;
    stored_node** start_of_behind = &behind;
    while (tree) {
        const bool is_before = table.place_of(*tree) < place;
        stored_node**& end = is_before ? end_of_before : start_of_behind;
        stored_node*& inner = is_before ? tree->tree_right : tree->tree_left;
        *end = tree;
        end = &inner;
        tree = inner;
    }
    *end_of_before = *start_of_behind = nullptr;
}

// Joins two trees, of which all nodes of `left` come first.
static stored_node* join(stored_node* left, stored_node* right)
{
    stored_node* joined = nullptr;
    stored_node** end = &joined;
    while (left && right) {
        const bool left_is_above = priority_of(left) >= priority_of(right);
        stored_node*& upper = left_is_above ? left : right;
        stored_node*& inner = left_is_above ? left->tree_right : right->tree_left;
        *end = upper;
        end = &inner;
        upper = inner;
    }
    *end = left ? left : right;
    return joined;
}

// Every node of a tree, in the tree's order; the tree keeps its nodes, but as a chain to the right.
static std::vector<placed_node> placed_nodes(const node_table& table, stored_node*& tree)
{
    std::vector<placed_node> nodes;
    for (stored_node** link = &tree; *link;) {
        stored_node* const node = *link;
        if (stored_node* const left = node->tree_left) {
            node->tree_left = std::exchange(left->tree_right, node);
            *link = left;
            continue;
        }
        nodes.push_back({table.place_of(*node), node});
        link = &node->tree_right;
    }
    return nodes;
}

// The tree of sorted nodes, made along its right edge, in linear time.
static stored_node* make_tree(const std::vector<placed_node>& sorted)
{
    std::vector<stored_node*> right_edge;
    for (const auto& [place, node] : sorted) {
        stored_node* below = nullptr;
        while (!right_edge.empty() && priority_of(right_edge.back()) < priority_of(node)) {
            below = right_edge.back();
            right_edge.pop_back();
        }
        node->tree_left = below;
        node->tree_right = nullptr;
        if (!right_edge.empty())
            right_edge.back()->tree_right = node;
        right_edge.push_back(node);
    }
    return right_edge.front();
}

void order_tree::stamp(const node_table& table)
{
    if (m_root)
        m_root->tree_growth = table.growth();
}

void order_tree::follow_growth(const node_table& table)
{
    if (!m_root || m_root->tree_growth == table.growth())
        return;
    if (m_root->tree_left || m_root->tree_right) {
        auto nodes = placed_nodes(table, m_root);
        std::sort(nodes.begin(), nodes.end(),
                  [](const placed_node& a, const placed_node& b) { return a.place < b.place; });
        m_root = make_tree(nodes);
    }
    stamp(table);
}

void order_tree::insert(const node_table& table, stored_node* node)
{
    follow_growth(table);
    const table_place place = table.place_of(*node);
    const size_t priority = priority_of(node);
    stored_node** link = &m_root;
    while (*link && priority_of(*link) >= priority)
        link = place < table.place_of(**link) ? &(*link)->tree_left : &(*link)->tree_right;
    split(table, *link, place, node->tree_left, node->tree_right);
    *link = node;
    stamp(table);
}

void order_tree::remove(const node_table& table, stored_node* node)
{
    follow_growth(table);
    const table_place place = table.place_of(*node);
    stored_node** link = &m_root;
    while (*link && *link != node)
        link = place < table.place_of(**link) ? &(*link)->tree_left : &(*link)->tree_right;
    if (!*link)
        return;
    *link = join(std::exchange(node->tree_left, nullptr), std::exchange(node->tree_right, nullptr));
    stamp(table);
}

stored_node* order_tree::first(const node_table& table)
{
    follow_growth(table);
    stored_node* node = m_root;
    while (node->tree_left)
        node = node->tree_left;
    return node;
}

} // namespace rtls
