// ready: the readiness flags that tell applications a capability table is
// complete: the device's own (local), the device-wide one (global), and a
// subcard's, which is keyed by its node id and its card's configured type.
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capability.h"
#include "commands.h"
#include "failure.h"
#include "libqz_cap.h"
#include "output.h"
#include "p_dev.pb-c.h"
#include "p_libpub.pb-c.h"
#include "qz_mom_client.h"
#include "s_frame.pb-c.h"

namespace qzcap::tool {
namespace {

enum class Which { kBoth, kLocal, kGlobal, kSubcard };

struct Args {
    std::vector<std::string> words;
    std::string set;
    CLI::Option *set_opt = nullptr;
};

// The configured device type of the card at node id `node`, as the library
// looks it up; not found when no card has that node id.
int32_t card_type_of(const Connection &conn, int32_t node) {
    PDev__CardInfo pattern = P_DEV__CARD_INFO__INIT;
    PDev__CardInfoIndex idx = P_DEV__CARD_INFO_INDEX__INIT;
    pattern.index = &idx;
    struct Found {
        int32_t node;
        std::optional<int32_t> type;
    } found{node, std::nullopt};
    auto cb = [](void *, qz_mom_pmsg_t *pmsg, void *arg) -> int32_t {
        auto *f = static_cast<Found *>(arg);
        if (pmsg->result == nullptr || pmsg->result->view == nullptr)
            return 0;
        const auto *card = static_cast<const PDev__CardInfo *>(pmsg->result->view);
        if (card->card_nodeid == f->node)
            f->type = card->config_dev_type;  // the last one, as in the library
        return 0;
    };
    conn.check(qz_mom_scan_sync(conn.handle(), kCapDb, &pattern.base, 0, cb, &found),
               "looking up the card of node " + std::to_string(node));
    if (!found.type)
        not_found("no card with node id " + std::to_string(node));
    return *found.type;
}

// A readiness flag as the library reads it. The library does not say why a
// read failed; the bus does, asked again for the flag's record `key`.
bool read_flag(const Connection &conn, int32_t (*read)(void *, bool *), ProtobufCMessage *key,
               const std::string &what) {
    bool ready = false;
    if (read(conn.handle(), &ready) != 0) {
        int32_t code = 0;
        qz_mom_qz_obj_free(qz_mom_get_sync(conn.handle(), kCapDb, key, &code));
        conn.fail(code != 0 ? code : QZ_MOM_E_REPLY, "reading " + what);
    }
    return ready;
}

bool read_local(const Connection &conn) {
    PLibpub__CapState key = P_LIBPUB__CAP_STATE__INIT;
    return read_flag(conn, libqz_cap_get_local_ready, &key.base, "local readiness");
}

bool read_global(const Connection &conn) {
    SFrame__CapGlbState key = S_FRAME__CAP_GLB_STATE__INIT;
    return read_flag(conn, libqz_cap_ce_get_glb_ready, &key.base, "global readiness");
}

bool read_subcard(const Connection &conn, int32_t node) {
    card_type_of(conn, node);  // a missing card is "not found", not a bus failure
    bool ready = false;
    const int32_t rc = libqz_cap_get_sub_card_local_ready_thread(conn.handle(), &ready, node);
    if (rc != 0) {
        throw Failure(kExitBadInput, "reading the readiness of subcard " + std::to_string(node) +
                                         " failed (status " + std::to_string(rc) + ")");
    }
    return ready;
}

void write_flag(const Connection &conn, ProtobufCMessage *rec, int32_t field,
                const std::string &what) {
    conn.check(qz_mom_write(conn.handle(), kCapDb, rec, 1, &field), "setting " + what);
}

void set_ready(const Connection &conn, Which which, int32_t node, bool v) {
    switch (which) {
        case Which::kLocal: {
            PLibpub__CapState s = P_LIBPUB__CAP_STATE__INIT;
            s.ready = v;
            write_flag(conn, &s.base, 5, "local readiness");
            break;
        }
        case Which::kGlobal: {
            SFrame__CapGlbState s = S_FRAME__CAP_GLB_STATE__INIT;
            s.ready = v;
            write_flag(conn, &s.base, 5, "global readiness");
            break;
        }
        case Which::kSubcard: {
            PLibpub__CapSubcardState s = P_LIBPUB__CAP_SUBCARD_STATE__INIT;
            PLibpub__CapSubcardStateIndex idx = P_LIBPUB__CAP_SUBCARD_STATE_INDEX__INIT;
            idx.nodeid = node;
            idx.config_dev_type = card_type_of(conn, node);
            s.index = &idx;
            s.ready = v;
            write_flag(conn, &s.base, 6, "the readiness of subcard " + std::to_string(node));
            break;
        }
        case Which::kBoth:
            break;
    }
}

}  // namespace

Command add_ready(CLI::App &app, const GlobalOptions &g) {
    CLI::App *sub = app.add_subcommand(
        "ready", "Show or set readiness: local, global (both when none is named) or subcard ID");
    auto a = std::make_shared<Args>();
    sub->add_option("WHICH", a->words, "local | global | subcard ID")
        ->expected(0, 2)
        ->type_name("");
    a->set_opt =
        sub->add_option("--set", a->set, "Set the named flag (not both)")->type_name("true|false");
    return {
        sub, [a, &g] {
            const std::vector<std::string> &w = a->words;
            Which which = Which::kBoth;
            int32_t node = 0;
            if (w.size() == 1 && w[0] == "local") {
                which = Which::kLocal;
            } else if (w.size() == 1 && w[0] == "global") {
                which = Which::kGlobal;
            } else if (w.size() == 2 && w[0] == "subcard") {
                which = Which::kSubcard;
                const std::optional<int32_t> n = to_int32(w[1]);
                if (!n)
                    bad_input("subcard wants a node id (an int32), not '" + one_line(w[1]) + "'");
                node = *n;
            } else if (!w.empty()) {
                std::string said;
                for (const std::string &s : w)
                    said += (said.empty() ? "" : " ") + s;
                bad_input("ready takes local, global or subcard ID, not '" + one_line(said) + "'");
            }
            std::optional<bool> set;
            if (a->set_opt->count() > 0) {
                if (which == Which::kBoth)
                    bad_input("--set needs the flag to set: local, global or subcard ID");
                set = parse_value(CapType::kBool, a->set).b;
            }
            auto conn = Connection::open(g);
            if (set) {
                set_ready(*conn, which, node, *set);
                return 0;
            }
            Json j;
            Table table({});
            auto show = [&](const std::string &name, bool v) {
                j[name] = v;
                table.add({name, v ? "true" : "false"});
            };
            if (which == Which::kBoth || which == Which::kLocal)
                show("local", read_local(*conn));
            if (which == Which::kBoth || which == Which::kGlobal)
                show("global", read_global(*conn));
            if (which == Which::kSubcard) {
                const bool v = read_subcard(*conn, node);
                j["subcard"] = node;
                j["ready"] = v;
                table.add({"subcard " + std::to_string(node), v ? "true" : "false"});
            }
            if (g.json)
                print_json_line(j);
            else
                table.print_rows();
            return 0;
        }};
}

}  // namespace qzcap::tool
