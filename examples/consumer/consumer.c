/*
 * The smallest application of an installed libqz_cap: it creates a bus
 * handle, publishes a capability as a platform service would, initialises
 * the library, reads the capability back and subscribes to its changes.
 * Built against an installed tree only (CMake package or pkg-config).
 *
 *   qzcap_consumer [store-uri]      (default: the embedded store "mem:consumer")
 * Exits 0 when the value read back and the change pushed are the ones written.
 */
#include <pthread.h>
#include <stdio.h>
#include <time.h>

#include "libqz_cap.h"
#include "libqz_cap_version.h"
#include "p_libpub.pb-c.h"
#include "qz_mom.h"
#include "qz_mom_client.h"

#define URL_POE "global_spec/platform/poe_support"

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
static int pushed_value = -1;

static int32_t publish_poe(void *global, bool value) {
    PLibpub__CapTableIndex index = P_LIBPUB__CAP_TABLE_INDEX__INIT;
    PLibpub__CapTable rec = P_LIBPUB__CAP_TABLE__INIT;
    index.url = (char *)URL_POE;
    rec.index = &index;
    rec.bool_value = value;
    const int32_t fields[] = {6}; /* bool_value */
    return qz_mom_write(global, 3, &rec.base, 1, fields);
}

/* Runs on the bus client's thread. */
static int32_t on_poe(void *global, struct qz_mom_pmsg *pmsg, void *arg) {
    (void)global;
    (void)arg;
    char url[256] = {0};
    bool value = false;
    uint32_t len = 0;
    if (pmsg->cmd == QZ_MOM_CMD_SUBSCRIBED ||
        libqz_cap_ce_get_g_cap_bool_by_pmsg(pmsg, sizeof url, url, &value, &len) != 0)
        return 0;
    pthread_mutex_lock(&lock);
    pushed_value = value;
    pthread_cond_signal(&changed);
    pthread_mutex_unlock(&lock);
    return 0;
}

static int wait_for_push(int seconds) {
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += seconds;
    pthread_mutex_lock(&lock);
    while (pushed_value < 0 && pthread_cond_timedwait(&changed, &lock, &deadline) == 0) {
    }
    int value = pushed_value;
    pthread_mutex_unlock(&lock);
    return value;
}

int main(int argc, char **argv) {
    printf("libqz_cap %s\n", LIBQZ_CAP_VERSION_STRING);
    void *global = qz_mom_client_create(argc > 1 ? argv[1] : "mem:consumer");
    if (global == NULL) {
        fprintf(stderr, "consumer: no bus handle\n");
        return 1;
    }
    int32_t rv = publish_poe(global, true);
    if (rv != 0) {
        fprintf(stderr, "consumer: publish failed, rv %d\n", rv);
        return 1;
    }
    rv = libqz_cap_init(global, "consumer");
    if (rv != 0) {
        fprintf(stderr, "consumer: libqz_cap_init failed, rv %d\n", rv);
        return 1;
    }
    bool poe = false;
    rv = libqz_cap_get_capacity_bool_no_block(global, URL_POE, &poe);
    printf("read %s -> rv %d, value %d\n", URL_POE, rv, poe);
    if (rv != 0 || !poe)
        return 1;

    rv = libqz_cap_ce_subscribe_g_cap_bool_ext(global, URL_POE, on_poe, NULL);
    if (rv != 0) {
        fprintf(stderr, "consumer: subscribe failed, rv %d\n", rv);
        return 1;
    }
    publish_poe(global, false);
    int pushed = wait_for_push(5);
    printf("push %s -> %d\n", URL_POE, pushed);
    return pushed == 0 ? 0 : 1;
}
