#include "store.h"

#include "mem_store.h"
#include "qz_mom_client.h"
#include "redis_store.h"

namespace qzmom {

std::unique_ptr<Store> open_store(std::string_view uri, StoreListener *listener, std::string *why,
                                  int32_t *code) {
    if (uri.substr(0, 4) == "mem:")
        return open_mem_store(uri.substr(4), listener);
    if (uri.substr(0, 8) == "redis://" || uri.substr(0, 5) == "unix:")
        return open_redis_store(uri, listener, why, code);
    *why = "unknown URI (expected mem:, mem:NAME, redis://host:port or unix:/path)";
    *code = QZ_MOM_E_ARG;
    return nullptr;
}

}  // namespace qzmom
