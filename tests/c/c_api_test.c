/* The exported header from plain C: it compiles as C11 and its calls link and
 * behave through the shared library. */
#include <stdio.h>
#include <string.h>

#include "libqz_cap.h"

static int failures;

#define CHECK(cond)                                                                  \
    do {                                                                             \
        if (!(cond)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                              \
        }                                                                            \
    } while (0)

static uint32_t index_of(void *item) {
    return libqz_cap_get_sub_hash_index((sub_info *)item);
}
static int32_t same(void *stored, void *key) {
    return stored == key ? 0 : -1;
}
static int32_t count(void *item, void *arg) {
    (void)item;
    ++*(int *)arg;
    return 0;
}

int main(void) {
    libqz_cap_ctrl_info_t *ctx = libqz_cap_ctrl_info_init();
    CHECK(ctx != NULL);
    CHECK(ctx != NULL && ctx->global == NULL && ctx->sub_hash == NULL && ctx->ready == 0);
    libqz_cap_ctrl_info_free(ctx);
    libqz_cap_ctrl_info_free(NULL);

    CHECK(g_libqz_cap_zlog_level == 1);
    libqz_cap_log_level(4);
    CHECK(g_libqz_cap_zlog_level == 4);
    libqz_cap_log_level(1);

    CHECK(strcmp(g_libqz_cap_time_rec_name[0], "INIT_START") == 0);
    CHECK(strcmp(g_libqz_cap_time_rec_name[6], "INIT_KRIL_INIT") == 0);
    CHECK(cap_sub_card_nodes_list.next == &cap_sub_card_nodes_list);

    bool ready = true;
    CHECK(libqz_cap_get_local_ready(NULL, &ready) == LIBQZ_CAP_E_ARG);
    CHECK(ready == true);

    sub_info a;
    memset(&a, 0, sizeof a);
    strcpy(a.url, "a");
    a.type = 3;
    CHECK(libqz_cap_get_sub_hash_index(&a) == 97u + 3u);

    qz_cap_hash_table *t = qz_cap_create_hash(32, index_of, same);
    CHECK(t != NULL);
    CHECK(qz_cap_hash_insert_item(t, &a) == 0);
    CHECK(qz_cap_hash_find_item(t, &a) == &a);
    int n = 0;
    CHECK(qz_cap_hash_each_item_op(t, count, &n) == 0 && n == 1);
    qz_cap_hash_del_item(t, &a);
    CHECK(qz_cap_hash_get_current_item_num(t) == 0);
    qz_cap_destroy_hash(t);

    char name[128];
    CHECK(libqz_cap_get_app_name(-1, name, sizeof name) == name && strcmp(name, "app") == 0);

    if (failures == 0)
        puts("c_api: every check passed");
    return failures ? 1 : 0;
}
