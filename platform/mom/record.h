// A stored record as the store holds it: a hash of field name -> bytes, as
// Redis holds it. Field names are decimal field numbers when the record was
// written through the typed calls; raw writes may store anything.
#ifndef QZ_MOM_IMPL_RECORD_H
#define QZ_MOM_IMPL_RECORD_H

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qzmom {

struct Field {
    std::string name;
    std::string value;
};

// Fields in the order the store keeps them (no order is promised).
using Record = std::vector<Field>;

// An immutable copy of one record at one moment. Stores replace a record on
// every write instead of changing it in place, so a snapshot stays valid and
// unchanged however long it is held.
using Snapshot = std::shared_ptr<const Record>;

// The value of field `name`, or nullptr when the record does not hold it.
inline const std::string *find_field(const Record &rec, std::string_view name) {
    for (const Field &f : rec) {
        if (f.name == name)
            return &f.value;
    }
    return nullptr;
}

// Hash for string-keyed unordered containers that look up by string_view
// without building a std::string (use with std::equal_to<>).
struct StrHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
};

}  // namespace qzmom

#endif  // QZ_MOM_IMPL_RECORD_H
