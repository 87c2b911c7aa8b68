#include "result.h"

#include <cstdlib>

namespace qzmom {

std::atomic<int64_t> g_live_results{0};
std::atomic<int64_t> g_live_objects{0};

qz_mom_hash_res_t *new_result(int32_t error_code) {
    auto *res = static_cast<qz_mom_hash_res_t *>(calloc(1, sizeof(qz_mom_hash_res_t)));
    if (res != nullptr)
        res->error_code = error_code;
    return res;
}

qz_mom_hash_res_t *make_result(const ProtobufCMessageDescriptor *desc, std::string_view key,
                               const Record *rec, DecodeError *err) {
    qz_mom_hash_res_t *res = new_result(0);
    if (res == nullptr || rec == nullptr)
        return res;
    ProtobufCMessage *view = nullptr;
    int32_t rc = decode_record(desc, key, *rec, &view, &res->field_nums, &res->field_count, err);
    if (rc != 0) {
        res->error_code = rc;
        return res;
    }
    res->view = view;
    return res;
}

void free_result(qz_mom_hash_res_t *res) {
    if (res == nullptr)
        return;
    if (res->view != nullptr) {
        protobuf_c_message_free_unpacked(static_cast<ProtobufCMessage *>(res->view), nullptr);
    }
    free(res->field_nums);
    free(res);
}

}  // namespace qzmom
