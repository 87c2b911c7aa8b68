#include "store.h"

#include "mem_store.h"
#include "redis_store.h"

namespace qzmom {

std::unique_ptr<Store> open_store(std::string_view uri, StoreListener *listener, std::string *why) {
    if (uri.substr(0, 4) == "mem:")
        return open_mem_store(uri.substr(4), listener);
    if (uri.substr(0, 8) == "redis://" || uri.substr(0, 5) == "unix:")
        return open_redis_store(uri, listener, why);
    *why = "unknown URI (expected mem:, mem:NAME, redis://host:port or unix:/path)";
    return nullptr;
}

}  // namespace qzmom
