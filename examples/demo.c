/*
 * A small application on a modular device, and the platform service that
 * publishes its capabilities, sharing one store.
 *
 * The service publishes the device's capabilities over a few seconds; the
 * application initialises libqz_cap, reads with blocking and non-blocking
 * reads, subscribes to a boolean and an integer capability and to global
 * readiness, sees the pushes, survives a reconnection of the bus with its
 * subscriptions renewed, and then serves its debug module so that an operator
 * can look inside from a second terminal.
 *
 *   qzcap_demo [--serve SECONDS] [store-uri]    (default store "mem:demo")
 */
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "kril_shell.h"
#include "libqz_cap.h"
#include "p_libpub.pb-c.h"
#include "qz_mom.h"
#include "qz_mom_client.h"
#include "qz_mom_test.h"
#include "s_frame.pb-c.h"

#define URL_PORTS "global_spec/platform/port_num"
#define URL_POE "global_spec/platform/poe_support"
#define URL_MTU "global_spec/platform/max_mtu"
#define URL_MODEL "global_spec/platform/model"

static double t0;

static double now(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

/* Every line says who speaks and when, so the interleaving is easy to follow. */
static void say(const char *who, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
static void say(const char *who, const char *fmt, ...) {
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    printf("[%5.2fs] %-11s %s\n", now() - t0, who, line);
    fflush(stdout);
}

/* ---- the platform service -------------------------------------------------- */

static int32_t publish_cap(void *svc, const char *url, int field, int32_t number,
                           const char *text) {
    PLibpub__CapTableIndex index = P_LIBPUB__CAP_TABLE_INDEX__INIT;
    PLibpub__CapTable rec = P_LIBPUB__CAP_TABLE__INIT;
    index.url = (char *)url;
    rec.index = &index;
    rec.bool_value = number != 0;
    rec.int32_value = number;
    if (text)
        rec.str_value = (char *)text;
    const int32_t fields[] = {field};
    return qz_mom_write(svc, 3, &rec.base, 1, fields);
}

static void publish_local_ready(void *svc) {
    PLibpub__CapState rec = P_LIBPUB__CAP_STATE__INIT;
    rec.ready = 1;
    const int32_t fields[] = {5};
    qz_mom_write(svc, 3, &rec.base, 1, fields);
}

static void publish_glb_ready(void *svc) {
    SFrame__CapGlbState rec = S_FRAME__CAP_GLB_STATE__INIT;
    rec.ready = 1;
    const int32_t fields[] = {5};
    qz_mom_write(svc, 3, &rec.base, 1, fields);
}

static void *platform_service(void *svc) {
    usleep(1500 * 1000);
    say("platform", "publishes %s = 48", URL_PORTS);
    publish_cap(svc, URL_PORTS, 7, 48, NULL);
    say("platform", "publishes %s = \"QZ-9000\"", URL_MODEL);
    publish_cap(svc, URL_MODEL, 8, 0, "QZ-9000");
    say("platform", "publishes %s = 1", URL_POE);
    publish_cap(svc, URL_POE, 6, 1, NULL);
    usleep(500 * 1000);
    say("platform", "the local capability table is complete");
    publish_local_ready(svc);
    return NULL;
}

/* ---- the application's callbacks (run on the bus client's thread) ------------- */

/* The first call confirms the subscription and carries no value. */
static bool confirmation(const qz_mom_pmsg_t *pmsg, const char *kind) {
    if (pmsg->cmd != QZ_MOM_CMD_SUBSCRIBED)
        return false;
    say("app/push", "%s subscription in place", kind);
    return true;
}

static int32_t on_bool(void *global, qz_mom_pmsg_t *pmsg, void *arg) {
    (void)global;
    (void)arg;
    if (confirmation(pmsg, "boolean"))
        return 0;
    char url[256] = {0};
    bool value = false;
    uint32_t len = 0;
    int32_t rv = libqz_cap_ce_get_g_cap_bool_by_pmsg(pmsg, sizeof url, url, &value, &len);
    if (rv == 0)
        say("app/push", "%s is now %s", url, value ? "true" : "false");
    else
        say("app/push", "unusable boolean push (cmd %d): rv %d", pmsg->cmd, rv);
    return 0;
}

static int32_t on_int(void *global, qz_mom_pmsg_t *pmsg, void *arg) {
    (void)global;
    (void)arg;
    if (confirmation(pmsg, "integer"))
        return 0;
    char url[256] = {0};
    int32_t value = 0;
    uint32_t len = 0;
    int32_t rv = libqz_cap_ce_get_g_cap_int32_by_pmsg(pmsg, sizeof url, url, &value, &len);
    if (rv == 0)
        say("app/push", "%s is now %d", url, value);
    else
        say("app/push", "unusable integer push (cmd %d): rv %d", pmsg->cmd, rv);
    return 0;
}

static int32_t on_glb_ready(void *global, void *arg) {
    (void)global;
    say("app/push", "the device-wide capability table is complete (%s)", (const char *)arg);
    return 0;
}

/* ---- the application ---------------------------------------------------------- */

static int serve_debug_module(int seconds) {
    say("app", "serving the debug module for %d s; from a second terminal try:", seconds);
    printf("              krilsh -p %d list\n", (int)getpid());
    printf("              krilsh -p %d libqz_cap_qzcap_demo get_cap_bool url=%s\n", (int)getpid(),
           URL_POE);
    printf("              krilsh -p %d libqz_cap_qzcap_demo dump_all\n", (int)getpid());
    fflush(stdout);
    double end = now() + seconds;
    while (now() < end) {
        int32_t served = kril_poll(200);
        if (served < 0) {
            say("app", "kril_poll failed: %d", served);
            return 1;
        }
    }
    return 0;
}

int main(int argc, char **argv) {
    int serve_seconds = 0;
    const char *uri = "mem:demo";
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--serve") == 0 && i + 1 < argc)
            serve_seconds = atoi(argv[++i]);
        else
            uri = argv[i];
    }
    t0 = now();

    /* Two handles on one store, as on the device: the platform service that
     * publishes, and the application. */
    void *svc = qz_mom_client_create(uri);
    void *app = qz_mom_client_create(uri);
    if (svc == NULL || app == NULL) {
        fprintf(stderr, "cannot open the store %s\n", uri);
        return 1;
    }

    int32_t rv = libqz_cap_init(app, "demo");
    say("app", "libqz_cap_init on %s -> %d", uri, rv);
    if (rv != 0)
        return 1;

    pthread_t service;
    pthread_create(&service, NULL, platform_service, svc);

    bool poe = false;
    rv = libqz_cap_get_capacity_bool_no_block(app, URL_POE, &poe);
    say("app", "non-blocking read of %s -> rv %d (nothing published yet)", URL_POE, rv);

    say("app", "blocking read of %s: waits for the platform...", URL_PORTS);
    int32_t ports = -1;
    rv = libqz_cap_get_capacity_int32(app, URL_PORTS, &ports);
    say("app", "blocking read of %s -> rv %d, value %d", URL_PORTS, rv, ports);

    char model[64];
    uint32_t len = 0;
    rv = libqz_cap_get_capacity_str(app, URL_MODEL, sizeof model, model, &len);
    say("app", "blocking read of %s -> rv %d, \"%s\" (%u characters)", URL_MODEL, rv, model, len);

    pthread_join(service, NULL);
    int32_t mtu = 0;
    rv = libqz_cap_get_capacity_int32(app, URL_MTU, &mtu);
    say("app", "blocking read of %s -> rv %d: never published, and the table is complete", URL_MTU,
        rv);
    rv = libqz_cap_ce_get_g_cap_int32_default(app, URL_MTU, &mtu, 1500);
    say("app", "with a default: rv %d, value %d", rv, mtu);

    say("app", "subscribes to %s, %s and global readiness", URL_POE, URL_MTU);
    libqz_cap_ce_subscribe_g_cap_bool(app, URL_POE, on_bool);
    libqz_cap_ce_subscribe_g_cap_int32(app, URL_MTU, on_int);
    libqz_cap_ce_subscribe_g_cap_state(app, "demo-glb", on_glb_ready, "first subscription");
    qz_mom_test_drain(app);

    say("platform", "publishes %s = 0 and %s = 9216", URL_POE, URL_MTU);
    publish_cap(svc, URL_POE, 6, 0, NULL);
    publish_cap(svc, URL_MTU, 7, 9216, NULL);
    say("platform", "reports the device-wide table complete");
    publish_glb_ready(svc);
    qz_mom_test_drain(app);

    say("bus", "connection lost and re-established (simulated)");
    qz_mom_test_reconnect(app);
    qz_mom_test_drain(app);
    say("platform", "publishes %s = 1 and %s = 1500", URL_POE, URL_MTU);
    publish_cap(svc, URL_POE, 6, 1, NULL);
    publish_cap(svc, URL_MTU, 7, 1500, NULL);
    qz_mom_test_drain(app);
    say("app", "the renewed subscriptions delivered: nothing was lost");

    printf("\n");
    libqz_cap_dbg_dump_all_thread(&g_libqz_cap_ctrl_info);
    printf("\n");

    int status = serve_seconds > 0 ? serve_debug_module(serve_seconds) : 0;
    qz_mom_client_destroy(app);
    qz_mom_client_destroy(svc);
    return status;
}
