// Chained hash table of untyped item pointers. Chains are circular and doubly
// linked; a chain head is a qz_cap_hash_list, never accessed as a node, so the
// node/head pun only ever compares addresses.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "core/alloc.h"
#include "sub/sub.h"

namespace {

// 1024 expected items at a load factor of 0.75.
constexpr uint32_t kDefaultBuckets = 1365;

qz_cap_hash_node *sentinel(qz_cap_hash_list *head) {
    return reinterpret_cast<qz_cap_hash_node *>(head);
}

uint32_t bucket_index(qz_cap_hash_table *t, void *item) {
    return t->get_index(item) % t->table_size;
}

void set_next(qz_cap_hash_list *head, qz_cap_hash_node *at, qz_cap_hash_node *n) {
    if (at == sentinel(head))
        head->next = n;
    else
        at->next = n;
}

void set_prev(qz_cap_hash_list *head, qz_cap_hash_node *at, qz_cap_hash_node *n) {
    if (at == sentinel(head))
        head->prev = n;
    else
        at->prev = n;
}

// First node of the chain whose item compares equal to key, or NULL.
qz_cap_hash_node *find_node(qz_cap_hash_table *t, qz_cap_hash_list *head, void *key) {
    for (qz_cap_hash_node *n = head->next; n != sentinel(head); n = n->next) {
        __builtin_prefetch(n->next);
        if (t->compare(n->item, key) == 0)
            return n;
    }
    return nullptr;
}

// fn may delete the item it is given: the next node is taken before the call.
int32_t walk_buckets(qz_cap_hash_table *t, qz_cap_hash_item_fn fn, void *arg, uint32_t first,
                     uint32_t end) {
    for (uint32_t i = first; i < end; ++i) {
        qz_cap_hash_list *head = &t->buckets[i];
        for (qz_cap_hash_node *n = head->next, *next; n != sentinel(head); n = next) {
            next = n->next;
            if (int32_t rv = fn(n->item, arg); rv != 0)
                return rv;
        }
    }
    return 0;
}

}  // namespace

extern "C" {

qz_cap_hash_table *qz_cap_create_hash(uint32_t size, qz_cap_hash_index_fn get_index,
                                      qz_cap_hash_compare_fn compare) {
    // Truncation toward zero is the sizing rule; a 32-bit size over 0.75
    // still fits 64 bits.
    uint64_t buckets = size == 0 ? kDefaultBuckets : static_cast<uint64_t>(size / 0.75);
    // The chain-head array's byte size must fit 32 bits; a wrapped size
    // would allocate a short array.
    if (buckets * sizeof(qz_cap_hash_list) > UINT32_MAX)
        return nullptr;
    auto n = static_cast<uint32_t>(buckets);

    qzcap::XPtr<qz_cap_hash_table> t = qzcap::xmalloc_n<qz_cap_hash_table>(1);
    if (!t)
        return nullptr;
    qzcap::XPtr<qz_cap_hash_list> heads = qzcap::xmalloc_n<qz_cap_hash_list>(n);
    if (!heads)
        return nullptr;
    qzcap::XPtr<uint8_t> counts = qzcap::xcalloc_n<uint8_t>(n);
    if (!counts)
        return nullptr;
    for (uint32_t i = 0; i < n; ++i)
        heads.get()[i].next = heads.get()[i].prev = sentinel(&heads.get()[i]);

    t->table_size = n;
    t->item_num = 0;
    t->bucket_warning_size = 0;
    t->bucket_num = counts.release();
    t->buckets = heads.release();
    t->get_index = get_index;
    t->compare = compare;
    return t.release();
}

void qz_cap_destroy_hash(qz_cap_hash_table *table) {
    if (table == nullptr)
        return;
    free(table->bucket_num);
    free(table->buckets);
    free(table);
}

int32_t qz_cap_hash_insert_item(qz_cap_hash_table *table, void *item) {
    if (table == nullptr)
        return -1;
    qzcap::XPtr<qz_cap_hash_node> node = qzcap::xmalloc_n<qz_cap_hash_node>(1);
    if (!node)
        return LIBQZ_CAP_E_HASH_NODE;

    uint32_t index = bucket_index(table, item);
    qz_cap_hash_list *head = &table->buckets[index];
    node->item = item;
    node->next = head->next;
    node->prev = sentinel(head);
    set_prev(head, head->next, node.get());
    head->next = node.release();  // the chain's now

    uint8_t count = ++table->bucket_num[index];
    ++table->item_num;
    if (table->bucket_warning_size != 0 && count > table->bucket_warning_size) {
        printf("hash :%p bucket[%d] warning %d cur:%d \n", static_cast<void *>(table),
               static_cast<int>(index), static_cast<int>(table->bucket_warning_size),
               static_cast<int>(count));
    }
    return 0;
}

void qz_cap_hash_del_item(qz_cap_hash_table *table, void *key) {
    if (table == nullptr)
        return;
    uint32_t index = bucket_index(table, key);
    qz_cap_hash_list *head = &table->buckets[index];
    qz_cap_hash_node *node = find_node(table, head, key);
    if (node == nullptr)
        return;

    --table->bucket_num[index];
    --table->item_num;
    set_next(head, node->prev, node->next);
    set_prev(head, node->next, node->prev);
    free(node);
}

void *qz_cap_hash_find_item(qz_cap_hash_table *table, void *key) {
    if (table == nullptr)
        return nullptr;
    qz_cap_hash_node *node = find_node(table, &table->buckets[bucket_index(table, key)], key);
    return node == nullptr ? nullptr : node->item;
}

int32_t qz_cap_hash_each_item_op(qz_cap_hash_table *table, qz_cap_hash_item_fn fn, void *arg) {
    if (table == nullptr || fn == nullptr)
        return LIBQZ_CAP_E_HASH_WALK;
    return walk_buckets(table, fn, arg, 0, table->table_size);
}

int32_t qz_cap_hash_each_item_op_partly(qz_cap_hash_table *table, qz_cap_hash_item_fn fn, void *arg,
                                        uint32_t max_part, uint32_t cur_part) {
    if (table == nullptr)
        return LIBQZ_CAP_E_HASH_WALK;
    const uint32_t size = table->table_size;
    // Also rejects max_part 0 before any division.
    if (cur_part >= max_part || max_part > size) {
        printf("cur_part:%d max_part:%d table_size:%d\n", static_cast<int>(cur_part),
               static_cast<int>(max_part), static_cast<int>(size));
        return LIBQZ_CAP_E_HASH_WALK;
    }
    if (fn == nullptr)
        return LIBQZ_CAP_E_HASH_WALK;
    // 32-bit products as on the device. They wrap only when size * max_part
    // exceeds 2^32, and then the quotient stays below size.
    uint32_t first = size * cur_part / max_part;
    uint32_t end = cur_part + 1 == max_part ? size : (size * cur_part + size) / max_part;
    if (end <= first)
        return 0;
    return walk_buckets(table, fn, arg, first, end);
}

uint32_t qz_cap_hash_get_current_item_num(qz_cap_hash_table *table) {
    return table == nullptr ? 0 : table->item_num;
}

uint32_t qz_cap_hash_get_current_bucket_num(qz_cap_hash_table *table, void *key) {
    return table == nullptr ? 0 : table->bucket_num[bucket_index(table, key)];
}

void qz_cap_hash_set_bucket_warning_size(qz_cap_hash_table *table, uint32_t size) {
    if (table != nullptr)
        table->bucket_warning_size = size;
}

}  // extern "C"
