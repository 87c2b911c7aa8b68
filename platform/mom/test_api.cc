// The C entry points of qz_mom_test.h: fault injection and accounting.
#include "client.h"
#include "qz_mom_client.h"
#include "qz_mom_test.h"
#include "report.h"
#include "result.h"

#define QZ_MOM_EXPORT extern "C" __attribute__((visibility("default")))

using namespace qzmom;

namespace {

void push(void *global, qz_mom_op_t op, Fault f, uint32_t times) {
    Client *c = Client::from(global);
    if (c == nullptr)
        return;
    try {
        c->faults().push(op, f, times);
    } catch (...) {
        report("out of memory: a fault was not injected");
    }
}

}  // namespace

QZ_MOM_EXPORT void qz_mom_test_fail_status(void *global, qz_mom_op_t op, int32_t status,
                                           uint32_t times) {
    // On a result op the status becomes the result's error code.
    push(global, op, Fault{returns_result(op) ? Fault::kError : Fault::kStatus, status, false},
         times);
}

QZ_MOM_EXPORT void qz_mom_test_fail_null(void *global, qz_mom_op_t op) {
    if (!returns_result(op)) {
        report("qz_mom_test_fail_null: op %d returns a status, not a result; ignored",
               static_cast<int>(op));
        return;
    }
    push(global, op, Fault{Fault::kNull, 0, false}, 1);
}

QZ_MOM_EXPORT void qz_mom_test_fail_error(void *global, qz_mom_op_t op, int32_t error_code,
                                          int with_view) {
    // On a status op the error code is the status, once.
    push(global, op,
         Fault{returns_result(op) ? Fault::kError : Fault::kStatus, error_code, with_view != 0}, 1);
}

QZ_MOM_EXPORT void qz_mom_test_clear_faults(void *global) {
    if (Client *c = Client::from(global))
        c->faults().clear();
}

QZ_MOM_EXPORT int32_t qz_mom_test_reconnect(void *global) {
    Client *c = Client::from(global);
    if (c == nullptr)
        return QZ_MOM_E_ARG;
    try {
        return c->simulate_reconnect();
    } catch (...) {
        return QZ_MOM_E_NOMEM;
    }
}

QZ_MOM_EXPORT void qz_mom_test_drain(void *global) {
    Client *c = Client::from(global);
    if (c == nullptr)
        return;
    try {
        c->drain();
    } catch (...) {
        report("qz_mom_test_drain: out of memory");
    }
}

QZ_MOM_EXPORT int64_t qz_mom_test_live_results(void) {
    return g_live_results.load(std::memory_order_relaxed);
}

QZ_MOM_EXPORT int64_t qz_mom_test_live_objects(void) {
    return g_live_objects.load(std::memory_order_relaxed);
}

QZ_MOM_EXPORT uint32_t qz_mom_test_subscription_count(void *global) {
    Client *c = Client::from(global);
    return c != nullptr ? c->subscription_count() : 0;
}
