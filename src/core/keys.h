// Key records: a record type's initial value whose index, held beside it,
// selects the records a bus call addresses. An index left at its initial
// value is the pattern of every record of the type.
#ifndef LIBQZ_CAP_CORE_KEYS_H
#define LIBQZ_CAP_CORE_KEYS_H

#include <type_traits>

#include "p_dev.pb-c.h"
#include "p_libpub.pb-c.h"
#include "s_frame.pb-c.h"

namespace qzcap {

// Lives on the stack for one call; an index field set to a caller's text
// refers to that text. Neither copied nor moved: the record points at the
// index beside it.
template <const auto &RecordInit, const auto &IndexInit>
class KeyRecord {
  public:
    using Record = std::remove_cvref_t<decltype(RecordInit)>;
    using Index = std::remove_cvref_t<decltype(IndexInit)>;

    KeyRecord() { rec_.index = &index_; }
    // fill sets the index fields that select the record.
    template <class Fill>
    explicit KeyRecord(Fill fill) : KeyRecord() {
        fill(index_);
    }
    KeyRecord(const KeyRecord &) = delete;
    KeyRecord &operator=(const KeyRecord &) = delete;
    KeyRecord(KeyRecord &&) = delete;
    KeyRecord &operator=(KeyRecord &&) = delete;
    ~KeyRecord() = default;

    const ProtobufCMessage *msg() const { return &rec_.base; }

  private:
    Index index_ = IndexInit;
    Record rec_ = RecordInit;
};

// A record type without an index: its one record.
template <const auto &RecordInit>
class UnkeyedRecord {
  public:
    const ProtobufCMessage *msg() const { return &rec_.base; }

  private:
    std::remove_cvref_t<decltype(RecordInit)> rec_ = RecordInit;
};

namespace init {
inline constexpr PLibpub__CapTable kCapTable = P_LIBPUB__CAP_TABLE__INIT;
inline constexpr PLibpub__CapTableIndex kCapTableIndex = P_LIBPUB__CAP_TABLE_INDEX__INIT;
inline constexpr PLibpub__CapSubcardTable kSubcardTable = P_LIBPUB__CAP_SUBCARD_TABLE__INIT;
inline constexpr PLibpub__CapSubcardTableIndex kSubcardTableIndex =
    P_LIBPUB__CAP_SUBCARD_TABLE_INDEX__INIT;
inline constexpr PLibpub__CapSubcardState kSubcardState = P_LIBPUB__CAP_SUBCARD_STATE__INIT;
inline constexpr PLibpub__CapSubcardStateIndex kSubcardStateIndex =
    P_LIBPUB__CAP_SUBCARD_STATE_INDEX__INIT;
inline constexpr PDev__CardInfo kCardInfo = P_DEV__CARD_INFO__INIT;
inline constexpr PDev__CardInfoIndex kCardInfoIndex = P_DEV__CARD_INFO_INDEX__INIT;
inline constexpr PLibpub__CapState kCapState = P_LIBPUB__CAP_STATE__INIT;
inline constexpr SFrame__CapGlbState kGlbState = S_FRAME__CAP_GLB_STATE__INIT;
}  // namespace init

// A device-wide capability, by URL.
using CapKey = KeyRecord<init::kCapTable, init::kCapTableIndex>;
// A subcard capability, by node id and URL.
using SubcardCapKey = KeyRecord<init::kSubcardTable, init::kSubcardTableIndex>;
// A subcard's readiness, by node id and device type.
using SubcardStateKey = KeyRecord<init::kSubcardState, init::kSubcardStateIndex>;
// A card of the inventory, by node id.
using CardInfoKey = KeyRecord<init::kCardInfo, init::kCardInfoIndex>;
// Whether the local capability table is complete.
using LocalStateKey = UnkeyedRecord<init::kCapState>;
// Whether the device as a whole is ready.
using GlbStateKey = UnkeyedRecord<init::kGlbState>;

}  // namespace qzcap

#endif  // LIBQZ_CAP_CORE_KEYS_H
