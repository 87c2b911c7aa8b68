/*
 * A small application on the embedded store: a platform service publishes the
 * device's local readiness, the application reads it back through libqz_cap,
 * and prints the start-up step report an operator would see.
 *
 *   qzcap_demo [store-uri]     (default "mem:demo")
 */
#include <stdio.h>
#include <stdlib.h>

#include "libqz_cap.h"
#include "p_libpub.pb-c.h"
#include "qz_mom_client.h"

static int publish_local_ready(void *publisher, bool ready) {
    PLibpub__CapState state = P_LIBPUB__CAP_STATE__INIT;
    state.ready = ready;
    const int32_t fields[] = {5};
    return qz_mom_write(publisher, 3, &state.base, 1, fields);
}

int main(int argc, char **argv) {
    const char *uri = argc > 1 ? argv[1] : "mem:demo";

    /* Two handles on one store, as on the device: the platform service that
     * publishes, and the application that reads. */
    void *platform = qz_mom_client_create(uri);
    void *app = qz_mom_client_create(uri);
    if (platform == NULL || app == NULL) {
        fprintf(stderr, "cannot open the store %s\n", uri);
        return 1;
    }

    bool ready = true;
    int32_t rv = libqz_cap_get_local_ready(app, &ready);
    printf("before publishing: libqz_cap_get_local_ready -> rv %d, ready %d\n", rv, ready);

    rv = publish_local_ready(platform, true);
    printf("platform publishes p_libpub.cap_state ready=1 -> rv %d\n", rv);

    rv = libqz_cap_get_local_ready(app, &ready);
    printf("after publishing:  libqz_cap_get_local_ready -> rv %d, ready %d\n", rv, ready);

    printf("\nstart-up steps of this thread's context (none run yet: no initialisation):\n");
    libqz_cap_dbg_show_time();

    qz_mom_client_destroy(app);
    qz_mom_client_destroy(platform);
    return rv == 0 && ready ? 0 : 1;
}
