#include "cap_record.h"

namespace qzcap::tool {

std::vector<CapValue> CapRecord::values() const {
    std::vector<CapValue> out;
    if (bool_value)
        out.push_back(CapValue::of_bool(*bool_value));
    if (int32_value)
        out.push_back(CapValue::of_int32(*int32_value));
    if (str_value)
        out.push_back(CapValue::of_str(*str_value));
    return out;
}

std::string CapKey::describe() const {
    std::string d = "'" + url + "'";
    if (node)
        d += " on node " + std::to_string(*node);
    return d;
}

CapMessage::CapMessage(CapKey key) : key_(std::move(key)) {
    table_idx_.url = key_.url.data();
    table_.index = &table_idx_;
    sub_idx_.nodeid = key_.node.value_or(0);
    sub_idx_.url = key_.url.data();
    sub_.index = &sub_idx_;
}

std::vector<int32_t> CapMessage::set(const CapRecord &rec) {
    std::vector<int32_t> fields;
    const bool subcard = key_.node.has_value();
    auto put = [&](auto &field_table, auto &field_sub, auto value, int32_t num) {
        (subcard ? field_sub : field_table) = value;
        fields.push_back(num);
    };
    if (rec.bool_value)
        put(table_.bool_value, sub_.bool_value, protobuf_c_boolean{*rec.bool_value}, kBoolField);
    if (rec.int32_value)
        put(table_.int32_value, sub_.int32_value, *rec.int32_value, kInt32Field);
    if (rec.str_value) {
        str_ = *rec.str_value;
        put(table_.str_value, sub_.str_value, str_.data(), kStrField);
    }
    if (rec.pri)
        put(table_.pri, sub_.pri, *rec.pri, kPriField);
    if (rec.state && !subcard) {
        table_.state = *rec.state;
        fields.push_back(kStateField);
    }
    return fields;
}

bool holds_field(const qz_mom_hash_res_t &res, int32_t field) {
    for (uint32_t i = 0; i < res.field_count; ++i) {
        if (res.field_nums[i] == field)
            return true;
    }
    return false;
}

CapRecord cap_record_of(const qz_mom_hash_res_t &res, bool subcard) {
    CapRecord r;
    auto take = [&](int32_t num, auto &out, auto value) {
        if (holds_field(res, num))
            out = value;
    };
    if (subcard) {
        const auto *v = static_cast<const PLibpub__CapSubcardTable *>(res.view);
        take(kBoolField, r.bool_value, v->bool_value != 0);
        take(kInt32Field, r.int32_value, v->int32_value);
        take(kStrField, r.str_value, std::string(v->str_value));
        take(kPriField, r.pri, v->pri);
    } else {
        const auto *v = static_cast<const PLibpub__CapTable *>(res.view);
        take(kBoolField, r.bool_value, v->bool_value != 0);
        take(kInt32Field, r.int32_value, v->int32_value);
        take(kStrField, r.str_value, std::string(v->str_value));
        take(kPriField, r.pri, v->pri);
        take(kStateField, r.state, v->state != 0);
    }
    return r;
}

CapKey cap_key_of(const qz_mom_hash_res_t &res, bool subcard) {
    if (subcard) {
        const auto *v = static_cast<const PLibpub__CapSubcardTable *>(res.view);
        if (v->index == nullptr)
            return CapKey{"", 0};
        return CapKey{v->index->url, v->index->nodeid};
    }
    const auto *v = static_cast<const PLibpub__CapTable *>(res.view);
    return CapKey{v->index != nullptr ? v->index->url : "", std::nullopt};
}

}  // namespace qzcap::tool
